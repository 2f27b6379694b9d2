"""Finds and uses the boxes of a workshop's network: vehicle communication interfaces that serve diagnostic clients.

    import zel

    for box in zel.find():
        print(box.address, box.device_id, box.state, box.owner)
    with zel.find_one("TAVO0012345").reserve("night test") as reservation:
        print(reservation.command("vehicle", "voltage", unit="mV"))

Whatever goes wrong is a `zel.Error`: `Unreachable`, `NotFound`, `Ambiguous`, `NotUnderstood`, `Fault`, `Refused`,
`CommandFailed` or `BadArgument`. Needs nothing but the standard library. Below it `zel.slp` and `zel.soap` hold the
protocols' messages, for those who send their own."""

from . import slp, soap
from .box import Box, Channel, Information, Reservation
from .discovery import find, find_one
from .errors import (Ambiguous, BadArgument, CommandFailed, Error, Fault, NotFound, NotUnderstood, Refused,
                     Unreachable)

__all__ = ["Ambiguous", "BadArgument", "Box", "Channel", "CommandFailed", "Error", "Fault", "Information", "NotFound",
           "NotUnderstood", "Refused", "Reservation", "Unreachable", "find", "find_one", "slp", "soap"]

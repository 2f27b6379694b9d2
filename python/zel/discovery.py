"""The search for boxes."""

from __future__ import annotations

import ipaddress
from collections.abc import Callable

from . import slp
from .box import STATES, Box, Value, dotted, number, serial_of
from .errors import Ambiguous, BadArgument, NotFound, is_time, shown

MAX_BOXES = 4096  # whoever forges addresses may answer as many
LISTED = 8  # boxes that a message names
NUMBERS = {"ImageVersionBoot", "ImageVersionApplication", "ImageVersionPackage", "Counter", "Kl15Voltage",
           "Kl30Voltage", "SignalStrength", "AccuCapacity", "NetworkType"}
TRUTHS = {"Kl15Trigger"}
LISTS = {"Diag", "VciChannels"}
ADDRESSES = {"Netmask", "NetGateway"}


def typed(name: str, value: str) -> Value:
    """An attribute of a box; a value that is not of its kind stays a text."""
    known: Value | None = None
    if name in NUMBERS:
        known = number(value)
    elif name in TRUTHS and value in ("true", "false"):
        known = value == "true"
    elif name in LISTS and value.startswith("[") and value.endswith("]"):
        known = tuple(slp.unescape(member) for member in value[1:-1].split(",") if member)
    elif name in ADDRESSES:
        known = dotted(value)
    return slp.unescape(value) if known is None else known


def read_box(address: str, listed: str) -> Box:
    """The box that has answered with that list of attributes."""
    values = slp.split_attributes(listed)

    def text(name: str) -> str:
        return slp.unescape(values.get(name, ""))

    state = text("State")
    return Box(address, device_id=text("Serial"), name=text("DevId"), state=STATES.get(state, state),
               owner=text("Owner"), attributes={name: typed(name, value) for name, value in values.items()})


def find(wait: float = 2, enough: Callable[[Box], bool] | None = None) -> list[Box]:
    """The boxes that answer on the networks of this computer within `wait` seconds, in the order of their addresses;
    or those there are by then when `enough` is true of one. An empty list when none does."""
    if not is_time(wait):
        raise BadArgument(f"no box can be waited for {wait} s; give the seconds, as 2")
    found: dict[str, Box] = {}
    for address, listed in slp.answers(wait):
        if address not in found and len(found) >= MAX_BOXES:
            continue
        found[address] = read_box(address, listed)
        if enough and enough(found[address]):
            break
    return sorted(found.values(), key=lambda box: ipaddress.IPv4Address(box.address))


def find_one(name: str = "", wait: float = 2) -> Box:
    """The one box of that device id, serial number or name, in upper or lower case, or the only one there is.
    NotFound when there is none, Ambiguous when there are several: none of them is taken silently."""
    def is_meant(box: Box) -> bool:
        wanted = name.lower()
        return not name or wanted in (box.device_id.lower(), serial_of(box.device_id).lower(), box.name.lower())

    boxes = [box for box in find(wait) if is_meant(box)]
    if not boxes:
        who = f"box {shown(name)!r}" if name else "box"
        raise NotFound(f"no {who} answers within {wait:g} s; is it switched on, and on this network? "
                       "Wait longer (wait), or use its address: zel.Box(ADDRESS)")
    if len(boxes) > 1:
        listed = ", ".join(map(str, boxes[:LISTED])) + (", ..." if len(boxes) > LISTED else "")
        raise Ambiguous(f"{len(boxes)} boxes answer{f' to {shown(name)!r}' if name else ''}: {listed}; "
                        "choose one by its address: zel.Box(ADDRESS)")
    return boxes[0]

"""A box and what is done with it."""

from __future__ import annotations

import contextlib
import ipaddress
import re
import threading
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Mapping
from dataclasses import dataclass, field, replace
from types import TracebackType

from . import soap
from .errors import BadArgument, CommandFailed, Error, NotUnderstood, Refused, is_time, shown

Value = str | int | bool | tuple[str, ...]

STATES = {"4": "free", "5": "reserved"}
NETWORKS = {"0": "cable", "1": "WLAN"}
DONE, WRONG_HANDLE, NOT_RESERVED, RESERVED = 0, 7, 9, 10
MEANINGS = {
    WRONG_HANDLE: "the handle is not that of the reservation; the box is reserved again",
    NOT_RESERVED: "it is not reserved; reserve it first",
    RESERVED: "it is reserved already; wait until it is free (wait_free), or ask for it",
    17: "the edge could not be reset, or the mode not be switched; try again, and see the box's log",
    19: "the mode was switched, but no link or address came in time; find the box again",
    20: "it has another device id; find the box again",
    21: "it is too hot; let it cool down",
}
COMMAND_LIMIT = 30  # seconds that a box gives a command
ASK_AGAIN = 1  # seconds between two tries to reserve a box that is not free
ANY_HOST = "0"
MAX_HANDLE = 128  # characters
NO_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


def number(text: str | None) -> int | None:
    """None for what is no number."""
    return int(text) if text is not None and re.fullmatch(r"[+-]?[0-9]{1,18}", text) else None


def dotted(text: str | None) -> str | None:
    """An address as the services tell it, as the signed decimal of its 32 bits; None for what is none."""
    value = number(text)
    return None if value is None or abs(value) >= 1 << 32 else str(ipaddress.IPv4Address(value & 0xFFFFFFFF))


def serial_of(device_id: str) -> str:
    """A device id without the letters before its number."""
    return device_id.lstrip("ABCDEFGHIJKLMNOPQRSTUVWXYZ") or device_id


def lock_of(host: str | None) -> str:
    if host is None or host.lower() == "any":
        return ANY_HOST
    try:
        return str(ipaddress.IPv4Address(host))
    except ValueError:
        raise BadArgument(f"{shown(host)!r} is no address to lock the ports to; give a whole one, as '192.168.68.1', "
                          "or 'any' for every host") from None


@dataclass(frozen=True)
class Channel:
    """A diagnostic channel. `address` and `port` are where its data is; `active` tells whether it can be used."""

    name: str
    address: str | None
    port: int | None
    active: bool


@dataclass(frozen=True)
class Information:
    """What a box says of itself when it is asked; None where it does not say, or what cannot be."""

    device_id: str
    serial: str
    name: str
    state: str  # "free", "reserved", or what else the box says
    owner: str | None
    vin: str | None
    firmware: str | None
    hardware: str | None
    voltage_kl15_mv: int | None
    voltage_kl30_mv: int | None
    kl15_edge: bool
    address: str | None
    netmask: str | None
    gateway: str | None
    network: str | None  # "cable", "WLAN", or what else the box says
    signal_strength: int | None
    channels: tuple[Channel, ...]

    @staticmethod
    def read(values: ElementTree.Element) -> Information:
        """Of the element that holds the values."""
        def text(name: str, parent: ElementTree.Element | None = values) -> str | None:
            node = None if parent is None else soap.child(parent, name)
            return None if node is None else (node.text or "").strip() or None

        channels, network = soap.child(values, "channels"), soap.child(values, "currentNetworkConfig")
        state, kind = text("state") or "", text("type", network) or ""
        return Information(
            device_id=text("id") or "", serial=text("serial") or "", name=text("name") or "",
            state=STATES.get(state, state), owner=text("sessionOwnerOrNull"), vin=text("vin"),
            firmware=text("firmware"), hardware=text("hardwareVersion"),
            voltage_kl15_mv=number(text("kl15")), voltage_kl30_mv=number(text("kl30")),
            kl15_edge=text("kl15Edge") == "true",
            address=dotted(text("ip4Address", network)), netmask=dotted(text("netmask", network)),
            gateway=dotted(text("gateway", network)), network=NETWORKS.get(kind, kind) or None,
            signal_strength=number(text("wlanSignal", network)),
            channels=tuple(Channel(text("name", node) or "", dotted(text("ip", node)), number(text("port", node)),
                                   text("active", node) == "true")
                           for node in (list(channels) if channels is not None else [])))


@dataclass(frozen=True)
class Box:
    """A box at an address, which is a host's name or a dotted address.

    `find` gives boxes that know more: device id ("TAVO0012345"), serial number ("0012345"), name, state ("free",
    "reserved"), owner and all that the box has answered, by the names that it uses, numbers as numbers. That is as it
    was when they were found; `info` asks anew. `timeout` seconds are what one request may take in all."""

    address: str
    port: int = soap.PORT
    timeout: float = field(default=10, compare=False)
    device_id: str = field(default="", compare=False)
    name: str = field(default="", compare=False)
    state: str = field(default="", compare=False)
    owner: str = field(default="", compare=False)
    attributes: Mapping[str, Value] = field(default_factory=dict, compare=False, repr=False)

    def __post_init__(self) -> None:
        if not self.address or not 0 < self.port < 1 << 16:
            raise BadArgument(f"no box can be asked at {shown(self.address)!r}, port {self.port}; give its address, as "
                              "'192.168.68.42', and a port up to 65535, or none")
        if not is_time(self.timeout):
            raise BadArgument(f"no answer of a box can be waited for {self.timeout} s; give the seconds, as 10")

    def __str__(self) -> str:
        return f"{shown(self.address)} ({shown(self.device_id, 40)})" if self.device_id else shown(self.address)

    @property
    def serial(self) -> str:
        """The number in the device id."""
        return serial_of(self.device_id)

    def call(self, operation: str, path: str = soap.CONNECTOR, /, **values: object) -> ElementTree.Element:
        """Calls an operation of a service and returns the response's element; for what has no method of its own, as
        `box.call("isServiceRunning", zel.soap.AGENT, name="VCI-Agent")`. An error code is a Refused."""
        message = soap.operation(operation, **values)
        if bad := NO_XML.search(message):
            raise BadArgument(f"the character {bad[0]!r} cannot be sent to {self}; take it out of what is given to "
                              f"{operation}")
        response = soap.call(self.address, self.port, message, path, self.timeout)
        if path == soap.CONNECTOR:
            code = number(soap.find(response, "error"))
            if code is None:
                raise NotUnderstood(f"{self} answers {operation} without an error code; is it a box?")
            if code != DONE:
                raise Refused(str(self), code, MEANINGS.get(code, "a code that is not known"),
                              self._owner() if code in (WRONG_HANDLE, RESERVED) else "")
        return response

    def _owner(self) -> str:
        """Who has it now, as far as it can be told."""
        with contextlib.suppress(Error):
            return self.info().owner or ""
        return ""

    def info(self) -> Information:
        """What the box is and how it is, now."""
        values = soap.child(self.call("getDeviceInformation"), "out")
        if values is None:
            raise NotUnderstood(f"{self} does not say what it is; is it a box?")
        return Information.read(values)

    def reserve(self, owner: str, lock: str | None = None, wait_free: float | None = None) -> Reservation:
        """Reserves the box under that name; the with block that it is given to releases it at its end.

        `lock` is the only host that may reach the diagnostic ports, a whole dotted address; without it every host
        may. `wait_free` seconds are waited for a box that somebody else has. Refused when the box will not; after
        Unreachable nobody knows whether it is reserved."""
        if not owner:
            raise BadArgument(f"{self} is reserved under a name, so that others see who has it; give an owner")
        if wait_free is not None and not wait_free >= 0:
            raise BadArgument(f"no box can be waited for {wait_free} s; give the seconds, as 60")
        host = lock_of(lock)
        device_id = self.device_id or self.info().device_id
        end = time.monotonic() + (wait_free or 0)
        while True:
            try:
                response = self.call("reserveDevice", deviceId=device_id, owner=owner, hostLock=host)
                break
            except Refused as refusal:
                left = end - time.monotonic()
                if refusal.code != RESERVED or left <= 0:
                    raise
            time.sleep(min(left, ASK_AGAIN))
        handle = soap.find(response, "handle") or ""
        if not handle or len(handle) > MAX_HANDLE:
            raise NotUnderstood(f"{self} is reserved, but gives no handle; is it a box?")
        return Reservation(self, owner, handle, device_id)


class Reservation:
    """A reserved box. As a context manager it releases the box at the end of the block, however that is left."""

    def __init__(self, box: Box, owner: str, handle: str, device_id: str):
        self.box = box
        self.owner = owner
        self.handle = handle
        self.device_id = device_id
        self.released = False
        self._releasing = threading.RLock()

    def __repr__(self) -> str:
        return f"<Reservation of {self.box} by {self.owner!r}{', released' if self.released else ''}>"

    def command(self, subsystem: str, command: str, /, **parameters: object) -> str:
        """Runs a command of the vehicle interface and returns what it says. Parameters are passed on as texts; one
        whose name is no name in Python as `**{"a-b": 1}`. A command may take 30 s beside the box's time-out."""
        patient = replace(self.box, timeout=self.box.timeout + COMMAND_LIMIT)
        response = patient.call("executeGenericCommand", handle=self.handle, pSubSystem=subsystem, pCommand=command,
                                pParameters=[{"key": key, "value": value} for key, value in parameters.items()])
        key, output = soap.find(response, "key"), soap.find(response, "value") or ""
        if key != "result":
            raise CommandFailed(str(self.box), f"{subsystem} {command}", output)
        return output

    def lock(self, host: str) -> None:
        """Opens the diagnostic ports to that host alone, a whole dotted address, or to "any"."""
        self.box.call("setHostLock", handle=self.handle, hostLock=lock_of(host))

    def release(self) -> None:
        """Gives the box back; done once, whichever threads ask for it."""
        with self._releasing:
            if not self.released:
                self.box.call("releaseDevice", handle=self.handle, deviceId=self.device_id)
                self.released = True

    def __enter__(self) -> Reservation:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        try:
            self.release()
        except Error as failure:
            if error is None:
                raise
            error.add_note(f"The box could not be released: {failure}")

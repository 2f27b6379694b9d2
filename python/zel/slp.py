"""The service location protocol (RFC 2608) as clients, boxes and managers speak it.

`find` is made of this. Messages are written as they are asked for, so that one can be written that nobody may send,
and read strictly: what would reach past an end, or is no answer to the question, is a BadMessage. Numbers are in
network byte order; texts are UTF-8 behind two bytes of length."""

from __future__ import annotations

import contextlib
import re
import secrets
import selectors
import socket
import struct
import time
from collections.abc import Iterator

from .errors import Error, Unreachable

GROUP = "239.255.255.253"
PORT = 427
VERSION = 2
SRV_RQST, SRV_RPLY, ATTR_RQST, ATTR_RPLY, TYPE_RQST, TYPE_RPLY = 1, 2, 6, 7, 9, 10
CONNECTOR = "service:zel.connector"
SCOPE = "default"
ALL_AUTHORITIES = b"\xff\xff"  # where a request for types has the length of the naming authority


MAX_DATAGRAM = 65535
ASKED = (0, 0.25, 0.5)  # when the group is asked, in parts of the time there is: datagrams get lost
SOCKETS = 64  # that hear the answers
MAX_ANSWER = 8192  # bytes; boxes keep to 1,400


class BadMessage(Error):
    """A datagram that is not the message it should be."""


class Fields:
    """Reads a message front to back; whatever would reach past its end is an error."""

    def __init__(self, data: bytes):
        self.data = data
        self.position = 0

    def take(self, count: int, what: str) -> bytes:
        end = self.position + count
        if end > len(self.data):
            raise BadMessage(f"{what} ends at {end}, the datagram at {len(self.data)}")
        part = self.data[self.position:end]
        self.position = end
        return part

    def number(self, width: int, what: str) -> int:
        return int.from_bytes(self.take(width, what), "big")

    def text(self, what: str) -> str:
        part = self.take(self.number(2, f"length of the {what}"), what)
        try:
            return part.decode()
        except UnicodeDecodeError:
            raise BadMessage(f"the {what} is not UTF-8: {part!r}") from None

    def rest(self) -> bytes:
        return self.data[self.position:]


def text(value: str) -> bytes:
    """A text as a message holds it."""
    encoded = value.encode()
    return struct.pack("!H", len(encoded)) + encoded


def message(function: int, *fields: str | bytes, xid: int = 7, language: str = "en") -> bytes:
    """A datagram; texts get their lengths, bytes stand as they are."""
    tail = struct.pack("!H", xid) + b"".join(
        field if isinstance(field, bytes) else text(field) for field in (language, *fields))
    return struct.pack("!BB", VERSION, function) + (10 + len(tail)).to_bytes(3, "big") + bytes(5) + tail


def attribute_request(url: str = CONNECTOR, scope: str = SCOPE, xid: int = 7) -> bytes:
    return message(ATTR_RQST, "", url, scope, "", "", xid=xid)


def service_request(service_type: str = CONNECTOR) -> bytes:
    return message(SRV_RQST, "", service_type, SCOPE, "", "")


def type_request() -> bytes:
    return message(TYPE_RQST, "", ALL_AUTHORITIES, SCOPE)


def attribute_reply(attributes: str, xid: int, language: str = "en", error: int = 0) -> bytes:
    return message(ATTR_RPLY, struct.pack("!H", error), attributes, b"\0", xid=xid, language=language)


def service_reply(url: str, xid: int, lifetime: int = 65530, language: str = "en") -> bytes:
    """With one URL, and the zero byte that a box puts behind it."""
    return message(SRV_RPLY, struct.pack("!HHBH", 0, 1, 0, lifetime), url, b"\0\0", xid=xid, language=language)


def read_request(data: bytes) -> tuple[int, bytes, str]:
    """Function, number (as bytes) and the URL or the type that is asked for."""
    fields = Fields(data)
    function = fields.take(2, "head")[1]
    fields.take(8, "head")
    xid = fields.take(2, "number")
    for what in ("language tag", "list of who has answered"):
        fields.text(what)
    return function, xid, fields.text("URL")


def read_reply(data: bytes, function: int) -> Fields:
    """The fields behind the error code of a good reply."""
    fields = Fields(data)
    head = fields.number(1, "version"), fields.number(1, "function"), fields.number(3, "message length")
    fields.take(7, "head")
    language, error = fields.text("language tag"), fields.number(2, "error")
    if (*head, language, error) != (VERSION, function, len(data), "en", 0):
        raise BadMessage(f"no reply {function} of {len(data)} bytes: {head}, {language}, error {error}")
    return fields


def read_attributes(data: bytes) -> str:
    """The list of an attribute reply, behind which a box puts two zero bytes."""
    fields = read_reply(data, ATTR_RPLY)
    attributes = fields.text("attribute list")
    if fields.rest() not in (b"\0", b"\0\0"):
        raise BadMessage(f"behind the list: {fields.rest()!r}")
    return attributes


def split_attributes(listed: str) -> dict[str, str]:
    """The values of an attribute list as they stand there, by name. Older boxes do not escape what others have set:
    a value ends where a comma and the next attribute follow, and the first one of a name counts."""
    found: dict[str, str] = {}
    for part in listed.removeprefix("(").removesuffix(")").split("),("):
        name, equals, value = part.partition("=")
        if name and equals:
            found.setdefault(name, value)
    return found


def unescape(value: str) -> str:
    """A value without the escapes of its reserved characters (RFC 2608, section 5)."""
    plain = re.sub(rb"\\([0-9A-Fa-f]{2})", lambda digits: bytes.fromhex(digits[1].decode()), value.encode())
    return plain.decode(errors="replace")


def _ask(client: socket.socket, request: bytes) -> int:
    """Sends it to the group on every interface; returns on how many."""
    asked = 0
    for index, _ in socket.if_nameindex():
        with contextlib.suppress(OSError):  # it is down, or has no address
            interface = struct.pack("=4s4si", bytes(4), bytes(4), index)
            client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, interface)
            client.sendto(request, (GROUP, PORT))
            asked += 1
    return asked


def _open_shared(stack: contextlib.ExitStack) -> selectors.BaseSelector:
    """Sockets that share a port: one by itself holds some hundred answers, and a thousand boxes answer in less time
    than it may take until a busy computer reads them."""
    selector = stack.enter_context(selectors.DefaultSelector())
    port = 0
    for _ in range(SOCKETS):
        client = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        if port:  # the first one finds a port that nobody shares yet
            client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        client.bind(("", port))
        client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        client.setblocking(False)
        port = client.getsockname()[1]
        selector.register(client, selectors.EVENT_READ, client)
    return selector


def _receive(client: socket.socket, end: float) -> Iterator[tuple[bytes, str]]:
    """(datagram, sender) of all that has come, as long as there is time."""
    with contextlib.suppress(BlockingIOError):
        while time.monotonic() < end:
            data, sender = client.recvfrom(MAX_ANSWER)
            yield data, sender[0]


def answers(wait: float) -> Iterator[tuple[str, str]]:
    """Asks all boxes for their attributes, on every interface, and yields (address, attribute list) of each answer
    that comes within `wait` seconds; one box may answer several times. Whatever else arrives is left out."""
    xid = secrets.randbelow(0xFFFF) + 1
    begin = time.monotonic()
    end = begin + wait
    turns = [begin + part * wait for part in ASKED]
    with contextlib.ExitStack() as stack:
        try:
            selector = _open_shared(stack)
        except OSError as error:
            raise Unreachable(f"no socket can be opened from which boxes are asked: {error.strerror or error}; "
                              f"a search takes {SOCKETS} of them") from None
        asking = next(iter(selector.get_map().values())).data
        while (now := time.monotonic()) < end:
            if turns and now >= turns[0]:
                del turns[0]
                if not _ask(asking, attribute_request(xid=xid)):
                    raise Unreachable("no network interface has an address, so that no box can be asked; "
                                      "is this computer on the workshop's network?")
            ready = selector.select((turns or [end])[0] - now)
            # All that has come is taken out before any of it is looked into.
            for data, sender in [datagram for key, _ in ready for datagram in _receive(key.data, end)]:
                with contextlib.suppress(BadMessage):
                    listed = read_reply(data, ATTR_RPLY).text("attribute list")
                    if data[10:12] == xid.to_bytes(2, "big"):
                        yield sender, listed


def address_towards(host: str) -> str:
    """The own address from which that host is reached."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.connect((host, PORT))
        return str(probe.getsockname()[0])


def open_client(address: str) -> socket.socket:
    """A socket of that address, from which groups are asked as well."""
    client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
    client.bind((address, 0))
    return client


def join_group(sock: socket.socket, address: str) -> int:
    """Joins on the interface of the address, or on all: without a default route the kernel would not
    know which one is meant."""
    joined = 0
    indices = [0] if address != "0.0.0.0" else [index for index, _ in socket.if_nameindex()]
    for index in indices:
        with contextlib.suppress(OSError):
            member = struct.pack("=4s4si", socket.inet_aton(GROUP), socket.inet_aton(address), index)
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
            joined += 1
    return joined

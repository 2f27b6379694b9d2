"""The service location protocol (RFC 2608) as clients, boxes and managers speak it."""

import contextlib
import socket
import struct

GROUP = "239.255.255.253"
PORT = 427
VERSION = 2
SRV_RQST, SRV_RPLY, ATTR_RQST, ATTR_RPLY, TYPE_RQST, TYPE_RPLY = 1, 2, 6, 7, 9, 10
CONNECTOR = "service:zel.connector"
SCOPE = "default"
ALL_AUTHORITIES = b"\xff\xff"  # where a request for types has the length of the naming authority


class BadMessage(Exception):
    pass


class Fields:
    """Reads a message front to back; whatever would reach past its end is an error."""

    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, count, what):
        end = self.position + count
        if end > len(self.data):
            raise BadMessage(f"{what} ends at {end}, the datagram at {len(self.data)}")
        part = self.data[self.position:end]
        self.position = end
        return part

    def number(self, width, what):
        return int.from_bytes(self.take(width, what), "big")

    def text(self, what):
        part = self.take(self.number(2, f"length of the {what}"), what)
        try:
            return part.decode()
        except UnicodeDecodeError:
            raise BadMessage(f"the {what} is not UTF-8: {part!r}") from None

    def rest(self):
        return self.data[self.position:]


def text(value):
    value = value.encode()
    return struct.pack("!H", len(value)) + value


def message(function, *fields, xid=7, language="en"):
    """A datagram; texts get their lengths, bytes stand as they are."""
    tail = struct.pack("!H", xid) + b"".join(
        field if isinstance(field, bytes) else text(field) for field in (language, *fields))
    return struct.pack("!BB", VERSION, function) + (10 + len(tail)).to_bytes(3, "big") + bytes(5) + tail


def attribute_request(url=CONNECTOR, scope=SCOPE, **options):
    return message(ATTR_RQST, "", url, scope, "", "", **options)


def service_request(service_type=CONNECTOR, **options):
    return message(SRV_RQST, "", service_type, SCOPE, "", "", **options)


def type_request(**options):
    return message(TYPE_RQST, "", ALL_AUTHORITIES, SCOPE, **options)


def attribute_reply(attributes, xid, language="en", error=0):
    return message(ATTR_RPLY, struct.pack("!H", error), attributes, b"\0", xid=xid, language=language)


def service_reply(url, xid, lifetime=65530, language="en"):
    """With one URL, and the zero byte that a box puts behind it."""
    entry = struct.pack("!HHBH", 0, 1, 0, lifetime)
    return message(SRV_RPLY, entry, url, b"\0\0", xid=xid, language=language)


def read_request(data):
    """Function, number (as bytes) and the URL or the type that is asked for."""
    fields = Fields(data)
    function = fields.take(2, "head")[1]
    fields.take(8, "head")
    xid = fields.take(2, "number")
    fields.text("language tag"), fields.text("list of who has answered")
    return function, xid, fields.text("URL")


def read_reply(data, function):
    """The fields behind the error code of a good reply."""
    fields = Fields(data)
    head = fields.number(1, "version"), fields.number(1, "function"), fields.number(3, "message length")
    fields.take(7, "head")
    language, error = fields.text("language tag"), fields.number(2, "error")
    if (*head, language, error) != (VERSION, function, len(data), "en", 0):
        raise BadMessage(f"no reply {function} of {len(data)} bytes: {head}, {language}, error {error}")
    return fields


def read_attributes(data):
    """The list of an attribute reply, behind which a box puts two zero bytes."""
    fields = read_reply(data, ATTR_RPLY)
    attributes = fields.text("attribute list")
    if fields.rest() not in (b"\0", b"\0\0"):
        raise BadMessage(f"behind the list: {fields.rest()!r}")
    return attributes


def address_towards(host):
    """The own address from which that host is reached."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.connect((host, PORT))
        return probe.getsockname()[0]


def open_client(address):
    """A socket of that address, from which groups are asked as well."""
    client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
    client.bind((address, 0))
    return client


def join_group(sock, address):
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

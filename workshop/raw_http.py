"""HTTP byte by byte, for those who send what no client should, or look at every byte that comes back."""

import contextlib
import re
import socket
import struct

from zel.soap import CONNECTOR, envelope


def post(body, path=CONNECTOR, headers="", length=None, method="POST"):
    """The bytes of a request; `headers` are whole lines."""
    body = body.encode() if isinstance(body, str) else body
    length = len(body) if length is None else length
    return f"{method} {path} HTTP/1.1\r\nContent-Length: {length}\r\n{headers}\r\n".encode() + body


def value(body, name):
    """The text of the first element of that name, as it stands in the answer."""
    return re.search(rf"<(?:\w+:)?{name}>(.*?)</", body, re.S)[1]


def read_all(connection):
    data = b""
    with contextlib.suppress(ConnectionResetError):
        while part := connection.recv(65536):
            data += part
    return data


def receive(connection, data):
    """What has come before, and the next part."""
    part = connection.recv(65536)
    if not part:
        raise ConnectionError(f"closed after {data!r}")
    return data + part


def read_response(connection):
    """One response of a connection that stays open: (head, body)."""
    data = b""
    while b"\r\n\r\n" not in data:
        data = receive(connection, data)
    head, body = data.split(b"\r\n\r\n", 1)
    length = int(re.search(rb"\r\nContent-Length: (\d+)\r\n", head)[1])
    while len(body) < length:
        body = receive(connection, body)
    return head, body


def reset_on_close(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def chunked(body, size=500):
    pieces = [body[start:start + size] for start in range(0, len(body), size)] + [b""]
    return b"".join(b"%x\r\n%b\r\n" % (len(piece), piece) for piece in pieces)


INFORMATION = post(envelope("<getDeviceInformation/>"))
GREETING = b"Hallo Welt, ist es nicht nett hier draussen?"  # of GET /test

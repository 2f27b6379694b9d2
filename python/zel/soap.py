"""SOAP 1.1 as the services of a box speak it: how a request is written, sent, and its answer read.

`Box` is made of this. What stands here checks what comes back, and nothing of what goes out, so that it serves
those as well who send what no box can read."""

from __future__ import annotations

import http.client
import io
import socket
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Mapping
from typing import Any
from xml.parsers import expat
from xml.sax.saxutils import escape

from .errors import Fault, NotUnderstood, Unreachable, shown

PORT = 5302
CONNECTOR = "/zel/services/ConnectorService"
AGENT = "/services/Agent"
ENVELOPE = "http://schemas.xmlsoap.org/soap/envelope/"
NAMESPACES = {CONNECTOR: "http://lusora.tembra.com/services/zel/Connector/v1",
              AGENT: "http://lusora.tembra.com/services/Agent"}
CONTENT_TYPE = 'text/xml;charset="utf-8"'
MAX_ANSWER = 8 << 20  # bytes of a body: a box keeps 1 MiB of what a command says, which escapes make longer
MAX_RECEIVED = 2 * MAX_ANSWER  # with head and chunks
MAX_DEPTH = 100  # elements within each other
MAX_PARTS = 10000  # elements and attributes of a document
MAX_NAMESPACE = 200  # characters
FAULT_STATUS = 500  # of HTTP, for a fault; boxes say 200


def element(name: str, content: object) -> str:
    """An element. A mapping becomes its children, a list one element for each of its members, anything else its
    text."""
    if isinstance(content, list):
        return "".join(element(name, member) for member in content)
    if isinstance(content, Mapping):
        return f"<{name}>{''.join(element(key, value) for key, value in content.items())}</{name}>"
    return f"<{name}>{escape(str(content))}</{name}>"


def operation(name: str, namespace: str = "", /, **values: object) -> str:
    """The element of an operation; it may be in the namespace of its service, or in none."""
    declared = f' xmlns="{namespace}"' if namespace else ""
    return f"<{name}{declared}>{''.join(element(key, value) for key, value in values.items())}</{name}>"


def envelope(inner: str) -> str:
    return f'<e:Envelope xmlns:e="{ENVELOPE}"><e:Body>{inner}</e:Body></e:Envelope>'


def local_name(node: ElementTree.Element) -> str:
    return node.tag.rpartition("}")[2]


def child(parent: ElementTree.Element, name: str) -> ElementTree.Element | None:
    """The first child of that name, in whatever namespace."""
    return next((node for node in parent if local_name(node) == name), None)


def find(root: ElementTree.Element, name: str) -> str | None:
    """The text of the first element of that name, in whatever namespace and depth."""
    for node in root.iter():
        if local_name(node) == name:
            return (node.text or "").strip()
    return None


def _judge(document: bytes) -> None:
    """NotUnderstood when building the tree of a document could do harm: no box declares entities, and a stranger's may
    grow without end, as do names when each of them is given a long namespace."""
    depth = parts = 0

    def doctype(name: str, *_: object) -> None:
        raise NotUnderstood(f"it declares a document type, {shown(name, 40)!r}")

    def start(_: str, attributes: dict[str, str]) -> None:
        nonlocal depth, parts
        depth += 1
        parts += 1 + len(attributes)
        if depth > MAX_DEPTH or parts > MAX_PARTS:
            raise NotUnderstood(f"it has more than {MAX_PARTS} elements and attributes, or {MAX_DEPTH} elements within "
                                "each other")
        if any(name.startswith("xmlns") and len(value) > MAX_NAMESPACE for name, value in attributes.items()):
            raise NotUnderstood(f"a namespace of it has more than {MAX_NAMESPACE} characters")

    def end(_: str) -> None:
        nonlocal depth
        depth -= 1

    parser = expat.ParserCreate()
    parser.StartDoctypeDeclHandler, parser.StartElementHandler, parser.EndElementHandler = doctype, start, end
    parser.Parse(document, True)


def parse(document: bytes) -> ElementTree.Element:
    """The root of a document; NotUnderstood when it is none, or one that could do harm."""
    try:
        _judge(document)
        return ElementTree.fromstring(document)
    except (expat.ExpatError, ElementTree.ParseError, ValueError, LookupError) as error:  # the latter of encodings
        raise NotUnderstood(f"it is no XML: {shown(str(error))}") from None


class _Timed(io.RawIOBase):
    """What a socket has to say until a deadline, however slowly it comes; no more than MAX_RECEIVED, since http.client
    reads a chunk of -1 bytes to its end."""

    def __init__(self, connection: socket.socket, end: float):
        self.connection = connection
        self.end = end
        self.received = 0

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: bytearray) -> int:  # type: ignore[override]
        left = self.end - time.monotonic()
        if left <= 0:
            raise TimeoutError
        self.connection.settimeout(left)
        count = self.connection.recv_into(buffer)
        self.received += count
        if self.received > MAX_RECEIVED:
            raise ValueError(f"more than {MAX_RECEIVED} bytes")
        return count

    def makefile(self, *_: object) -> io.BufferedReader:
        """As http.client asks for it."""
        return io.BufferedReader(self)


class OnePieceConnection(http.client.HTTPConnection):
    """Sends the head of a request and its body at once. Few connections may wait for a box; to one that comes while
    they do, the kernel answers with a cookie, which only the first segment of a request redeems. If that is lost as
    well, a second one has the connection reset."""

    def __init__(self, *arguments: Any, **options: Any):
        super().__init__(*arguments, **options)
        self._pieces: list[bytes] = []

    def send(self, data: bytes) -> None:  # type: ignore[override]
        self._pieces.append(data)

    def endheaders(self, message_body: Any = None, *, encode_chunked: bool = False) -> None:
        super().endheaders(message_body, encode_chunked=encode_chunked)
        request = b"".join(self._pieces)
        self._pieces.clear()
        super().send(request)


def _exchange(host: str, port: int, path: str, body: bytes, timeout: float) -> tuple[int, bytes]:
    end = time.monotonic() + timeout
    connection = OnePieceConnection(host, port, timeout)
    try:
        connection.connect()
        connection.sock.settimeout(max(end - time.monotonic(), 0.001))
        connection.request("POST", path, body, {"Content-Type": CONTENT_TYPE, "Connection": "close"})
        response = http.client.HTTPResponse(_Timed(connection.sock, end), method="POST")  # type: ignore[arg-type]
        response.begin()
        answer = response.read(MAX_ANSWER + 1)
        if response.length and len(answer) <= MAX_ANSWER:
            raise http.client.IncompleteRead(answer, response.length)
        return response.status, answer
    finally:
        connection.close()


def send(host: str, port: int, message: str, path: str = CONNECTOR, timeout: float = 10) -> bytes:
    """Sends a message and returns the body of the answer; `timeout` seconds are for all of it."""
    who = f"{shown(host)}:{port}"
    body = message.encode()
    try:
        status, answer = _exchange(host, port, path, body, timeout)
    except TimeoutError:
        raise Unreachable(f"{who} does not answer within {timeout:g} s; is the box switched on, and on this network?"
                          ) from None
    except (ConnectionResetError, BrokenPipeError):
        raise Unreachable(f"{who} has closed the connection and not answered; a busy box does, try again") from None
    except (http.client.InvalidURL, UnicodeError):
        raise Unreachable(f"{who} is no host's name or address") from None
    except (http.client.HTTPException, ValueError) as error:
        raise NotUnderstood(f"{who} does not answer as a box does: {shown(str(error) or type(error).__name__)}; "
                            "is it one?") from None
    except OSError as error:
        raise Unreachable(f"{who} cannot be reached: {error.strerror or error}; is it on this network? "
                          "(zel.find() tells who is)") from None
    if status not in (http.client.OK, FAULT_STATUS):
        raise NotUnderstood(f"{who} answers with the status {status} to a request for {path}; is it a box?")
    if len(answer) > MAX_ANSWER:
        raise NotUnderstood(f"{who} answers more than {MAX_ANSWER} bytes; is it a box?")
    return answer


def call(host: str, port: int, message: str, path: str = CONNECTOR, timeout: float = 10) -> ElementTree.Element:
    """The response to an operation, or one of the errors, a Fault among them."""
    who = f"{shown(host)}:{port}"
    answer = send(host, port, envelope(message), path, timeout)
    try:
        root = parse(answer)
        body = child(root, "Body")
        if local_name(root) != "Envelope" or body is None or len(body) == 0:
            raise NotUnderstood("there is no SOAP envelope with something in it")
    except NotUnderstood as error:
        raise NotUnderstood(f"what {who} answers is not understood: {error}; is it a box?") from None
    response = body[0]
    if local_name(response) == "Fault":
        raise Fault(who, find(response, "faultstring") or "")
    if not local_name(response).endswith("Response"):
        raise NotUnderstood(f"{who} answers with {shown(local_name(response), 40)!r}, no response; is it a box?")
    return response

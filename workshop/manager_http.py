"""HTTP on raw sockets: requests as they came, byte for byte, and answers that may be cut anywhere."""

import contextlib
import re
import select
import socket
import threading
import time

import raw_http

HEAD_LIMIT = 64 << 10
BODY_LIMIT = 4 << 20
IDLE_LIMIT = 60      # seconds a kept connection may be idle
READ_LIMIT = 20      # seconds a request may take from its first byte on
CONNECTION_LIMIT = 32


class Problem(Exception):
    """A request that cannot be read."""


class Request:
    def __init__(self, head):
        self.head = head
        lines = head.removesuffix(b"\r\n\r\n").decode("latin-1").split("\r\n")
        self.line, self.header_lines = lines[0], lines[1:]
        match = re.fullmatch(r"(\S+) (\S.*) HTTP/(1\.[01])", self.line)
        if not match:
            raise Problem(f"request line {self.line!r}")
        self.method, self.path, self.version = match.groups()
        self.headers = {}
        for line in self.header_lines:
            name, colon, value = line.partition(":")
            if not colon or not name or name != name.strip():
                raise Problem(f"header line {line!r}")
            self.headers.setdefault(name.lower(), value.strip())
        length = self.headers.get("content-length", "0")
        if not length.isascii() or not length.isdigit() or int(length) > BODY_LIMIT:
            raise Problem(f"content length {length!r}")
        if "transfer-encoding" in self.headers:
            raise Problem(f"transfer encoding {self.headers['transfer-encoding']!r}")
        self.length = int(length)
        connection = self.headers.get("connection", "").lower()
        self.keep_alive = connection == "keep-alive" if self.version == "1.0" else connection != "close"
        self.body = b""


class Connection:
    def __init__(self, sock, peer):
        self.sock = sock
        self.peer = peer[0]
        self.local = sock.getsockname()
        self.buffer = b""

    def fill(self, end):
        self.sock.settimeout(max(end - time.monotonic(), 0.001))
        try:
            part = self.sock.recv(65536)
        except TimeoutError:
            raise Problem(f"a request that stops after {self.buffer[:200]!r}") from None
        self.buffer += part
        return bool(part)

    def read_request(self):
        """The next request, or None when the peer is done."""
        if not self.buffer and not select.select([self.sock], [], [], IDLE_LIMIT)[0]:
            return None
        end = time.monotonic() + READ_LIMIT
        while b"\r\n\r\n" not in self.buffer:
            if len(self.buffer) > HEAD_LIMIT:
                raise Problem("a head without an end")
            if not self.fill(end):
                if self.buffer:
                    raise Problem(f"a connection that ends in the head: {self.buffer[:200]!r}")
                return None
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        request = Request(head + b"\r\n\r\n")
        while len(self.buffer) < request.length:
            if not self.fill(end):
                raise Problem(f"content length {request.length}, but {len(self.buffer)} bytes of body")
        request.body, self.buffer = self.buffer[:request.length], self.buffer[request.length:]
        return request

    def send(self, data):
        self.sock.settimeout(READ_LIMIT)
        self.sock.sendall(data)

    def send_slowly(self, data, seconds):
        """A byte a second, for that long at most."""
        for byte in data[:seconds]:
            self.send(bytes([byte]))
            if self.wait_for_end(1):
                break

    def wait_for_end(self, seconds):
        """Waits until the peer closes, or that long; tells whether it closed."""
        end = time.monotonic() + seconds
        while select.select([self.sock], [], [], max(end - time.monotonic(), 0))[0]:
            if not self.sock.recv(65536):
                return True
        return False

    def reset_on_close(self):
        raw_http.reset_on_close(self.sock)


class HttpServer:
    """Gives every connection a thread, in which the handler takes one request after the other and
    tells whether the connection stays. Connections are refused until `wait_to_open` has returned."""

    def __init__(self, name, journal, handler, address, port, wait_to_open=None):
        self.name = name
        self.journal = journal
        self.handler = handler
        self.slots = threading.BoundedSemaphore(CONNECTION_LIMIT)
        self.wait_to_open = wait_to_open
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind((address, port))
        if not wait_to_open:
            self.listener.listen(16)

    def run(self):
        if self.wait_to_open:
            self.wait_to_open()
            self.listener.listen(16)
            self.journal.line(self.name, "open")
        while True:
            sock, peer = self.listener.accept()
            if not self.slots.acquire(blocking=False):
                self.journal.problem(f"{self.name} {peer[0]}: more than {CONNECTION_LIMIT} connections")
                sock.close()
                continue
            threading.Thread(target=self.serve, args=(sock, peer), daemon=True).start()

    def serve(self, sock, peer):
        try:
            with sock:
                connection = Connection(sock, peer)
                # A peer that has gone ends its connection and nothing else.
                with contextlib.suppress(ConnectionError, TimeoutError):
                    while (request := connection.read_request()) and self.handler(connection, request):
                        pass
        except Problem as problem:
            self.journal.problem(f"{self.name} {peer[0]}: {problem}")
        finally:
            self.slots.release()

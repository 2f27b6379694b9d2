"""A client's view of the box, and the box's own tools. Shares no code with the agent."""

import contextlib
import ctypes
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import time

BOX = "192.168.68.42"
CLIENT = "192.168.68.1"
CONNECTOR = "/zel/services/ConnectorService"
DEVICE_ID = "TAVO0012345"
LOG = pathlib.Path("/tmp/log/nativezel.log")
CONFIGURATION = pathlib.Path("/config/agent.configuration")
AGENT = os.path.abspath(os.environ.get("ZEL_AGENT", "build/release/zel"))
SANITIZED = "release" not in AGENT
EMULATED = AGENT.endswith("tests/powerpc/agent")
BYTE_ORDER = "big" if EMULATED else sys.byteorder  # of the agent

SOAP = "http://schemas.xmlsoap.org/soap/envelope/"
SERVICE = "http://lusora.tembra.com/services/zel/Connector/v1"

CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)


@contextlib.contextmanager
def namespace(name):
    """The calling thread in that network; a socket made here stays there."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    other = os.open(f"/run/netns/{name}", os.O_RDONLY)
    try:
        assert LIBC.setns(other, CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        yield
    finally:
        assert LIBC.setns(own, CLONE_NEWNET) == 0
        os.close(own)
        os.close(other)


def client_namespace():
    return namespace("client")


def connect(port=5302, timeout=30):
    with client_namespace():
        return socket.create_connection((BOX, port), timeout)


def is_serving():
    with contextlib.suppress(ConnectionRefusedError):
        connect().close()
        return True
    return False


def read_all(connection):
    data = b""
    with contextlib.suppress(ConnectionResetError):
        while part := connection.recv(65536):
            data += part
    return data


def read_response(connection):
    """One response of a connection that stays open: (head, body)."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = connection.recv(65536)
        if not part:
            raise ConnectionError(f"closed after {data!r}")
        data += part
    head, body = data.split(b"\r\n\r\n", 1)
    length = int(re.search(rb"\r\nContent-Length: (\d+)\r\n", head)[1])
    while len(body) < length:
        body += connection.recv(65536)
    return head, body


def exchange(data, port=5302):
    """Everything the box answers to these bytes until it closes."""
    with connect(port) as connection:
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            connection.sendall(data)
        return read_all(connection)


def post(body, path=CONNECTOR, headers=""):
    if isinstance(body, str):
        body = body.encode()
    head = f"POST {path} HTTP/1.1\r\nHost: {BOX}\r\nContent-Length: {len(body)}\r\n{headers}\r\n"
    return head.encode() + body


def envelope(operation):
    return f'<e:Envelope xmlns:e="{SOAP}"><e:Body>{operation}</e:Body></e:Envelope>'


def fields(operation, **values):
    inner = "".join(f"<{name}>{value}</{name}>" for name, value in values.items())
    return f"<{operation}>{inner}</{operation}>"


def fault(message):
    """What stands in the Body of an answer that is a fault."""
    return ('\t\t<S:Fault xmlns:ns4="http://www.w3.org/2003/05/soap-envelope">\n'
            f"\t\t\t<faultcode>S:Client</faultcode>\n\t\t\t<faultstring>{message}</faultstring>\n\t\t</S:Fault>\n")


def call(operation, **values):
    """Calls an operation and returns the body of the answer."""
    answer = exchange(post(envelope(fields(operation, **values))))
    head, body = answer.split(b"\r\n\r\n", 1)
    assert head.startswith(b"HTTP/1.0 200 OK\r\n")
    return body.decode()


def value(body, name):
    """Text of the first element of that name."""
    return re.search(rf"<(?:\w+:)?{name}>(.*?)</", body, re.S)[1]


def reserve(owner="tester", host_lock=""):
    body = call("reserveDevice", deviceId=DEVICE_ID, owner=owner, hostLock=host_lock)
    return value(body, "error"), value(body, "handle")


def release(handle, device_id=DEVICE_ID):
    return value(call("releaseDevice", handle=handle, deviceId=device_id), "error")


def rules():
    listed = subprocess.run(["/sbin/iptables", "-S", "INPUT"], capture_output=True, text=True,
                            check=True)
    return [line for line in listed.stdout.splitlines() if line.startswith("-A")]


def wait_until(condition, what, seconds=30):
    end = time.monotonic() + seconds
    while not (result := condition()):
        assert time.monotonic() < end, f"{what}: not within {seconds} s"
        time.sleep(0.02)
    return result


def check_output(text):
    """Fails when a sanitizer has found something."""
    for bad in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                "WARNING: ThreadSanitizer"):
        assert bad not in text, text[-8000:]


class Agent:
    """The agent as a process of the box."""

    def __init__(self, configuration="opla.mode=OPLA-Next\nnetwork.config.discover.mode=3\ntavo.color=white\n",
                 output=None, preload=""):
        if configuration is not None:
            CONFIGURATION.write_text(configuration)
        self.output = pathlib.Path("/tmp/agent.out")
        with self.output.open("w") as file:
            self.process = subprocess.Popen([AGENT], stdout=output or file, stderr=file,
                                            env={**os.environ, "LD_PRELOAD": preload})
        self.pid = self.process.pid

    def wait_until_serving(self):
        def serving():
            assert self.process.poll() is None, self.read_output()
            return is_serving()
        wait_until(serving, "the agent serves")
        return self

    def stop(self, seconds=10):
        """Asks the agent to stop and returns its exit status."""
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(20 if SANITIZED else seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise

    def check_output(self):
        check_output(self.read_output())

    def read_output(self):
        return self.output.read_text(errors="replace")

    def status(self, name):
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(rf"^{name}:\s+(\d+)", text, re.M)[1])

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        """Names of the threads by their ids."""
        names = {}
        for tid in os.listdir(f"/proc/{self.pid}/task"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
                names[int(tid)] = pathlib.Path(f"/proc/{self.pid}/task/{tid}/comm").read_text().strip()
        return names

    def connections(self):
        """Ids of the threads that serve a connection; one that has just begun has the name of the server's own yet."""
        return sorted(tid for tid, name in self.threads().items() if name.startswith("WebServer"))[1:]

    def at_rest(self):
        """How many descriptors and threads there are when nobody is served."""
        call("getDeviceInformation")  # who connected before and is not served yet is so before this is answered
        wait_until(lambda: not self.connections(), "nobody is served")
        return self.descriptors(), len(self.threads())

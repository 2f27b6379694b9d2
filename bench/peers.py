"""The servers that are measured and the programs that ask them, all of them processes of one box that talk over its
loopback interface."""

import contextlib
import json
import pathlib
import re
import socket
import subprocess

import raw_http
import stage
from zel import slp, soap

HOST = "127.0.0.1"
PROGRAMS = stage.PROJECT / "build/release"
# Enough for everybody who connects at once: where connecting is not what is measured, nobody is turned away.
ROOM = 1024
# Ports of the agent, and of its peers.
TEST_PAGE, SERVICES = 80, 5302
RESPONDER, RESPONDER_OF_ONE, CONSTANT, LIVE, LIGHTTPD, LOGGING_LIGHTTPD, ECHO = range(8000, 8007)

# Milliseconds of a round, and of one in which those who are turned away try again after a second.
SHORT, LONG = 500, 2000
WORK = pathlib.Path("/tmp/bench")
KEPT = "Connection: Keep-Alive\r\n"
REQUESTS = {
    "get": f"GET /test HTTP/1.1\r\nHost: {HOST}\r\n{KEPT}\r\n".encode(),
    "get-once": f"GET /test HTTP/1.1\r\nHost: {HOST}\r\nConnection: close\r\n\r\n".encode(),
    "soap": raw_http.post(soap.envelope(soap.operation("getDeviceInformation", soap.NAMESPACES[soap.CONNECTOR])),
                          headers=f"Host: {HOST}\r\nContent-Type: text/xml;charset=utf-8\r\n{KEPT}"),
    "slp": slp.attribute_request(),
}


def prepare():
    """The files that the programs read."""
    WORK.mkdir()
    for name, data in REQUESTS.items():
        (WORK / name).write_bytes(data)
    (WORK / "www").mkdir()
    (WORK / "www/test").write_bytes(raw_http.GREETING)
    for port, log in (LIGHTTPD, ""), (LOGGING_LIGHTTPD, f'accesslog.filename = "{WORK}/access.log"'):
        (WORK / f"lighttpd-{port}").write_text(LIGHTTPD_SETTINGS.format(
            module='"mod_accesslog"' if log else "", port=port, log=log))


# As many connections as the agent has places for, and more; none of them is ended.
LIGHTTPD_SETTINGS = f"""
server.modules = ({{module}})
server.document-root = "{WORK}/www"
server.bind = "{HOST}"
server.port = {{port}}
server.upload-dirs = ("/tmp")
server.max-fds = {4 * ROOM}
server.max-connections = {ROOM}
server.listen-backlog = {ROOM}
server.max-keep-alive-requests = 65535
server.max-keep-alive-idle = 600
{{log}}
"""


# Servers ----------------------------------------------------------------------------------------

def accepts(port):
    with contextlib.suppress(ConnectionRefusedError):
        socket.create_connection((HOST, port), 5).close()
        return True
    return False


@contextlib.contextmanager
def running(command, is_ready):
    """A server that runs until the end of the block."""
    name = pathlib.Path(command[0]).name
    server = stage.Program(command, WORK / f"{name}.out")

    def ready():
        if server.process.poll() is not None:
            raise stage.Failed(f"{name} has ended: {server.output()}")
        return is_ready()
    try:
        stage.wait_until(ready, f"{name} is ready")
        yield server.process.pid
    finally:
        server.kill()


@contextlib.contextmanager
def agent(settings="web.listen.backlog=128\n"):
    """Its output on the console is nobody's; the log is written as on a board."""
    stage.AGENT_LOG.unlink(missing_ok=True)
    program = stage.Agent(stage.ALONE + stage.static(stage.BOX) + settings, subprocess.DEVNULL)
    try:
        program.wait_until_serving()
        yield program.pid
    finally:
        assert program.stop() == 0


def responder(port=RESPONDER, backlog=128):
    return running([PROGRAMS / "responder", port, backlog], lambda: accepts(port))


def lighttpd(port=LIGHTTPD):
    return running(["lighttpd", "-D", "-f", WORK / f"lighttpd-{port}"], lambda: accepts(port))


def soap_server(kind):
    port, *log = {"constant": [CONSTANT], "live": [LIVE, WORK / "soap.log"]}[kind]
    return running([PROGRAMS / "soap-server", port, kind, *log], lambda: accepts(port))


def ask_once(port):
    """The answer to one AttrRqst, if there is one."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(0.1)
        with contextlib.suppress(TimeoutError, ConnectionRefusedError):
            client.connect((HOST, port))
            client.send(REQUESTS["slp"])
            return client.recv(4096)
    return b""


def echo(size):
    return running([PROGRAMS / "udp-echo", ECHO, size], lambda: len(ask_once(ECHO)) == size)


# Load -------------------------------------------------------------------------------------------

def run(*command):
    """What a load generator tells: one JSON object."""
    return json.loads(subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, check=True).stdout)


def answered(result):
    """The result of a round in which everything was answered as it should be."""
    if result["errors"] or not result["requests"]:
        raise stage.Failed(f"a round with errors: {result}")
    return result


def load(kind, port, *arguments):
    return run(PROGRAMS / "load", kind, HOST, port, *arguments)


def kept(what, port, connections):
    return answered(load("http", port, WORK / what, connections, SHORT, "kept"))


def others_rate(generator, port, connections):
    """What a generator of others tells of GET on kept connections. wrk does not take the agent's answer, which has its
    length in two headers."""
    options = {"wrk": ["-t", "1", "-d", "1s", "-H", "Connection: Keep-Alive"],
               "ab": ["-k", "-q", "-n", "1000000", "-t", "1"]}[generator]
    output = subprocess.run([generator, *options, "-c", str(connections), f"http://{HOST}:{port}/test"],
                            capture_output=True, text=True, check=True).stdout
    if re.search(r"(Non-2xx.*|Socket errors|Failed requests): *[^0 ]", output):
        raise stage.Failed(output)
    return {"rate": float(re.search(r"Requests(?: per second|/sec): *([\d.]+)", output)[1])}


def new_connections(port, clients):
    return load("http", port, WORK / "get-once", clients, LONG, "new")


def datagrams(port, clients):
    return answered(load("slp", port, WORK / "slp", clients, SHORT))


@contextlib.contextmanager
def slow_clients(port, count):
    """Clients that send a request byte by byte, until the end of the block, or for half a minute."""
    if not count:
        yield
        return
    command = [PROGRAMS / "load", "slow", HOST, port, count, 30000]
    slow = subprocess.Popen(list(map(str, command)), stdout=subprocess.DEVNULL)
    try:
        yield
    finally:
        slow.kill()
        slow.wait()

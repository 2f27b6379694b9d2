"""Instructions and system calls that one request costs the agent, counted: no quiet machine is needed.

Runs in a simulated box. Arguments: the agent, and a directory for callgrind's files if they are wanted. Each request is sent by one client, a number of times, on one
connection; what the agent's waiting costs meanwhile is in the mean.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "workshop"))
import slp
import soap
import stage

WARM_UP, COUNTED = 20, 200
KEPT = "Connection: Keep-Alive\r\n"
REQUESTS = {
    "GET of the test page": b"GET /test HTTP/1.1\r\nHost: 192.168.68.42\r\nConnection: Keep-Alive\r\n\r\n",
    "getDeviceInformation": soap.post(soap.envelope("<getDeviceInformation/>"),
                                      headers=f"Content-Type: text/xml;charset=utf-8\r\n{KEPT}"),
    "AttrRqst": slp.attribute_request(),
}


class Client:
    """Asks the box for one of the REQUESTS."""

    def __init__(self, name):
        self.request = REQUESTS[name]
        self.is_datagram = name == "AttrRqst"
        with stage.namespace("client"):
            self.socket = slp.open_client(stage.CLIENT) if self.is_datagram else stage.connect()
        self.socket.settimeout(30)

    def ask(self, count):
        for _ in range(count):
            if self.is_datagram:
                self.socket.sendto(self.request, (stage.BOX, slp.PORT))
                assert b"(Serial=" in self.socket.recv(4096)
            else:
                self.socket.sendall(self.request)
                head, body = soap.read_response(self.socket)
                assert head.startswith(b"HTTP/1.0 200 OK"), head


def start(command):
    stage.CONFIGURATION.write_text(stage.ALONE + stage.static(stage.BOX))
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    stage.wait_until(stage.is_serving, "the agent serves", 120)
    return process


def stop(process):
    process.terminate()
    process.wait(60)


def count_instructions(agent):
    """Those of each request, by its name."""
    counts = {}
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "out"
        process = start(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", agent])

        def monitor(command):
            subprocess.run(["vgdb", f"--pid={process.pid}", command], check=True, capture_output=True)

        for number, name in enumerate(REQUESTS, 1):
            client = Client(name)
            client.ask(WARM_UP)
            monitor("zero")
            client.ask(COUNTED)
            monitor("dump")
            text = pathlib.Path(f"{out}.{number}").read_text()
            counts[name] = int(re.search(r"^(?:totals|summary): (\d+)", text, re.M)[1]) / COUNTED
            if len(sys.argv) > 2:
                pathlib.Path(sys.argv[2], name.split()[0]).write_text(text)
        stop(process)
    return counts


def count_calls(agent):
    """Names of the system calls of each request and how often each is made, by the request's name."""
    counts = {}
    process = start([agent])
    for name in REQUESTS:
        client = Client(name)
        client.ask(WARM_UP)
        with tempfile.NamedTemporaryFile() as out:
            tracer = subprocess.Popen(["strace", "-f", "-q", "-o", out.name, "-p", str(process.pid)],
                                      stderr=subprocess.DEVNULL)
            time.sleep(1)
            client.ask(COUNTED)
            tracer.terminate()
            tracer.wait()
            calls = re.findall(r"^\d+ +(\w+)\(", pathlib.Path(out.name).read_text(), re.M)
        counts[name] = {call: calls.count(call) / COUNTED for call in sorted(set(calls))
                        if calls.count(call) >= COUNTED / 4}
    stop(process)
    return counts


def main():
    instructions, calls = count_instructions(sys.argv[1]), count_calls(sys.argv[1])
    result = {name: {"instructions": round(instructions[name]), "calls": round(sum(calls[name].values()), 2),
                     "names": calls[name]} for name in REQUESTS}
    print(json.dumps(result, indent=1))


if __name__ == "__main__":
    main()

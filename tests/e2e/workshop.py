"""What stands around the box in the end-to-end tests: the manager, SLP clients, a capture."""

import contextlib
import os
import pathlib
import re
import socket
import struct
import subprocess
import sys
import threading

import box

MANAGER = "192.168.68.2"
RECORD = pathlib.Path("/tmp/manager")
MULTICAST = "239.255.255.253"
ADDRESS_KEY = "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips"
PLAIN = ("network.config.discover.mode=3\ntavo.color=white\ntavo.hostname=TAVO\ncountry.code=DE\n"
         f"{ADDRESS_KEY}={MANAGER}\n")


def network(*arguments):
    """Changes the network around the box (workshop/network --help)."""
    subprocess.run(["workshop/network", *arguments], check=True)


class Manager:
    """The simulated manager in its own network; ends with the block."""

    def __init__(self, scenario, *settings, options=()):
        for old in RECORD.glob("*"):
            old.unlink()
        self.path = pathlib.Path("/tmp/manager.out")
        arguments = [argument for setting in settings for argument in ("--set", setting)]
        with self.path.open("w") as output:
            self.process = subprocess.Popen(
                ["nsenter", "--net=/run/netns/manager", sys.executable, "workshop/manager",
                 "--scenario", scenario, "--record", str(RECORD), *arguments, *options],
                stdout=output, stderr=subprocess.STDOUT)
        box.wait_until(lambda: "READY" in self.output(), "the manager is ready")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        assert self.process.wait(20) == 0, self.output()

    def output(self):
        return self.path.read_text()

    def bodies(self, operation):
        """The request bodies of that operation, in order."""
        return [path.read_bytes().decode()
                for path in sorted(RECORD.glob(f"*-{operation}-request.xml"))]

    def problems(self):
        return [line for line in self.output().splitlines() if "PROBLEM" in line]


@contextlib.contextmanager
def agent(configuration=PLAIN, preload=""):
    """An agent that must end well."""
    box.LOG.unlink(missing_ok=True)
    running = box.Agent(configuration, preload=preload)
    try:
        yield running
    finally:
        if running.process.poll() is None:
            assert running.stop() == 0
        running.check_output()


@contextlib.contextmanager
def replaced(path, script):
    """Another program, or none, in the place of one that may be there."""
    tool = pathlib.Path(path)
    kept = tool.with_name(f"kept-{tool.name}")
    was_there = os.path.lexists(tool)
    if was_there:
        tool.rename(kept)
    try:
        if script is not None:
            tool.write_text(script)
            tool.chmod(0o755)
        yield
    finally:
        tool.unlink(missing_ok=True)
        if was_there:
            kept.rename(tool)


def settings():
    """What the next start reads."""
    path = box.CONFIGURATION
    if not path.exists():
        path = path.with_suffix(".configuration.old")
    return dict(line.split("=", 1) for line in path.read_text().splitlines())


def active_image(kind="application"):
    directory = pathlib.Path("/app/zel/images", kind)
    return (directory / (directory / "active").read_text().strip() / "image").read_bytes()


def log():
    return box.LOG.read_text(errors="replace") if box.LOG.exists() else ""


def wait_for_log(text, seconds=60):
    box.wait_until(lambda: text in log(), f"the log says {text!r}", seconds)


def sign_in_ended():
    """The sign-in thread opens the box to clients as its last act."""
    return re.search(r"debug   \d+ +go to receive", log().rpartition("Start PreSignInSignIn")[2])


def text(value):
    data = value.encode() if isinstance(value, str) else value
    return struct.pack(">H", len(data)) + data


def message(function, *fields, xid=7, length=None):
    body = struct.pack(">H", xid) + text("en") + b"".join(fields)
    size = 10 + len(body) if length is None else length
    return bytes([2, function]) + size.to_bytes(3, "big") + bytes(5) + body


def attribute_request(url="service:zel.connector", scope="default", **options):
    return message(6, text(""), text(url), text(scope), text(""), text(""), **options)


def service_request(service_type="service:zel.connector", **options):
    return message(1, text(""), text(service_type), text("default"), text(""), text(""), **options)


def type_request(**options):
    return message(9, text(""), b"\xff\xff", text("default"), **options)


def slp_socket():
    with box.client_namespace():
        client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(box.CLIENT))
        client.bind((box.CLIENT, 0))
    return client


def ask(data, address=box.BOX, patience=10):
    """The answer to one datagram, None when there is none in time."""
    with slp_socket() as client:
        client.settimeout(patience)
        client.sendto(data, (address, 427))
        with contextlib.suppress(socket.timeout):
            answer, sender = client.recvfrom(65536)
            assert sender == (box.BOX, 427)
            return answer
    return None


def attributes(answer):
    """The attribute list of an AttrRply."""
    assert answer[1] == 7 and answer[14:16] == b"en" and answer[16:18] == b"\0\0"
    length = int.from_bytes(answer[18:20], "big")
    assert answer[20 + length:] == b"\0\0"
    return answer[20:20 + length].decode()


@contextlib.contextmanager
def other_boxes(*lists):
    """Further boxes, on addresses from 192.168.70.1 on, that answer with these attributes."""
    on_manager = ["nsenter", "--net=/run/netns/manager", "ip", "address"]
    addresses = [f"192.168.70.{number}" for number in range(1, len(lists) + 1)]
    for address in addresses:
        subprocess.run([*on_manager, "add", f"{address}/16", "dev", "eth0"], check=True)
    with contextlib.ExitStack() as stack, box.namespace("manager"):
        listener, *senders = (stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
                              for _ in ["", *addresses])
        for sender, address in zip(senders, addresses):
            sender.bind((address, 427))
        listener.bind((MULTICAST, 427))
        listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(MULTICAST) + socket.inet_aton(MANAGER))
        listener.settimeout(0.1)
        ended = threading.Event()

        def answer():
            while not ended.is_set():
                with contextlib.suppress(OSError):  # nobody asks, or from where no answer gets to
                    request, client = listener.recvfrom(4096)
                    xid = int.from_bytes(request[10:12], "big")
                    for sender, attributes in zip(senders, lists):
                        sender.sendto(b"", client)
                        sender.sendto(message(7, b"\0\0", text(attributes), b"\0\0", xid=xid), client)
                        # To a question of somebody else's.
                        sender.sendto(message(7, b"\0\0", text("(Serial=?)"), b"\0\0", xid=xid ^ 1), client)

        thread = threading.Thread(target=answer)
        thread.start()
        try:
            yield
        finally:
            ended.set()
            thread.join()
    for address in addresses:
        subprocess.run([*on_manager, "delete", f"{address}/16", "dev", "eth0"], check=True)


@contextlib.contextmanager
def capture(path, packets, port=427):
    """Records that many packets that pass the box's card on a UDP port."""
    process = subprocess.Popen(["dumpcap", "-q", "-i", "eth0", "-w", path, "-c", str(packets),
                                "-f", f"udp port {port}"], stderr=subprocess.PIPE, text=True)
    try:
        assert any(line.startswith("File:") for line in process.stderr)
        yield
        process.communicate(timeout=30)
    finally:
        process.kill()
        process.wait()


def decode(path, *fields):
    """The fields of every SLP packet of a capture, as an independent decoder reads them."""
    arguments = [argument for field in fields for argument in ("-e", field)]
    done = subprocess.run(["tshark", "-r", path, "-Y", "srvloc", "-T", "fields", "-E",
                           "separator=|", *arguments], capture_output=True, text=True, check=True)
    return [line.split("|") for line in done.stdout.splitlines()]

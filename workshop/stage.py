"""What demos, soak and end-to-end tests have on stage: the box with its agent, the manager, the network around
them, and a client that asks the box. Shares no code with the agent."""

import contextlib
import ctypes
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time

import raw_http
from zel import slp, soap

PROJECT = pathlib.Path(__file__).resolve().parent.parent
AGENT = os.path.abspath(os.environ.get("ZEL_AGENT", PROJECT / "build/release/zel"))
SANITIZED = pathlib.Path(AGENT).parent.name != "release"  # or emulated: slower, with memory of its own
EMULATED = AGENT.endswith("tests/powerpc/agent")
ZELCTL = PROJECT / "build/release/zelctl" if EMULATED else pathlib.Path(AGENT).with_name("zelctl")

BOX, WLAN_BOX = "192.168.68.42", "192.168.68.43"
CLIENT = "192.168.68.1"
MANAGER = "192.168.68.2"
DEVICE_ID = "TAVO0012345"
PORTS = (6801, 6802, 52410, 52411)  # for diagnosis

CONFIGURATION = pathlib.Path("/config/agent.configuration")
OLD_CONFIGURATION = pathlib.Path("/config/agent.configuration.old")
AGENT_LOG = pathlib.Path("/tmp/log/nativezel.log")
AGENT_OUTPUT = pathlib.Path("/tmp/agent.out")
MANAGER_OUTPUT = pathlib.Path("/tmp/manager.out")
MANAGER_RECORD = pathlib.Path("/tmp/manager")
IMAGES = pathlib.Path("/app/zel/images")
REBOOTS = pathlib.Path("/tmp/reboot.log")
ADDRESS_KEY = "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips"
BASE = "tavo.color=white\ntavo.hostname=TAVO\ncountry.code=DE\n"
DHCP = "network.config.discover.mode=3\n"
SIGNING_IN = BASE + DHCP + f"{ADDRESS_KEY}={MANAGER}\n"
# A box that is integrated without a manager serves at once.
ALONE = BASE + "opla.mode=OPLA-Next\n"

COMPLAINTS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:", "WARNING: ThreadSanitizer")
CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)


class Failed(AssertionError):
    pass


def wait_until(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {seconds} s")
        time.sleep(0.02)
    return result


@contextlib.contextmanager
def in_background(work):
    thread = threading.Thread(target=work)
    thread.start()
    try:
        yield
    finally:
        thread.join()


# The network ------------------------------------------------------------------------------------

def network(*arguments):
    """Changes the network around the box (workshop/network --help)."""
    subprocess.run([PROJECT / "workshop/network", *arguments], check=True)


def namespace_path(name):
    return "/proc/1/ns/net" if name == "box" else f"/run/netns/{name}"


def in_network(name, *command):
    """The command in the network of that name: box, client, manager, switch or bay-N."""
    return ["nsenter", f"--net={namespace_path(name)}", *map(str, command)]


def enter_network(path):
    """The calling thread from now on; a socket stays where it is made."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        if LIBC.setns(descriptor, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), path)
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def namespace(name):
    """The calling thread in that network."""
    own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    enter_network(namespace_path(name))
    try:
        yield
    finally:
        enter_network(f"/proc/self/fd/{own}")
        os.close(own)


def output_of(*command, network="box", **options):
    """What a command prints; it has to succeed."""
    return subprocess.run(in_network(network, *command), capture_output=True, text=True, check=True, **options).stdout


def rules():
    """Those in the packet filter for what comes in."""
    return [line for line in output_of("iptables", "-S", "INPUT").splitlines() if line.startswith("-A")]


def port_rules(host=""):
    """The rules of a reservation that is locked to a host, or to none."""
    source = f"-s {host}/32 " if host else ""
    return [f"-A INPUT {source}-p tcp -m tcp --dport {port} -j ACCEPT" for port in PORTS]


# The box ----------------------------------------------------------------------------------------

def log():
    return AGENT_LOG.read_text(errors="replace") if AGENT_LOG.exists() else ""


def wait_for_log(text, seconds=60):
    wait_until(lambda: text in log(), f"the log says {text!r}", seconds)


def sign_in_ended():
    """The sign-in thread opens the box to clients as its last act."""
    return re.search(r"debug   \d+ +go to receive", log().rpartition("Start PreSignInSignIn")[2])


def settings_text():
    """What the next start reads."""
    try:
        return CONFIGURATION.read_text()
    except FileNotFoundError:  # in the middle of a save
        return OLD_CONFIGURATION.read_text()


def settings(text=None):
    """Those of the next start, or of a text of that kind."""
    text = settings_text() if text is None else text
    return dict(line.partition("=")[::2] for line in text.splitlines())


def static(address):
    """The settings of a static address."""
    return (f"network.config.discover.mode=202\nnetwork.config.static.ip={address}\n"
            f"network.config.static.netmask=255.255.0.0\nnetwork.config.static.gateway={CLIENT}\n")


def active_image(kind="application"):
    directory = IMAGES / kind
    return (directory / (directory / "active").read_text().strip() / "image").read_bytes()


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


@contextlib.contextmanager
def changed(command, back):
    """What that command does to the box, and another takes back at the end of the block."""
    output_of(*command.split())
    try:
        yield
    finally:
        output_of(*back.split())


@contextlib.contextmanager
def without_address():
    output_of(*"ip address flush dev eth0".split())
    try:
        yield
    finally:
        output_of(*f"ip address add {BOX}/16 brd + dev eth0".split())
        output_of(*f"ip route replace default via {CLIENT} dev eth0".split())


def number(path, field):
    """A number of one of the kernel's status files."""
    return int(re.search(rf"^{field}:\s+(\d+)", pathlib.Path(path).read_text(), re.M)[1])


def names(folder="/proc"):
    """Names of the box's processes, or of the threads in such a folder, by their ids."""
    found = {}
    for path in pathlib.Path(folder).glob("[0-9]*/comm"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
            found[int(path.parent.name)] = path.read_text().strip()
    return found


class Program:
    """A program that writes to a file."""

    running = []

    def __init__(self, command, path, output=None, **environment):
        self.path = path
        with path.open("w") as file:
            self.process = subprocess.Popen(list(map(str, command)), stdout=output or file, stderr=file,
                                            env={**os.environ, **environment})
        self.running.append(self)

    def output(self):
        return self.path.read_text(errors="replace")

    def stop(self, seconds=20):
        """Asks it to stop and returns its exit status."""
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise Failed(f"{self.process.args} has not stopped within {seconds} s") from None
        finally:
            self.kill()

    def kill(self):
        self.process.kill()
        self.process.wait()
        if self in self.running:
            self.running.remove(self)


def clear():
    """Ends what still runs, so that nothing of a failed story is in the way of the next."""
    for program in list(Program.running):
        program.kill()


def check_output(text):
    """Fails when a sanitizer has found something."""
    for bad in COMPLAINTS:
        assert bad not in text, text[-8000:]


class Agent(Program):
    """The agent as a process of the box; without a configuration, with that which is there."""

    def __init__(self, configuration=None, output=None, **environment):
        if configuration is not None:
            CONFIGURATION.write_text(configuration)
        super().__init__([AGENT], AGENT_OUTPUT, output, **environment)
        self.pid = self.process.pid

    def wait_until_serving(self, host=BOX):
        def serves():
            if self.process.poll() is not None:
                raise Failed(f"the agent has ended with status {self.process.returncode}: {self.output()}")
            return is_serving(host)
        wait_until(serves, "the agent serves")
        return self

    def stop(self, seconds=10):
        return super().stop(max(seconds, 20) if SANITIZED else seconds)

    def check_output(self):
        check_output(self.output())

    def status(self, name):
        return number(f"/proc/{self.pid}/status", name)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        """Names of the threads by their ids."""
        return names(f"/proc/{self.pid}/task")

    def connections(self):
        """Ids of the threads that serve a connection; one that has just begun has the name of the server's own yet."""
        return sorted(tid for tid, name in self.threads().items() if name.startswith("WebServer"))[1:]

    def at_rest(self):
        """How many descriptors and threads there are when nobody is served."""
        call("getDeviceInformation")  # who connected before and is not served yet is so before this is answered
        wait_until(lambda: not self.connections(), "nobody is served")
        return self.descriptors(), len(self.threads())


@contextlib.contextmanager
def agent(configuration=SIGNING_IN, **environment):
    """An agent that must end well."""
    AGENT_LOG.unlink(missing_ok=True)
    running = Agent(configuration, **environment)
    try:
        yield running
    finally:
        if running.process.poll() is None:
            assert running.stop() == 0
        running.check_output()


@contextlib.contextmanager
def serving(configuration, **environment):
    with agent(configuration, **environment) as running:
        yield running.wait_until_serving()


# The manager --------------------------------------------------------------------------------

class Manager(Program):
    """The simulated manager in its own network; ends with the block. Settings are KEY=VALUE."""

    def __init__(self, scenario, *settings, options=()):
        for old in MANAGER_RECORD.glob("*"):
            old.unlink()
        super().__init__(in_network("manager", sys.executable, PROJECT / "workshop/manager", "--scenario", scenario,
                                    "--record", MANAGER_RECORD,
                                    *(part for setting in settings for part in ("--set", setting)), *options),
                         MANAGER_OUTPUT)
        wait_until(lambda: "READY" in self.output(), "the manager is ready")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        assert self.stop() == 0, self.output()

    def bodies(self, operation):
        """The request bodies of that operation, in order."""
        return [path.read_bytes().decode() for path in sorted(MANAGER_RECORD.glob(f"*-{operation}-request.xml"))]

    def problems(self):
        return [line for line in self.output().splitlines() if "PROBLEM" in line]


# The client -------------------------------------------------------------------------------------

def connect(port=5302, timeout=30, host=BOX):
    with namespace("client"):
        return socket.create_connection((host, port), timeout)


def is_serving(host=BOX):
    with contextlib.suppress(OSError):
        connect(host=host).close()
        return True
    return False


def exchange(data, port=5302):
    """Everything the box answers to these bytes until it closes."""
    with connect(port) as connection:
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            connection.sendall(data)
        return raw_http.read_all(connection)


def request(operation, path=soap.CONNECTOR):
    """The body of the answer to an operation element."""
    with namespace("client"):
        return soap.send(BOX, soap.PORT, soap.envelope(operation), path, timeout=30).decode()


def call(name, path=soap.CONNECTOR, /, **values):
    """Calls an operation and returns the body of the answer."""
    return request(soap.operation(name, **values), path)


def ask_agent(operation, name="VCI-Agent"):
    return call(operation, soap.AGENT, **({"name": name} if operation.endswith(("Service", "Running")) else {}))


def reserve(owner="tester", host_lock=""):
    """(error, handle)"""
    body = call("reserveDevice", deviceId=DEVICE_ID, owner=owner, hostLock=host_lock)
    return raw_http.value(body, "error"), raw_http.value(body, "handle")


def release(handle, device_id=DEVICE_ID):
    return raw_http.value(call("releaseDevice", handle=handle, deviceId=device_id), "error")


def ask(data, address=BOX, timeout=10):
    """The box's answer to a datagram, None when there is none in time."""
    with namespace("client"):
        client = slp.open_client(CLIENT)
    with client:
        client.settimeout(timeout)
        client.sendto(data, (address, slp.PORT))
        with contextlib.suppress(TimeoutError):
            answer, sender = client.recvfrom(65536)
            assert sender == (BOX, slp.PORT)
            return answer
    return None

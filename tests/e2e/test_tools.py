"""Tools that hang, flood, leave children behind or are at work when the agent is asked to stop."""

import contextlib
import signal
import subprocess
import threading
import time

import pytest

import box
import workshop

pytestmark = pytest.mark.usefixtures("workshop_in_order")

HANG = "#!/bin/sh\nsleep 4321 & sleep 4321; wait\n"
LEAVE_A_CHILD = "#!/bin/sh\nsleep 4321 &\n"
COMMANDS = "/app/zel/commands/diag/"


@contextlib.contextmanager
def tools(scripts):
    """Other programs in the places of the box's; what they have started is ended."""
    with contextlib.ExitStack() as stack:
        stack.callback(subprocess.run, ["pkill", "-KILL", "-f", "^sleep 4321"])
        for path, script in scripts.items():
            stack.enter_context(workshop.replaced(path, script))
        yield


def hanging():
    """How many of the programs that never end are there."""
    return len(subprocess.run(["pgrep", "-f", "^sleep 4321"], capture_output=True).stdout.split())


def call(operation, path=box.CONNECTOR, **values):
    """Makes a request whose answer nobody may ever see."""
    def run():
        with contextlib.suppress(OSError):
            box.exchange(box.post(box.envelope(box.fields(operation, **values)), path))
    threading.Thread(target=run, daemon=True).start()


def command(name):
    code, handle = box.reserve()
    assert code == "0"
    call("executeGenericCommand", pSubSystem="diag", pCommand=name, handle=handle)


# What is at work when the agent is asked to stop: the tool that hangs, and who runs it.
AT_WORK = {
    "command": (COMMANDS + "hang", lambda: command("hang")),
    "self test": ("/app/zel/selftest.d/99-hang", lambda: call("doSelftest", "/services/Agent")),
    "reservation": ("/usr/sbin/iptables",
                    lambda: call("reserveDevice", deviceId=box.DEVICE_ID, owner="x", hostLock="")),
    "mode switch": ("/usr/sbin/udhcpc",
                    lambda: call("switchMode", deviceId=box.DEVICE_ID, mode=3, handle="")),
    "download": ("/usr/sbin/wget", None),
}


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
@pytest.mark.parametrize("work", AT_WORK)
def test_an_end_ends_what_is_at_work(work, how):
    tool, start = AT_WORK[work]
    with contextlib.ExitStack() as stack:
        configuration = "opla.mode=OPLA-Next\n" + workshop.PLAIN
        if start is None:
            configuration = workshop.PLAIN
            stack.enter_context(workshop.Manager("application-update"))
        agent = stack.enter_context(contextlib.closing(Running(configuration)))
        if start:
            agent.wait_until_serving()
        stack.enter_context(tools({tool: HANG}))
        if start:
            start()
        box.wait_until(lambda: hanging() == 2, "the tool is at work", 60)
        begin = time.monotonic()
        agent.process.send_signal(how)
        assert agent.process.wait(20) == (0 if how == signal.SIGTERM else -how)
        assert time.monotonic() - begin < (20 if box.SANITIZED else 3)
        box.wait_until(lambda: hanging() == 0, "nothing is left")


class Running(box.Agent):
    def close(self):
        self.process.kill()
        self.process.wait()
        self.check_output()


def test_start_up_and_its_end_do_not_wait_for_tools_that_hang():
    """What is at work when the stop is asked for has its full time, the rest little."""
    zcip = LEAVE_A_CHILD + "export interface=$2 ip=169.254.9.9\n$3 init; $3 config\n"
    with tools({"/usr/sbin/udhcpc": HANG, "/usr/sbin/zcip": zcip, "/usr/bin/arping": HANG}):
        with workshop.agent("opla.mode=OPLA-Next\nnetwork.config.discover.mode=200\n") as agent:
            box.wait_until(lambda: hanging() == 2, "the DHCP client is at work")
            agent.process.send_signal(signal.SIGTERM)
            assert agent.process.wait(100) == 0
    text = workshop.log()
    steps = ["'/sbin/udhcpc -s", "was ended after 60000 ms", "Got no lease", "'/usr/bin/arping",
             "was ended after 2000 ms", "* Network setup done.", "* Webserver service started."]
    assert sorted(steps, key=text.index) == steps

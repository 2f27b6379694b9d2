"""Tools that hang, flood, leave children behind or are at work when the agent is asked to stop."""

import contextlib
import signal
import subprocess
import threading

import pytest

import stage
from stage import DEVICE_ID, SIGNING_IN, wait_until
from raw_http import post
from zel.soap import AGENT, CONNECTOR, envelope, operation

pytestmark = pytest.mark.usefixtures("workshop_in_order")

HANG = "#!/bin/sh\nsleep 4321 & sleep 4321; wait\n"
COMMANDS = "/app/zel/commands/diag/"


@contextlib.contextmanager
def tools(scripts):
    """Other programs in the places of the box's; what they have started is ended."""
    with contextlib.ExitStack() as stack:
        stack.callback(subprocess.run, ["pkill", "-KILL", "-f", "^sleep 4321"])
        for path, script in scripts.items():
            stack.enter_context(stage.replaced(path, script))
        yield


def hanging():
    """How many of the programs that never end are there."""
    return len(subprocess.run(["pgrep", "-f", "^sleep 4321"], capture_output=True).stdout.split())


def call(name, path=CONNECTOR, **values):
    """Makes a request whose answer nobody may ever see."""
    def run():
        with contextlib.suppress(OSError):
            stage.exchange(post(envelope(operation(name, **values)), path))
    threading.Thread(target=run, daemon=True).start()


def command(name):
    code, handle = stage.reserve()
    assert code == "0"
    call("executeGenericCommand", pSubSystem="diag", pCommand=name, handle=handle)


# What is at work when the agent is asked to stop: the tool that hangs, and who runs it.
AT_WORK = {
    "command": (COMMANDS + "hang", lambda: command("hang")),
    "self test": ("/app/zel/selftest.d/99-hang", lambda: call("doSelftest", AGENT)),
    "reservation": ("/usr/sbin/iptables",
                    lambda: call("reserveDevice", deviceId=DEVICE_ID, owner="x", hostLock="")),
    "mode switch": ("/usr/sbin/udhcpc",
                    lambda: call("switchMode", deviceId=DEVICE_ID, mode=3, handle="")),
    "download": ("/usr/sbin/wget", None),
}


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
@pytest.mark.parametrize("work", AT_WORK)
def test_an_end_ends_what_is_at_work(work, how):
    tool, start = AT_WORK[work]
    with contextlib.ExitStack() as stack:
        configuration = "opla.mode=OPLA-Next\n" + SIGNING_IN
        if start is None:
            configuration = SIGNING_IN
            stack.enter_context(stage.Manager("application-update"))
        agent = stack.enter_context(stage.agent(configuration))
        if start:
            agent.wait_until_serving()
        stack.enter_context(tools({tool: HANG}))
        if start:
            start()
        wait_until(lambda: hanging() == 2, "the tool is at work", 60)
        agent.process.send_signal(how)
        assert agent.process.wait(20 if stage.SANITIZED else 3) == (0 if how == signal.SIGTERM else -how)
        wait_until(lambda: hanging() == 0, "nothing is left")


def test_start_up_and_its_end_do_not_wait_for_tools_that_hang():
    """What is at work when the stop is asked for has its full time, the rest little."""
    zcip = "#!/bin/sh\nsleep 4321 &\nexport interface=$2 ip=169.254.9.9\n$3 init; $3 config\n"  # leaves a child
    with tools({"/usr/sbin/udhcpc": HANG, "/usr/sbin/zcip": zcip, "/usr/bin/arping": HANG}):
        with stage.agent("opla.mode=OPLA-Next\nnetwork.config.discover.mode=200\n") as agent:
            wait_until(lambda: hanging() == 2, "the DHCP client is at work")
            agent.process.send_signal(signal.SIGTERM)
            assert agent.process.wait(100) == 0
    text = stage.log()
    steps = ["'/sbin/udhcpc -s", "was ended after 60000 ms", "Got no lease", "'/usr/bin/arping",
             "was ended after 2000 ms", "* Network setup done.", "* Webserver service started."]
    assert sorted(steps, key=text.index) == steps

"""What a reservation leaves behind, and whose it is: stops, races, and a packet filter that hangs."""

import contextlib
import pathlib
import signal
import subprocess
import time

import stage
from stage import (CLIENT, DEVICE_ID, PORTS, ask_agent, call, exchange, in_background, port_rules, release, reserve,
                   rules, serving, wait_for_log, wait_until)
from raw_http import post
from zel import slp

FILTER = pathlib.Path("/usr/sbin/iptables")
FILTER_AS_IT_IS = FILTER.readlink()
HANGING = pathlib.Path("/run/tools.hang")
HANG = f"#!/bin/sh\nwhile [ -e {HANGING} ]; do sleep 0.1; done\n"
FORWARDING = pathlib.Path("/proc/sys/net/ipv4/ip_forward")
SERVING = "opla.mode=OPLA-Next\n"
TIMEOUT = 4  # of the agent, in seconds

# An administrator's: each differs in one thing from the agent's own.
NEIGHBOURS = [f"-A INPUT {rule}" for rule in (
    "-p tcp -m tcp --dport 6803 -j ACCEPT", "-p udp -m udp --dport 6801 -j ACCEPT",
    "-p tcp -m tcp --dport 6801 -j DROP", "-p tcp -m tcp --sport 6801 -j ACCEPT",
    "-p tcp -m tcp --dport 6801:6802 -j ACCEPT", "-i eth0 -p tcp -m tcp --dport 6801 -j ACCEPT",
    "-s 10.0.0.0/24 -p tcp -m tcp --dport 52410 -j ACCEPT",
    "! -s 10.0.0.1/32 -p tcp -m tcp --dport 52410 -j ACCEPT",
    "-s 10.0.0.1/32 -d 10.0.0.1/32 -p tcp -m tcp --dport 6802 -j ACCEPT",
    "-s 10.0.0.1/32 -p tcp -m tcp --sport 99 --dport 6802 -j ACCEPT")]


def legacy(function, owner):
    body = f"<p><data><var name='DeviceOwner'><string>{owner}</string></var></data></p>"
    return exchange(post(body, f"/rKo?FunctionName={function}", method="GET")).decode()


def filter_tool(script):
    """The tool of the packet filter runs that script first in the block."""
    return stage.replaced(FILTER, script + f'exec {FILTER_AS_IT_IS} "$@"\n')


@contextlib.contextmanager
def hanging_filter(victim):
    """The tool of the packet filter hangs, while `victim` waits for it, until the block ends."""
    HANGING.touch()
    with filter_tool(HANG), in_background(victim):
        try:
            wait_for_log("/sbin/iptables -A")
            yield
        finally:
            HANGING.unlink()


def test_no_rule_outlives_the_agent():
    left = [rule for host in ("", CLIENT, "255.255.255.255") for rule in port_rules(host)]
    for rule in left + NEIGHBOURS + left:
        subprocess.run([FILTER, *rule.split()], check=True)
    FORWARDING.write_text("1\n")
    for end in (signal.SIGTERM, signal.SIGKILL, signal.SIGABRT, signal.SIGINT):
        with serving(SERVING) as agent:
            assert rules() == NEIGHBOURS and FORWARDING.read_text() == "0\n", end
            assert reserve(host_lock=CLIENT)[0] == "0"
            assert len(rules()) == len(NEIGHBOURS) + len(PORTS)
            agent.process.send_signal(signal.SIGSEGV)  # after which all goes on
            agent.process.send_signal(end)
            agent.process.wait(20)
    assert rules() == NEIGHBOURS and FORWARDING.read_text() == "0\n"
    subprocess.run([FILTER, "-F", "INPUT"], check=True)


def test_only_ones_own_reservation_is_released():
    """The service does not end that of a client who came in between."""
    with serving(SERVING):
        ask_agent("stopService")
        legacy("rkoReleaseDevice", "VCI-Agent")
        code, handle = reserve()
        assert code == "0" and "startServiceResponse" in ask_agent("startService")
        assert len(rules()) == len(PORTS) and release(handle) == "0"
        ask_agent("stopService")
        assert reserve()[0] == "10" and "startServiceResponse" in ask_agent("startService")
        assert rules() == []


def test_nobody_waits_long_for_a_tool_that_hangs():
    begun = pathlib.Path("/run/selftest.begun")
    test = stage.replaced("/app/zel/selftest.d/99-hangs", HANG.replace("while", f"touch {begun}\nwhile"))
    refused = {
        "<error>10</error>": lambda: call("reserveDevice", deviceId=DEVICE_ID, owner="o"),
        "<error>7</error>\n": lambda: call("setHostLock", handle="1", hostLock="0"),
        "<error>7</error><commandResultList>": lambda: call("executeGenericCommand", handle="1"),
        "<error>7</error>": lambda: call("switchMode", deviceId=DEVICE_ID, mode="1"),
        ">42030/number>": lambda: legacy("rkoAllocateDevice", "o"),
        "Cant lock a reserved device!": lambda: ask_agent("stopService"),
        "<return></return>": lambda: ask_agent("doSelftest"),
    }
    answers, first = {}, []
    with test, serving(SERVING), contextlib.ExitStack() as afterwards:
        with hanging_filter(lambda: first.append(reserve())):
            afterwards.enter_context(in_background(lambda: ask_agent("doSelftest")))
            wait_until(begun.exists, "a self test is at work")
            with contextlib.ExitStack() as waiting:
                for expected, work in refused.items():
                    waiting.enter_context(in_background(lambda e=expected, w=work: answers.update({e: w()})))
                begin = time.monotonic()
                assert call("getDeviceInformation") and release("1") == "9" and stage.ask(slp.attribute_request())
                assert time.monotonic() - begin < TIMEOUT
            assert first == [], "all are answered before the tool is"
        assert [expected for expected in refused if expected not in answers[expected]] == []
        assert first[0][0] == "0" and release(first[0][1]) == "0" and rules() == []


def test_a_rule_that_was_not_deleted_does_not_meet_the_next_owner():
    with serving(SERVING):
        _, handle = reserve()
        with filter_tool("#!/bin/sh\n[ ! -e /run/once ] && touch /run/once && exit 4\n"):
            assert release(handle) == "0" and rules() == []
        _, handle = reserve()
        with filter_tool("#!/bin/sh\nkill -9 $$\n"):
            assert release(handle) == "0"
        assert reserve(host_lock=CLIENT)[0] == "0" and rules() == port_rules(CLIENT)

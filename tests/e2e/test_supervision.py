"""Start, stop and survival of the agent as a process."""

import contextlib
import ctypes
import pathlib
import platform
import signal
import socket
import time

import box
import workshop
from box import call, connect, exchange

SYS_TGKILL = {"x86_64": 234, "aarch64": 131, "ppc": 250}


def log_lines():
    """Level and text of every entry; one of several lines counts with its first."""
    return [line[28:].split(maxsplit=1)[0] + " " + line[28 + 8 + 6:]
            for line in box.LOG.read_text().splitlines() if line.startswith("20")]


@contextlib.contextmanager
def started(configuration="opla.mode=OPLA-Next\n", serving=True):
    with workshop.agent(configuration) as agent:
        yield agent.wait_until_serving() if serving else agent


def test_start_up_tells_what_it_does():
    pathlib.Path("/config/wlan.mac").write_text("00:00:00:00:00:00\n")
    state = pathlib.Path("/app/zel/images/firmware/state")
    state.write_text("dirty\n")
    try:
        with started(configuration="opla.mode=OPLA-Next\ntavo.hostname=\ncountry.code=DE\n") as agent:
            box.wait_until(lambda: "status not Clean" in box.LOG.read_text(), "start-up is done")
            # A sanitizer may have a thread of its own.
            box.wait_until(lambda: {"WebServer", "Zel::main"} <= set(agent.threads().values()),
                           "it has these threads")
    finally:
        state.write_text("clean\n")
    lines = [line for line in log_lines() if not line.startswith("debug")]
    gateway = int.from_bytes(socket.inet_aton(box.CLIENT), box.BYTE_ORDER)
    assert lines[:2] == ["info Country: 'DE'", "error wlanDevice is NULL"]
    assert lines[2].startswith("info * ZEL 01.02.02 ")
    assert lines[2].endswith(" starting on TAVO 0012345...")
    assert lines[3:] == ["info * OPLA-Mode: OPLA-Next", "info No enterprise set, don't set time",
                         "info * SetDateTime done.", "info Enable interface 'eth0'",
                         "info Lan is link", "info Network mode is dhcp", f"info Current Gateway: {gateway}",
                         "info TAVOD: '0'", f"info LAN interface configured, IP: {box.BOX}",
                         "info * Network setup done.", "info * SLP service started.",
                         "info * Webserver service started.",
                         "error Update of firmware image failed, status not Clean",
                         "info * ZEL exiting..."]
    assert agent.read_output().count("* OPLA-Mode: OPLA-Next") == 1, "also on the console"
    assert "No wlan.mac file found" in box.LOG.read_text()
    assert "No wlan.mac file found" not in agent.read_output(), "no debug lines there"
    assert pathlib.Path("/config/wlan.mac").read_text() == "00:00:00:00:00:00"


def test_signals():
    for stop in (signal.SIGTERM, signal.SIGINT):
        with started() as agent:
            with connect() as idle, connect() as busy:
                busy.sendall(b"POST /zel/services/ConnectorService HTTP/1.1\r\nContent-Le")
                agent.process.send_signal(signal.SIGHUP)
                agent.process.send_signal(signal.SIGPIPE)
                assert "getDeviceInformationResponse" in call("getDeviceInformation")
                begin = time.monotonic()
                agent.process.send_signal(stop)
                assert agent.process.wait(20) == 0
                if not box.SANITIZED:
                    assert time.monotonic() - begin < 3
                assert idle.recv(1) == b""


def test_the_restart_is_answered():
    """Also when the first that a reboot does is to stop the agent."""
    with started() as agent, workshop.replaced("/usr/sbin/reboot", f"#!/bin/sh\nkill -TERM {agent.pid}\n"):
        answer = exchange(box.post(box.envelope("<restartDevice/>"), "/services/Agent"))
        assert b"restartDeviceResponse" in answer and answer.endswith(b"</S:Envelope>\n")
        assert agent.process.wait(20) == 0


def test_without_a_manager_known_it_waits():
    with started(configuration="opla.mode=OPLA\n", serving=False) as agent:
        box.wait_until(lambda: "WebServer" in agent.threads().values(), "the server waits")
        time.sleep(0.3)
        with contextlib.suppress(ConnectionRefusedError):
            connect().close()
            raise AssertionError("it serves before the end of start-up")


def test_a_fault_in_a_connection_ends_only_that():
    tgkill = ctypes.CDLL(None, use_errno=True).syscall
    number = SYS_TGKILL[platform.machine()]
    with started() as agent:
        for round_number in range(1, 4):
            box.wait_until(lambda: not agent.connections(), "nobody is served")
            with connect() as victim:
                tid = box.wait_until(agent.connections, "the connection is served")[0]
                # It waits for a request then, holding nothing of the C library's.
                box.wait_until(lambda: "State:\tS" in pathlib.Path(
                    f"/proc/{agent.pid}/task/{tid}/status").read_text(), "it waits")
                assert tgkill(number, agent.pid, tid, signal.SIGSEGV) == 0
                assert victim.recv(1) == b"", "its connection is closed"
            assert b"Hallo Welt" in exchange(b"GET /test HTTP/1.0\r\n\r\n")
            errors = [line for line in log_lines() if line.startswith("error ==")]
            assert errors.count("error == FATAL: Segmentation fault detected!") == round_number

"""Start, stop and survival of the agent as a process."""

import contextlib
import ctypes
import pathlib
import platform
import signal
import socket
import subprocess
import time

import pytest

import raw_http
import stage
from stage import ALONE, call, connect, exchange, serving, wait_until
from zel import soap

SYS_TGKILL = {"x86_64": 234, "aarch64": 131, "ppc": 250}


def log_lines():
    """Level and text of every entry; one of several lines counts with its first."""
    return [line[28:].split(maxsplit=1)[0] + " " + line[28 + 8 + 6:]
            for line in stage.log().splitlines() if line.startswith("20")]


def test_start_up_tells_what_it_does():
    mac = pathlib.Path("/config/wlan.mac")
    mac.write_text("00:00:00:00:00:00\n")
    with stage.replaced("/app/zel/images/firmware/state", "dirty\n"):
        with serving("opla.mode=OPLA-Next\ntavo.hostname=\ncountry.code=DE\n") as agent:
            stage.wait_for_log("status not Clean")
            # A sanitizer may have a thread of its own.
            wait_until(lambda: {"WebServer", "Zel::main"} <= set(agent.threads().values()), "it has these threads")
    lines = [line for line in log_lines() if not line.startswith("debug")]
    assert lines[:2] == ["info Country: 'DE'", "error wlanDevice is NULL"]
    assert lines[2].startswith("info * ZEL 01.02.02 ") and lines[2].endswith(" starting on TAVO 0012345...")
    assert [line for line in lines[3:] if line[:6] != "info *"][-1] == (
        "error Update of firmware image failed, status not Clean")
    assert [line for line in lines[3:] if line[:6] == "info *"] == [f"info * {text}" for text in (
        "OPLA-Mode: OPLA-Next", "SetDateTime done.", "Network setup done.", "SLP service started.",
        "Webserver service started.", "ZEL exiting...")]
    assert agent.output().count("* OPLA-Mode: OPLA-Next") == 1, "also on the console"
    assert "No wlan.mac file found" in stage.log()
    assert "No wlan.mac file found" not in agent.output(), "no debug lines there"
    assert mac.read_text() == "00:00:00:00:00:00"


@pytest.mark.parametrize("name, configuration", [("\0" + 107 * "z", stage.SIGNING_IN), ("/tmp/notify", ALONE)])
def test_a_service_manager_is_told(name, configuration, tmp_path):
    """Every message is the whole state, one for which there was no room is sent again, the last one is that of the
    stop, and tools are told no socket."""
    def message():
        return told.recv(1000).decode()

    def last_messages():
        told.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                yield message()

    is_full = configuration == ALONE
    environment = tmp_path / "environment"
    with (socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as told, stage.Manager("application-update"),
          stage.replaced("/usr/sbin/reboot", f"#!/bin/sh\nenv > {environment}\n")):
        told.bind(name)
        told.settimeout(60)
        if is_full:
            told.setblocking(False)
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, contextlib.suppress(BlockingIOError):
                other.setblocking(False)
                while True:
                    other.sendto(b"", name)
            told.settimeout(60)
        with serving(configuration, NOTIFY_SOCKET=name.replace("\0", "@")):
            if is_full:
                assert wait_until(message, "there is room again") == "READY=1\nSTATUS=Serving"
            else:
                signing_in = "Starting: signing in with the central manager"
                assert list(iter(message, "STATUS=Starting")) == [f"STATUS={text}" for text in (
                    "Starting: bringing up the network", "Starting: looking for the central manager",
                    "Starting: waiting for a client to release the box, to sign in", signing_in,
                    "Starting: fetching and installing an update", signing_in, signing_in)]
                assert message() == "READY=1\nSTATUS=Serving"
                assert "PATH=" in environment.read_text() and "NOTIFY_SOCKET" not in environment.read_text()
        stopping = "STOPPING=1\nSTATUS=Stopping"
        assert list(last_messages())[-1] == stopping
        with stage.agent(configuration, NOTIFY_SOCKET=name.replace("\0", "@")):
            told.settimeout(60)
            message()  # it is stopped while it brings up the network
        assert list(last_messages())[-1] == stopping


def test_signals():
    for stop in (signal.SIGTERM, signal.SIGINT):
        with serving(ALONE) as agent:
            with connect() as idle, connect() as busy:
                busy.sendall(b"POST /zel/services/ConnectorService HTTP/1.1\r\nContent-Le")
                agent.process.send_signal(signal.SIGHUP)
                agent.process.send_signal(signal.SIGPIPE)
                assert "getDeviceInformationResponse" in call("getDeviceInformation")
                agent.process.send_signal(stop)
                assert agent.process.wait(20 if stage.SANITIZED else 3) == 0
                assert idle.recv(1) == b""


def test_a_box_that_restarts_is_waited_for():
    with serving(ALONE) as agent, stage.replaced("/usr/sbin/reboot", f"#!/bin/sh\nkill -TERM {agent.pid}\n"):
        client = subprocess.Popen(stage.in_network("client", stage.ZELCTL, "restart", stage.BOX),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        agent.process.wait(30)
        with serving(ALONE):
            assert client.communicate(timeout=60)[0] == f"{stage.BOX}\n" and client.returncode == 0


def test_the_restart_is_answered():
    """Also when the first that a reboot does is to stop the agent."""
    with serving(ALONE) as agent, stage.replaced("/usr/sbin/reboot", f"#!/bin/sh\nkill -TERM {agent.pid}\n"):
        answer = exchange(raw_http.post(soap.envelope("<restartDevice/>"), "/services/Agent"))
        assert b"restartDeviceResponse" in answer and answer.endswith(b"</S:Envelope>\n")
        assert agent.process.wait(20) == 0


def test_without_a_manager_known_it_waits():
    with stage.agent("opla.mode=OPLA\n") as agent:
        wait_until(lambda: "WebServer" in agent.threads().values(), "the server waits")
        time.sleep(0.3)
        with contextlib.suppress(ConnectionRefusedError):
            connect().close()
            raise AssertionError("it serves before the end of start-up")


def test_a_fault_in_a_connection_ends_only_that():
    tgkill = ctypes.CDLL(None, use_errno=True).syscall
    number = SYS_TGKILL[platform.machine()]
    get = b"GET /test HTTP/1.0\r\n\r\n"

    def faults():
        return log_lines().count("error == FATAL: Segmentation fault detected!")

    def strike_idle():
        exchange(get)
        time.sleep(0.02)  # its thread waits for the next one then, holding nothing
        return any(tgkill(number, agent.pid, tid, signal.SIGSEGV) == 0 for tid in agent.connections())

    with serving(ALONE) as agent:
        for round_number in range(1, 4):
            agent.at_rest()
            with connect() as victim:
                tid = wait_until(agent.connections, "the connection is served")[0]
                # It waits for a request then, holding nothing of the C library's.
                wait_until(lambda: "State:\tS" in pathlib.Path(
                    f"/proc/{agent.pid}/task/{tid}/status").read_text(), "it waits")
                assert tgkill(number, agent.pid, tid, signal.SIGSEGV) == 0
                assert victim.recv(1) == b"", "its connection is closed"
            assert b"Hallo Welt" in exchange(get)
            assert faults() == round_number
        wait_until(strike_idle, "a thread without a connection is hit")
        wait_until(lambda: faults() == 4, "it is told")
        for _ in range(3):
            assert b"Hallo Welt" in exchange(get)

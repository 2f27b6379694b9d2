"""Faults that the agent outlives; docs/reliability.md tells what is promised and where the others are tested."""

import contextlib
import pathlib
import re
import resource
import subprocess
import time

import pytest

import stage
from stage import (BOX, CONFIGURATION, DEVICE_ID, SIGNING_IN, Manager, active_image, agent, changed, connect, log,
                   network, output_of, release, replaced, reserve, rules, serving, settings, wait_for_log, wait_until)
from raw_http import INFORMATION, post, read_all, read_response
from zel import slp
from zel.soap import envelope, operation

pytestmark = pytest.mark.usefixtures("workshop_in_order")

ALONE = stage.ALONE + stage.DHCP
WLAN = ("wlan.conf.infra.band=0\nwlan.conf.infra.ssid=hall\nwlan.conf.infra.psk=a secret\n"
        "wlan.conf.infra.security.level=102\n")
ANSWER = b"getDeviceInformationResponse"
KEEP = "Connection: Keep-Alive\r\n"
KEPT = post(envelope("<getDeviceInformation/>"), headers=KEEP)
STOP_SECONDS = 3
SEND_SECONDS = 30  # a peer that takes nothing

# What a simulated box cannot do to the agent: there is no clock of its own to be set, and root may
# always start threads.
SHIM = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t id, struct timespec* time) {
    int (*real)(clockid_t, struct timespec*) = dlsym(RTLD_NEXT, "clock_gettime");
    int result = real(id, time);
    int error = errno;
    FILE* file = id == CLOCK_REALTIME ? fopen("/run/clock-jump", "re") : NULL;
    long seconds = 0;
    if (file != NULL) {
        if (fscanf(file, "%ld", &seconds) == 1) time->tv_sec += seconds;
        fclose(file);
    }
    errno = error;
    return result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*work)(void*), void* argument) {
    int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) = dlsym(RTLD_NEXT, "pthread_create");
    return access("/run/no-threads", F_OK) == 0 ? EAGAIN : real(thread, attributes, work, argument);
}
"""
YEAR = 365 * 24 * 3600


@pytest.fixture(scope="module")
def shim(tmp_path_factory):
    """To preload; nothing where that cannot be: a sanitizer has functions of its own in their place."""
    if stage.SANITIZED or stage.EMULATED:
        return ""
    library = tmp_path_factory.mktemp("shim") / "shim.so"
    subprocess.run(["gcc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], input=SHIM, text=True, check=True)
    return str(library)


@contextlib.contextmanager
def full_disk(_):
    filler = pathlib.Path("/filler")
    with changed("mount -o remount,size=64m /", "mount -o remount,size=50% /"):
        try:
            with contextlib.suppress(OSError), filler.open("wb", buffering=0) as file:
                while file.write(bytes(4096)):
                    pass
            yield
        finally:
            filler.unlink()


@contextlib.contextmanager
def read_only_settings(_):
    with changed("mount --bind /config /config", "umount /config"):
        output_of("mount", "-o", "remount,bind,ro", "/config")
        yield


@contextlib.contextmanager
def descriptors(running, left):
    soft, hard = resource.prlimit(running.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(running.pid, resource.RLIMIT_NOFILE, (running.descriptors() + left, hard))
    try:
        yield
    finally:
        resource.prlimit(running.pid, resource.RLIMIT_NOFILE, (soft, hard))


def serve_a_client():
    """A whole use of the box."""
    code, handle = reserve()
    assert code == "0" and len(rules()) == 4
    assert release(handle) == "0" and rules() == []


FAULTS = {  # and when a new client is answered
    "full disk": (full_disk, "at once"),
    "read-only settings": (read_only_settings, "at once"),
    "clock ten years on": (lambda _: replaced("/run/clock-jump", str(10 * YEAR)), "at once"),
    "clock ten years back": (lambda _: replaced("/run/clock-jump", str(-10 * YEAR)), "at once"),
    "no threads": (lambda _: replaced("/run/no-threads", ""), "never"),
    "no descriptors": (lambda running: descriptors(running, 0), "afterwards"),
    "few descriptors": (lambda running: descriptors(running, 1), "at once"),
}


@pytest.mark.parametrize("name", FAULTS)
def test_a_fault_that_comes_and_goes(name, shim):
    fault, answered = FAULTS[name]
    if not shim and name.startswith(("clock", "no threads")):
        pytest.skip("cannot be brought about")
    with serving(ALONE, LD_PRELOAD=shim) as running:
        serve_a_client()
        before, stored = running.at_rest(), settings()
        _, handle = reserve()
        with connect() as kept:
            kept.sendall(KEPT)
            assert ANSWER in read_response(kept)[1]
            wait_until(lambda: len(running.connections()) == 1, "no thread waits for the next connection")
            with fault(running):
                released = operation("releaseDevice", handle=handle, deviceId=DEVICE_ID)
                kept.sendall(post(envelope(released), headers=KEEP))
                assert b"<error>0<" in read_response(kept)[1]
                new = connect()
                new.sendall(INFORMATION)
                if answered != "afterwards":
                    assert (ANSWER in read_all(new)) == (answered == "at once")
                if name.startswith("clock"):
                    assert not log().splitlines()[-1].startswith(time.strftime("%Y")), "it has seen the jump"
        if answered == "afterwards":
            assert ANSWER in read_all(new)
        new.close()
        serve_a_client()
        assert running.at_rest() == before and settings() == stored
        assert f"Closing connection to {BOX}" in log().splitlines()[-1], "it goes on logging"


def test_a_start_without_threads_goes_on_when_there_are_some(shim):
    if not shim:
        pytest.skip("cannot be brought about")
    stage.AGENT_LOG.unlink(missing_ok=True)
    with replaced("/run/no-threads", ""):
        running = stage.Agent(ALONE, LD_PRELOAD=shim)
        wait_for_log("Can't start a thread for a service, trying again")
    running.wait_until_serving()
    assert stage.ask(slp.attribute_request()) and running.stop() == 0


@pytest.mark.parametrize("read_only", [True, False])
def test_settings_that_cannot_be_stored(read_only):
    """What the manager says holds until the next start, what was stored before stays."""
    with changed("mount -t tmpfs -o size=4k small /config", "umount /config"):
        CONFIGURATION.write_text(SIGNING_IN)
        with read_only_settings(None) if read_only else contextlib.nullcontext():
            with Manager("rename", "hostname=bay-7") as manager, serving(None):
                body, = wait_until(lambda: manager.bodies("signInTavo"), "it has signed in")
                assert "hostname>bay-7<" in body
                serve_a_client()
        assert CONFIGURATION.read_text() == SIGNING_IN and not list(CONFIGURATION.parent.glob("*.new"))


@pytest.mark.parametrize("text", [None, "#!/bin/bash\nkill -SEGV $$\n"])
def test_tools_that_are_missing_or_crash(text):
    for tool, mode in [("/sbin/iptables", 3), ("/sbin/udhcpc", 3), ("/sbin/zcip", 201), ("/usr/bin/arping", 3),
                       ("/bin/sh", 3)]:
        output_of("ip", "address", "replace", f"{BOX}/16", "dev", "eth0")
        with replaced(tool, text), serving(ALONE.replace("mode=3", f"mode={mode}")):
            code, handle = reserve()
            assert (code, release(handle)) == ("0", "0"), tool
        assert rules() == []
    with replaced("/dev/measure/0", None), serving(ALONE):
        serve_a_client()
        assert "<error>17<" in stage.call("resetTrigger15Edge"), "there is no device to reset"


def test_an_address_that_goes_away_under_open_connections():
    """All of them end within the limits of their requests, and the box is there when the address is."""
    pathlib.Path("/tmp/large").write_bytes(b"x" * 20_000_000)
    with serving(ALONE) as running, contextlib.ExitStack() as stack:
        before = running.at_rest()
        for data in [KEPT] * 5 + [INFORMATION[:-20], b"GET /web/show.jsp?file=/tmp/large HTTP/1.0\r\n\r\n"]:
            stack.enter_context(connect()).sendall(data)
        wait_until(lambda: len(running.connections()) == 7, "all are served")
        with stage.without_address():
            wait_until(lambda: not running.connections(), "all have ended", SEND_SECONDS + 30)
        serve_a_client()
        assert running.at_rest() == before
        assert stage.ask(slp.service_request())[1] == slp.SRV_RPLY


@pytest.mark.parametrize("manager, phase", [
    (None, "Lan is not link"), (None, "wpa_cli: "), (None, "using multicast"), ("no-slp", "using multicast"),
    ("silent", "Wait for response"), ("slow", "Wait for response"), ("image-stall", "Downloading update file")])
def test_sigterm(manager, phase, shim):
    """Within three seconds, whatever the clock says then."""
    with Manager(manager) if manager else contextlib.nullcontext():
        network("cable", "out" if phase in ("Lan is not link", "wpa_cli: ") else "in")
        network("adapter", "ralink" if phase == "wpa_cli: " else "none")  # and no access point
        with agent(SIGNING_IN + WLAN, LD_PRELOAD=shim) as running, replaced("/run/clock-jump", "0"):
            wait_for_log(phase)
            pathlib.Path("/run/clock-jump").write_text(str(YEAR))
            assert running.stop(STOP_SECONDS) == 0


def test_kill_at_any_moment():
    """Settings and image are whole, whatever is interrupted, and the next start goes on from there."""
    CONFIGURATION.write_text(SIGNING_IN.replace("=TAVO", "=bay-7"))
    stored, seen = settings(), [active_image()]

    def start(sign, end):
        with Manager("application-update"), agent(None) as running:
            wait_for_log(sign)
            end(running)
        assert settings().items() >= stored.items()
        seen.append(active_image())

    for sign in ["starting on", "Open pipe '/sbin/udhcpc", "discover manager using", "Contained ClusterIP",
                 "Wait for response", "Downloading", "New version", "Rebooting"]:
        start(sign, lambda running: (running.process.kill(), running.process.wait()))
    start("* SignIn succeed", lambda running: None)
    assert (stage.IMAGES / "application/state").read_text() == "clean\n" and len(seen[-1]) == 200000
    assert set(seen) == {seen[0], seen[-1]}


def test_the_document_names_tests_that_exist():
    """A promise is one that a test keeps."""
    sources = "".join(path.read_text() for path in (*(stage.PROJECT / "tests").glob("*.cpp"),
                                                    *(stage.PROJECT / "tests/e2e").glob("*.py")))
    document = (stage.PROJECT / "docs/reliability.md").read_text()
    for line in re.findall(r"^\| [^-].* \|$", document.partition("| fault")[2], re.M):
        named = re.findall(r"`(test_\w+|\w+Test)(?:\.(\w+))?`", line)
        assert named, line
        for name, case in named:
            assert f"def {name}(" in sources or re.search(rf"TEST(_F|_P)?\({name}, {case}\)", sources), name

"""The agent short of what it lives on: memory, and somebody who reads what it prints."""

import concurrent.futures
import contextlib
import os
import re
import resource
import socket

import pytest

import stage
from stage import connect, exchange
from raw_http import GREETING, INFORMATION, post
from zel.soap import envelope

pytestmark = pytest.mark.usefixtures("workshop_in_order")

# Nobody waits for the second try of a connect.
CONFIGURATION = "opla.mode=OPLA-Next\nnetwork.config.discover.mode=3\nweb.listen.backlog=128\n"
LARGE = [post(envelope("<a/>" * 250000)), post("<a/>" * 250000), post("x" * 1000000),
         b"POST /x HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n"
         + (b"10000\r\n" + b"y" * 65536 + b"\r\n") * 16 + b"0\r\n"]


@pytest.mark.parametrize("kind", ["pipe", "socket"])
def test_output_that_nobody_reads(kind):
    reading, writing = os.pipe() if kind == "pipe" else [end.detach() for end in socket.socketpair()]
    agent = stage.Agent(CONFIGURATION, writing).wait_until_serving()
    for _ in range(3000):
        connect().close()
    assert GREETING in exchange(b"GET /test HTTP/1.0\r\n\r\n")
    text = ""
    while not re.search(r"\d+ lines lost\n", text):
        text += os.read(reading, 1000000).decode()
        connect().close()
    for line in text.split("\n")[1:-1]:
        assert re.fullmatch(r"20.*|read_headers\(\) returned .*|req->url .*|\d+ lines lost|.*\.\.\.", line), line
    os.close(reading)
    assert GREETING in exchange(b"GET /test HTTP/1.0\r\n\r\n"), "a reader that is gone"
    assert agent.stop() == 0
    os.close(writing)


@pytest.mark.skipif(stage.SANITIZED or stage.EMULATED, reason="they reserve address space of their own")
def test_lack_of_memory_ends_requests_only():
    agent = stage.Agent(CONFIGURATION).wait_until_serving()
    agent.at_rest()
    threads = set(agent.threads().values())  # a thread that begins has its parent's name

    def send(data):
        with contextlib.suppress(OSError):
            return exchange(data)

    for spare in (1, 2, 3, 4, 6, 8, 16, 32):
        limit = agent.status("VmSize") * 1024 + spare * 1024 * 1024
        resource.prlimit(agent.pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
        with contextlib.ExitStack() as idle, concurrent.futures.ThreadPoolExecutor(16) as pool:
            for _ in range(16):
                idle.enter_context(connect())
            list(pool.map(send, LARGE * 4 + [INFORMATION] * 16))
        resource.prlimit(agent.pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        assert GREETING in exchange(b"GET /test HTTP/1.0\r\n\r\n")
        assert b"getDeviceInformationResponse" in exchange(INFORMATION)
        stage.wait_until(lambda: not agent.connections(), "all connections have ended")
        assert set(agent.threads().values()) == threads
    log = "".join(file.read_text() for file in stage.AGENT_LOG.parent.iterdir())
    assert re.search("[Oo]ut of memory|Can't start a thread", log)
    assert agent.stop() == 0

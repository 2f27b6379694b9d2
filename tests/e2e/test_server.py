"""The HTTP server against peers that misbehave: a clear answer or a close, and nothing is lost."""

import socket

import pytest

import raw_http
import stage
from stage import call, connect, exchange, release, reserve
from raw_http import GREETING, INFORMATION, post, read_all
from zel.soap import CONNECTOR, envelope

pytestmark = pytest.mark.usefixtures("agent")

ENVELOPE = envelope("<getDeviceInformation/>").encode()
CHUNKED = f"POST {CONNECTOR} HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n".encode()
NO_DOCUMENT = b"Can't create xml document from request"
NOT_FOUND = b"An error 404 has occurred. The requested document could not be found."
DTD = '<!DOCTYPE e:Envelope [<!ENTITY a "aaaaaaaaaa"><!ENTITY x SYSTEM "file:///etc/passwd">]>'


# What a peer sends before it ends its side, and what must be part of the answer; b"" is a close
# without one.
BAD_REQUESTS = [
    (b"", b""),
    (b"\r\n\r\n\n\n", b""),
    (b"GET /test", b""),
    (b"GET /test HTTP/1.0", b""),
    (b"GET /test HTTP/1.0\r\nHost: x\r\n", b""),
    (b"PUT /test HTTP/1.0\r\n\r\n", b""),
    (b"get /test HTTP/1.0\r\n\r\n", b""),
    (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(200) + b"\n\n", b""),
    (b"GET /" + b"x" * 70000 + b" HTTP/1.0\r\n\r\n", b""),
    (b"GET /nothing HTTP/1.0\r\n\r\n", NOT_FOUND),
    (b"GET \r\n\r\n", NOT_FOUND),
    (b"GET /test HTTP/1.0\n\n", GREETING),
    (b"GET /t\rest HTTP/1.0\r\n\r\n", GREETING),
    (post(b""), NO_DOCUMENT),
    (post(b"<" * 0x100001), NO_DOCUMENT),
    (post(b"<" * 0x100000), NO_DOCUMENT),
    (post(ENVELOPE, length=500), b"getDeviceInformationResponse"),
    (post(b"<e:Envelope", length=500), NO_DOCUMENT),
    (CHUNKED + b"2\r\n<e\r\n%x\r\n%s\r\n0\r\n" % (len(ENVELOPE) - 2, ENVELOPE[2:]), b"getDeviceInformationResponse"),
    (CHUNKED, NO_DOCUMENT),
    (CHUNKED + b"5;name=value\r\nhello\r\n0\r\n\r\n", NO_DOCUMENT),
    (post(DTD + envelope("<reserveDevice><deviceId>&x;</deviceId><owner>&a;</owner></reserveDevice>")), NO_DOCUMENT),
    (post(envelope("<a>" * 50000)), NO_DOCUMENT),
    (post(envelope("<a>" * 200 + "</a>" * 200)), b"Validation 1 says:"),
    (post(envelope("<dance/>").encode("utf-16")[:-1]), NO_DOCUMENT),
    (post(b'<?xml version="1.0" encoding="klingon"?>' + envelope("<dance/>").encode()), NO_DOCUMENT),
    (post(envelope("<dance>\xff</dance>").encode("latin-1")), NO_DOCUMENT),
    (post(b"\0" + envelope("<dance/>").encode()), NO_DOCUMENT),
    (post("<a/>"), b"No matching global declaration"),
]


def send_and_end(data, port=5302):
    """All that is answered to a peer that ends its side behind these bytes."""
    with connect(port) as connection:
        try:
            connection.sendall(data)
            connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # answered and closed before everything was sent
        return read_all(connection)


def test_bad_requests_get_a_clear_answer():
    for data, expected in BAD_REQUESTS:
        answer = send_and_end(data)
        assert expected in answer and bool(answer) == bool(expected), (data[:200], answer[:500])
    assert "getDeviceInformationResponse" in call("getDeviceInformation")


def test_ports():
    for port in (80, 5302):
        assert GREETING in exchange(b"GET /test HTTP/1.0\r\n\r\n", port)
    assert NOT_FOUND in exchange(INFORMATION, 80), "the service is on its own port only"


def test_many_requests_leave_nothing_behind(agent):
    def run(rounds):
        for _ in range(rounds):
            for data, expected in small:
                assert expected in send_and_end(data)
                with connect() as connection:  # leaves in the middle, by a reset
                    raw_http.reset_on_close(connection)
                    connection.sendall(data[:len(data) // 2])
                assert b"getDeviceInformationResponse" in exchange(INFORMATION)
            assert release(reserve()[1]) == "0"

    small = [case for case in BAD_REQUESTS if len(case[0]) < 9999]
    run(20)  # what is kept for ever (schemas, error texts) is there now
    before, memory_before = agent.at_rest(), agent.status("VmRSS")
    run(20 if stage.SANITIZED else 120)
    assert agent.at_rest() == before
    memory = agent.status("VmRSS")
    # A sanitizer keeps freed memory for a while.
    assert stage.SANITIZED or memory - memory_before < 1024, f"from {memory_before} kB to {memory} kB"
    assert stage.rules() == []

"""The Python module against the box, against boxes that say odd things, and against what is no box."""

import concurrent.futures
import contextlib
import dataclasses
import ipaddress
import json
import pathlib
import pickle
import re
import socket
import threading
import time
import tomllib

import pytest

import responders
import stage
import zel
from raw_http import receive, reset_on_close
from stage import BOX, CLIENT, DEVICE_ID, port_rules, rules
from zel.soap import ENVELOPE, envelope, send

pytestmark = pytest.mark.usefixtures("agent", "in_the_clients_network")

# What else answers a search: a box with values of no kind, one without a device id, two that say they are the same.
OTHERS = ["(Serial=ABC1\\0a\\29),(DevId=odd),(State=9),(Kl30Voltage=12.3),(Netmask=x),(Diag=),(=),(no),"
          "(VciChannels=[a\\2cb,c])", "(Owner=x),(State=4),(State=5)",
          "(Serial=TWIN0000007),(DevId=a)", "(Serial=TWIN0000007),(DevId=b)"]


@pytest.fixture(name="in_the_clients_network")
def enter():
    with stage.namespace("client"):
        yield


@pytest.fixture(name="box")
def address():
    return zel.Box(BOX)


def refused(error, words, work):
    with pytest.raises(error, match=words) as caught:
        work()
    assert str(caught.value).isprintable() and len(str(caught.value)) < 500
    return caught.value


def test_search():
    with responders.other_boxes(*OTHERS):
        seen = set()
        boxes = zel.find(wait=60, enough=lambda box: seen.add(box.address) or len(seen) == 1 + len(OTHERS))
        first, odd, nameless, _, twin = boxes
        assert first.address == BOX and sorted(boxes, key=lambda box: ipaddress.ip_address(box.address)) == boxes
        assert (odd.device_id, odd.serial, odd.state) == ("ABC1\n)", "1\n)", "9") and "ABC1 )" in str(odd)
        assert odd.attributes == {"Serial": "ABC1\n)", "DevId": "odd", "State": "9", "Kl30Voltage": "12.3",
                                  "Netmask": "x", "Diag": "", "VciChannels": ("a,b", "c")}
        assert (nameless.state, nameless.owner, nameless.device_id) == ("free", "x", "")
        box = zel.find_one("0012345", wait=3)
        assert box == zel.Box(BOX) and (box.state, box.owner, box.serial) == ("free", "", "0012345")
        assert json.loads(json.dumps(dataclasses.asdict(box)))["attributes"]["DevId"] == box.name
        assert (box.attributes["Kl30Voltage"], box.attributes["Kl15Trigger"]) == (12310, False)
        assert box.attributes["NetGateway"] == CLIENT and box.attributes["Diag"] == ("0x12", "0x18")
        assert zel.find_one("B", wait=1) == twin
        refused(zel.Ambiguous, "2 boxes answer to 'twin0000007'", lambda: zel.find_one("twin0000007", wait=1))
        refused(zel.NotFound, r"'none \[2J'", lambda: zel.find_one("none\x1b[2J", wait=0.5))


def test_a_reservation(box):
    with box.reserve("me <&> \u00f6", lock=CLIENT) as held:
        assert rules() == port_rules(CLIENT)
        information = box.info()
        assert (information.state, information.owner) == ("reserved", "me <&> \u00f6")
        assert (information.address, information.voltage_kl30_mv, information.channels[2]) == (
            BOX, 12310, zel.Channel("MOST", BOX, 6802, True))
        assert held.command("diag", "echo", b="<2> &", a=1) == "a=1\nb=<2> &"
        held.lock("any")
        assert rules() == port_rules()
        failed = refused(zel.CommandFailed, "'diag fail' fails: the vehicle", lambda: held.command("diag", "fail"))
        assert failed.output == "the vehicle does not answer"
        taken = refused(zel.Refused, "already by 'me", lambda: zel.Box(BOX).reserve("you"))
        assert (taken.code, taken.owner) == (10, "me <&> \u00f6")
        assert str(pickle.loads(pickle.dumps(taken))) == str(taken)  # as it comes out of a pool of processes
        refused(zel.Fault, "dispatch method", lambda: box.call("dance"))
    assert rules() == [] and held.released
    refused(zel.Refused, "code 9: it is not reserved", lambda: held.command("diag", "echo"))


def test_a_reservation_ends_with_its_block(box):
    for error in (KeyError, KeyboardInterrupt, SystemExit):
        with pytest.raises(error), box.reserve("me"):
            raise error
        assert box.info().state == "free"
    with pytest.raises(KeyError) as caught, box.reserve("me") as held:
        box.call("releaseDevice", handle=held.handle, deviceId=DEVICE_ID)
        raise KeyError
    assert "could not be released" in caught.value.__notes__[0]
    with pytest.raises(zel.Refused), box.reserve("me") as held:
        box.call("releaseDevice", handle=held.handle, deviceId=DEVICE_ID)


def test_a_box_is_waited_for(box):
    first = box.reserve("first")
    begin = time.monotonic()
    refused(zel.Refused, "by 'first'", lambda: box.reserve("second", wait_free=1.2))
    assert time.monotonic() >= begin + 1.2
    with stage.in_background(lambda: (time.sleep(0.5), first.release())):
        second = box.reserve("second", wait_free=60)
    with concurrent.futures.ThreadPoolExecutor() as threads:
        assert [done.result() for done in [threads.submit(second.release) for _ in range(2)]] == [None, None]


def test_what_no_box_can_use_is_not_sent():
    nowhere = zel.Box("192.168.68.99", timeout=1)
    held = zel.Reservation(nowhere, "me", "1", DEVICE_ID)
    for words, work in (("'192.168.68' is no address", lambda: nowhere.reserve("me", lock="192.168.68")),
                        ("'5' is no address", lambda: held.lock("5")), ("no address", lambda: held.lock("")),
                        ("give an owner", lambda: nowhere.reserve("")),
                        (r"'\\x00' cannot be sent", lambda: held.command("a", "b", c="\0")),
                        (r"'\\udc80' cannot be sent", lambda: held.command("a\udc80", "b")),
                        ("nan s", lambda: zel.find(float("nan"))), ("0 s", lambda: zel.find(0)),
                        ("10000000000.0 s", lambda: zel.find(1e10)),
                        ("-1 s", lambda: nowhere.reserve("me", wait_free=-1)),
                        ("inf s", lambda: zel.Box(BOX, timeout=float("inf"))),
                        ("port 70000", lambda: zel.Box(BOX, 70000))):
        refused(zel.BadArgument, words, work)


@contextlib.contextmanager
def answering(answer, dripping=False):
    """A port that answers everybody with these bytes, or with one of them ever so often."""
    ended = threading.Event()

    def serve():
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                with connection, contextlib.suppress(OSError):
                    connection.recv(65536)
                    if answer is None:
                        reset_on_close(connection)
                    elif dripping:
                        for byte in answer:
                            connection.sendall(bytes([byte]))
                            if ended.wait(0.1):
                                break
                    else:
                        connection.sendall(answer)
                        connection.shutdown(socket.SHUT_WR)
                        while connection.recv(65536):
                            pass

    with socket.create_server(("127.0.0.1", 0)) as listener, stage.in_background(serve):
        try:
            yield listener.getsockname()[1]
        finally:
            ended.set()
            listener.shutdown(socket.SHUT_RDWR)


def soap(body, head=""):
    return f"HTTP/1.0 200 OK\r\n{head}\r\n{body}".encode()


def response(inner):
    return soap(envelope(f"<reserveDeviceResponse><out>{inner}</out></reserveDeviceResponse>"))


ENTITIES = '<!DOCTYPE a [<!ENTITY a "' + "x" * 1000 + '">' + "".join(
    f'<!ENTITY {chr(98 + number)} "{f"&{chr(97 + number)};" * 20}">' for number in range(9)) + "]>"
NO_BOXES = {
    "closed": (b"", zel.Unreachable, "not answered"),
    "reset": (None, zel.Unreachable, "not answered"),
    "no HTTP": (b"SSH-2.0-x\x1b[2J\r\n", zel.NotUnderstood, "is it one"),
    "endless line": (b"HTTP/1.0 200 OK\r\nX: " + b"x" * 100000, zel.NotUnderstood, "is it one"),
    "endless head": (b"HTTP/1.0 200 OK\r\n" + b"X: x\r\n" * 1000, zel.NotUnderstood, "is it one"),
    "other page": (b"HTTP/1.0 404 Not found\r\n\r\n", zel.NotUnderstood, "status 404"),
    "cut": (soap("<a/>", "Content-Length: 99\r\n"), zel.NotUnderstood, "is it one"),
    "bad chunk": (soap("zz\r\n", "Transfer-Encoding: chunked\r\n"), zel.NotUnderstood, "is it one"),
    "too long": (soap("<a>" + " " * (8 << 20)), zel.NotUnderstood, "more than 8388608 bytes"),
    "no XML": (soap("hello"), zel.NotUnderstood, "no XML"),
    "page": (soap("<html/>"), zel.NotUnderstood, "no SOAP envelope"),
    "empty": (soap(f'<e:Envelope xmlns:e="{ENVELOPE}"><e:Body/></e:Envelope>'), zel.NotUnderstood, "no SOAP"),
    "entities": (soap(ENTITIES + envelope("<a>&j;&j;</a>")), zel.NotUnderstood, "document type, 'a'"),
    "UTF-16": (b"HTTP/1.0 200 OK\r\n\r\n" + ENTITIES.encode("utf-16"), zel.NotUnderstood, "document type, 'a'"),
    "deep": (soap("<a>" * 200000), zel.NotUnderstood, "100 elements within each other"),
    "wide": (soap("<a>" + "<a/>" * 200000), zel.NotUnderstood, "more than 10000 elements"),
    "attributes": (soap("<a " + "".join(f'a{n}="" ' for n in range(20000)) + "/>"), zel.NotUnderstood, "10000 elem"),
    "long names": (soap(f'<a xmlns="{"u" * (1 << 20)}">' + "".join(f"<a{n}/>" for n in range(5000)) + "</a>"),
                   zel.NotUnderstood, "more than 200 characters"),
    "endless chunk": (soap("-1\r\n" + " " * (17 << 20), "Transfer-Encoding: chunked\r\n"), zel.NotUnderstood,
                      "more than 16777216 bytes"),
    "fault": (soap(envelope("<Fault><faultstring>" + "\u202e\n" * 9999 + "</faultstring></Fault>")),
              zel.Fault, "a fault"),
    "no code": (response(""), zel.NotUnderstood, "without an error code"),
    "strange code": (response("<error>4711</error>"), zel.Refused, "code 4711: a code that is not known"),
    "no handle": (response("<error>0</error><handle/>"), zel.NotUnderstood, "no handle"),
    "no information": (response("<error>0</error>").replace(b"out>", b"in>"), zel.NotUnderstood, "what it is"),
}


@pytest.mark.parametrize("name", NO_BOXES)
def test_what_is_no_box(name):
    answer, error, words = NO_BOXES[name]
    with answering(answer) as port:
        refused(error, words, lambda: zel.Box("127.0.0.1", port).reserve("me"))


def test_an_answer_has_a_deadline():
    for answer in (soap(" " * 1000), b"HTTP/1.0 200 OK\r\nX: " + b"x" * 1000):
        begin = time.monotonic()
        with answering(answer, dripping=True) as port:
            refused(zel.Unreachable, "within 0.5 s", lambda: zel.Box("127.0.0.1", port, timeout=0.5).info())
            assert time.monotonic() < begin + 10
    # Of an address that nobody has, and of a name.
    refused(zel.Unreachable, "192.168.68.99:5302", lambda: zel.Box("192.168.68.99", timeout=0.5).info())
    refused(zel.Unreachable, "no host's name", lambda: zel.Box("a..b").info())


def test_many_at_once_lose_nothing():
    """Although hardly anybody may wait, as at a box."""
    answers = []

    def answer(connection):
        with connection:
            data = b""
            while not data.endswith(b"the end"):
                data = receive(connection, data)
            connection.sendall(soap("an answer"))

    def serve():
        with contextlib.suppress(OSError), contextlib.ExitStack() as answering:
            while True:
                connection, _ = listener.accept()
                answering.enter_context(stage.in_background(lambda taken=connection: answer(taken)))
                time.sleep(0.03)

    with socket.create_server(("127.0.0.1", 0), backlog=1) as listener, stage.in_background(serve):
        port = listener.getsockname()[1]
        with contextlib.ExitStack() as clients:
            for _ in range(9):
                clients.enter_context(stage.in_background(
                    lambda: answers.append(send("127.0.0.1", port, "the end", timeout=60))))
        listener.shutdown(socket.SHUT_RDWR)
    assert answers == [b"an answer"] * 9


def test_version_of_the_package():
    listed = re.search(r"^## \[(.*?)\]", pathlib.Path("CHANGELOG.md").read_text(), re.M)[1]
    project = tomllib.loads(pathlib.Path("python/pyproject.toml").read_text())["project"]
    assert project["version"] == ".".join(str(int(part)) for part in listed.split("."))

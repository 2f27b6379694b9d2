"""The box as a client finds it: what it answers to SLP, also as another decoder reads it."""

import contextlib
import json
import os
import socket
import subprocess
import sys
import time
from xml.sax.saxutils import escape

import pytest

import box
import workshop
from workshop import ask, attribute_request, attributes, service_request, type_request

TYPES = b"service:zel.connector,service:hux-vci,"


def connector_list(counter, state="4", owner="", uuid="00000000-0000-0000-0000-000000000000"):
    return (
        "(DevId=TAVO0012345),(Service=zel-connector),(Serial=TAVO0012345),"
        "(MacAddress=02:00:00:12:34:56),(DevType=TAVO),(ImageVersionBoot=10203),"
        "(ImageVersionApplication=10202),(ImageVersionPackage=10600),(Color=#ede3d3),"
        f"(Counter={counter}),(State={state}),(Owner={owner}),(Kl15Voltage=12040),"
        "(Kl30Voltage=12310),(Kl15Trigger=false),(SignalStrength=0),(VIN=TESTVIN0123456789),"
        "(Gateway=0x10),(Diag=[0x12,0x18]),(AccuCapacity=0),(VciChannels=[KLine,DCAN,MOST]),"
        f"(Netmask=-65536),(NetGateway=-1062714367),(NetworkType=0),(UUID={uuid})")


LEGACY_LIST = (
    "(DevClass=HUX-VCI)(FirmwareRev=102)(MacAddress=02:00:00:12:34:56)"
    "(VciChannel1=TELMANO:TAVO0012345:6801)(VciChannel2=TELMANO:TAVO0012345:6802)"
    "(RkoUrl=//TAVO0012345:5302/rKO)(description=TAVO, Velka, QK20417B)(IsAllocated=0)"
    "(IpAddress=192.168.68.42)(AssignedColor=white)(VciChannels=2)(DevType=TAVO)")


@pytest.fixture(name="served")
def open_box():
    with workshop.agent("opla.mode=OPLA-Next\ntavo.color=white\ntavo.hostname=TAVO\n") as agent:
        yield agent.wait_until_serving()


def test_answers(served):
    first = -2147483648
    lists = [attributes(ask(attribute_request(scope=scope, url=url), address))
             for scope, url, address in (("default", "service:zel.connector", box.BOX),
                                         ("DEFAULT", "Service:ZEL.connector", workshop.MULTICAST),
                                         ("default", "", "239.255.1.1"))]
    assert lists == [connector_list(first + i) for i in range(3)]
    assert attributes(ask(attribute_request(url="service:HUX-vci"))) == LEGACY_LIST

    code, handle = box.reserve(owner="a tester")
    assert code == "0"
    assert attributes(ask(attribute_request())) == connector_list(
        first + 3, state="5", owner="a tester", uuid="00000000-0000-0001-0000-000000000001")
    assert "(IsAllocated=1)" in attributes(ask(attribute_request(url="service:hux-vci")))
    assert box.release(handle) == "0"


def test_an_owner_chooses_no_attributes(served):
    owner = "x),(State=4 \n\\ \u00f6" + "~" * 100
    told = owner[:64]
    _, handle = box.reserve(owner=escape(owner))
    listed = attributes(ask(attribute_request()))
    assert listed.count("(State=") == 1 and "(State=5),(Owner=x\\29\\2c\\28State\\3d4 \\0a\\5c \u00f6\\7e" in listed
    in_client = lambda *command: subprocess.run(["nsenter", "--net=/run/netns/client", *command],
                                                capture_output=True, text=True, check=True).stdout
    if not box.EMULATED:  # the client is this machine's
        found, = json.loads(in_client(os.path.join(os.path.dirname(box.AGENT), "zelctl"), "find", "--json"))
        assert (found["owner"], found["state"]) == (told, "reserved")
    shown = in_client(sys.executable, "workshop/client.py", "find")
    assert f" {told}\n".replace("\n\\", "?\\") in shown and "State                    5\n" in shown
    assert box.release(handle) == "0"


def test_one_address_gets_so_many_answers(served):
    answers, began = 0, time.monotonic()
    with workshop.slp_socket() as client:
        client.settimeout(0.001)
        while "Too many SLP requests: 1 not answered, the last one of 192.168.68.1\n" not in workshop.log():
            assert time.monotonic() < began + 60
            for _ in range(100):
                client.sendto(type_request(), (box.BOX, 427))
                with contextlib.suppress(socket.timeout):
                    answers += len(client.recv(4096)) > 0
        with box.namespace("manager"), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.settimeout(30)
            other.sendto(type_request(), (box.BOX, 427))
            assert other.recv(4096), "another address is not held back"
        with contextlib.suppress(socket.timeout):
            while client.recv(4096):
                answers += 1
        assert answers <= 1000 + 500 * (time.monotonic() - began)


def test_another_decoder_reads_every_answer(served):
    with workshop.capture("/tmp/slp.pcap", packets=8):
        for request in (attribute_request(), attribute_request(url="service:hux-vci"),
                        service_request(), type_request()):
            assert ask(request)
    packets = workshop.decode(
        "/tmp/slp.pcap", "ip.src", "srvloc.function", "srvloc.errv2", "srvloc.langtag",
        "srvloc.pktlen", "udp.length", "srvloc.attrrply.attrlist", "srvloc.url.url",
        "srvloc.url.lifetime", "srvloc.srvtyperply.srvtypelist", "_ws.malformed", "_ws.expert")
    answers = [packet for packet in packets if packet[0] == box.BOX]
    assert [answer[1] for answer in answers] == ["7", "7", "2", "10"]
    for answer in answers:
        assert answer[2:4] == ["0", "en"] and int(answer[4]) == int(answer[5]) - 8
        assert answer[10:] == ["", ""], "nothing malformed"
    assert answers[0][6].startswith("(DevId=TAVO0012345),(Service=zel-connector)")
    assert answers[1][6] == LEGACY_LIST
    assert answers[2][7:9] == [TYPES.decode(), "65530"]
    assert answers[3][9] == TYPES.decode()

"""The box as a client finds it: what it answers to SLP, also as other decoders read it."""

import contextlib
import json
import socket
import subprocess
import sys
import time

import pytest

import stage
from stage import BOX, ask, output_of
from zel import slp

TYPES = "service:zel.connector,service:hux-vci,"
FREE = ("(DevId=TAVO0012345),(Service=zel-connector),(Serial=TAVO0012345),(MacAddress=02:00:00:12:34:56),"
        "(DevType=TAVO),(ImageVersionBoot=10203),(ImageVersionApplication=10202),(ImageVersionPackage=10600),"
        "(Color=#ede3d3),(Counter=-2147483648),(State=4),(Owner=),(Kl15Voltage=12040),(Kl30Voltage=12310),"
        "(Kl15Trigger=false),(SignalStrength=0),(VIN=TESTVIN0123456789),(Gateway=0x10),(Diag=[0x12,0x18]),"
        "(AccuCapacity=0),(VciChannels=[KLine,DCAN,MOST]),(Netmask=-65536),(NetGateway=-1062714367),(NetworkType=0),"
        "(UUID=00000000-0000-0000-0000-000000000000)")
LEGACY = ("(DevClass=HUX-VCI)(FirmwareRev=102)(MacAddress=02:00:00:12:34:56)(VciChannel1=TELMANO:TAVO0012345:6801)"
          "(VciChannel2=TELMANO:TAVO0012345:6802)(RkoUrl=//TAVO0012345:5302/rKO)(description=TAVO, Velka, QK20417B)"
          "(IsAllocated=0)(IpAddress=192.168.68.42)(AssignedColor=white)(VciChannels=2)(DevType=TAVO)")


@pytest.fixture(name="served")
def open_box():
    with stage.serving("opla.mode=OPLA-Next\ntavo.color=white\ntavo.hostname=TAVO\n") as agent:
        yield agent


def test_another_decoder_reads_every_answer(served):
    recorder = subprocess.Popen(["dumpcap", "-q", "-i", "eth0", "-w", "/tmp/slp.pcap", "-c", "8", "-f", "udp port 427"],
                                stderr=subprocess.PIPE, text=True)
    assert any(line.startswith("File:") for line in recorder.stderr)
    for data, address in ((slp.attribute_request("Service:ZEL.connector", "DEFAULT"), slp.GROUP),
                          (slp.attribute_request("service:HUX-vci"), BOX), (slp.service_request(), BOX),
                          (slp.type_request(), "239.255.1.1")):
        assert ask(data, address)
    recorder.communicate(timeout=30)
    fields = ("ip.src", "srvloc.function", "srvloc.errv2", "srvloc.langtag", "_ws.malformed", "_ws.expert",
              "srvloc.pktlen", "udp.length", "srvloc.attrrply.attrlist", "srvloc.url.url", "srvloc.url.lifetime",
              "srvloc.srvtyperply.srvtypelist")
    packets = [line.split("|") for line in output_of(
        "tshark", "-r", "/tmp/slp.pcap", "-Y", f"srvloc and ip.src == {BOX}", "-T", "fields", "-E", "separator=|",
        *(part for field in fields for part in ("-e", field))).splitlines()]
    assert [packet[:6] for packet in packets] == [[BOX, kind, "0", "en", "", ""] for kind in ("7", "7", "2", "10")]
    assert all(int(packet[6]) == int(packet[7]) - 8 for packet in packets)
    assert [packet[8:] for packet in packets] == [
        [FREE, "", "", ""], [LEGACY, "", "", ""], ["", TYPES, "65530", ""], ["", "", "", TYPES]]


def test_an_owner_chooses_no_attributes(served):
    owner = "x),(State=4 \n\\ \u00f6" + "~" * 100
    told = owner[:64]
    _, handle = stage.reserve(owner)
    listed = slp.read_attributes(ask(slp.attribute_request()))
    assert listed.count("(State=") == 1 and "(State=5),(Owner=x\\29\\2c\\28State\\3d4 \\0a\\5c \u00f6\\7e" in listed
    assert listed.endswith("(UUID=00000000-0000-0001-0000-000000000001)")
    assert "(IsAllocated=1)" in slp.read_attributes(ask(slp.attribute_request("service:hux-vci")))
    if not stage.EMULATED:  # the client is this machine's
        found, = json.loads(output_of(stage.ZELCTL, "find", "--json", network="client"))
        assert (found["owner"], found["state"]) == (told, "reserved")
    shown = output_of(sys.executable, "workshop/client.py", "find", network="client")
    assert f" {told}\n".replace("\n\\", "?\\") in shown and "State                    5\n" in shown
    assert stage.release(handle) == "0"


def test_one_address_gets_so_many_answers(served):
    answers, began = 0, time.monotonic()
    with stage.namespace("client"):
        client = slp.open_client(stage.CLIENT)
    with client, stage.namespace("manager"), slp.open_client(stage.MANAGER) as other:
        client.settimeout(0.001)
        while "Too many SLP requests: 1 not answered, the last one of 192.168.68.1\n" not in stage.log():
            assert time.monotonic() < began + 60
            for _ in range(100):
                client.sendto(slp.type_request(), (BOX, slp.PORT))
                with contextlib.suppress(socket.timeout):
                    answers += len(client.recv(4096)) > 0
        other.settimeout(30)
        other.sendto(slp.type_request(), (BOX, slp.PORT))
        assert other.recv(4096), "another address is not held back"
        with contextlib.suppress(socket.timeout):
            while client.recv(4096):
                answers += 1
        assert answers <= 1000 + 500 * (time.monotonic() - began)

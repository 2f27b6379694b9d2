"""The box as a client finds it: what it answers to SLP, also as another decoder reads it."""

import pytest

import box
import workshop
from workshop import ask, attribute_request, attributes, message, service_request, text, type_request

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

    entry = b"\0\0\0\1\0\xff\xfa" + text(TYPES) + b"\0\0"
    for service_type in ("", "service:zel.connector", "xservice:hux-vci:more"):
        assert ask(service_request(service_type, xid=9)) == message(2, entry, xid=9)
    assert ask(type_request(xid=11)) == message(10, b"\0\0" + text(TYPES) + b"\0", xid=11)


def test_what_is_not_answered(served):
    """Each is followed by a question of another number, which is the only one answered."""
    ignored = [
        attribute_request(scope="other"), attribute_request(scope=""),
        attribute_request(scope="default,other"), attribute_request(url="service:printer"),
        service_request("service:ZEL.connector"), service_request("service:printer"),
        attribute_request(length=60), message(3, text("x")), message(8), message(11), message(200),
        message(2, b"\0\0\xff\xff"), message(7, b"\0\0" + text("(a=b)")), b"", b"\2", bytes(4096),
        bytes([2, 6, 0, 16, 0]) + b"\xff" * 4091,
    ]
    for number, data in enumerate(ignored, 100):
        with workshop.slp_socket() as client:
            client.settimeout(10)
            client.sendto(data, (box.BOX, 427))
            client.sendto(type_request(xid=number), (box.BOX, 427))
            answer = client.recv(65536)
        assert answer[1] == 10 and answer[10:12] == number.to_bytes(2, "big"), data
    log = workshop.log()
    size = len(attribute_request())
    assert f"incomplete packet (60 != {size})\n" in log
    assert "Unsupported SLP request type 3\n" in log and "Unsupported SLP request type 8\n" in log


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


def test_the_gate_opens_when_no_manager_is_found():
    with workshop.agent("tavo.hostname=TAVO\nopla.mode=OPLA\n") as agent:
        workshop.wait_for_log("discover manager using unicast to \n")
        assert ask(service_request(), patience=1) is None
        workshop.wait_for_log("go to receive")
        answer = box.wait_until(lambda: ask(service_request(), patience=1), "it answers")
        assert answer[1] == 2
        assert workshop.log().count("discover manager using unicast to \n") == 3
        assert workshop.log().count("discover manager using multicast\n") == 1
        assert {"ZelSlpService", "OrsSignInServic"} <= set(agent.threads().values())

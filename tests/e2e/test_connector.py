"""The connector service: every answer byte for byte, and what it does to the box."""

import pathlib
from xml.sax.saxutils import escape

import pytest

import stage
from answers import fault, wrapped
from stage import CLIENT, DEVICE_ID, call, exchange, port_rules, release, request, reserve, rules
from raw_http import post, value
from zel.soap import CONNECTOR, NAMESPACES, envelope, operation

pytestmark = pytest.mark.usefixtures("agent")

DECLARED = ('xmlns="http://lusora.tembra.com/services/zel/Connector/v1/beans" '
            'xmlns:ns2="http://lusora.tembra.com/services/zel/Connector/v1" '
            'xmlns:ns3="http://lusora.tembra.com/services/zel/Manager/v1/beans" '
            'xmlns:ns4="http://lusora.tembra.com/services/zel/beans"')


def code_answer(name, code, further="", line_feed="\n"):
    return wrapped(f"\t\t<ns2:{name}Response {DECLARED}>{line_feed}\t\t<ns2:out>\n"
                   f"\t\t\t<error>{code}</error>\n{further}\t\t</ns2:out>\n\t\t</ns2:{name}Response>\n")


def reserve_answer(code, handle):
    return code_answer("reserveDevice", code, f"\t\t\t<handle>{handle}</handle>\n")


def release_answer(code):
    return code_answer("releaseDevice", code, line_feed="")


def command_answer(code, key, text):
    return wrapped(
        f"\t\t<ns2:executeGenericCommandResponse {DECLARED}>\n\t\t<ns2:out>\n"
        f"\t\t\t<error>{code}</error><commandResultList><ns4:key>{key}</ns4:key><ns4:value>{text}</ns4:value>"
        "</commandResultList>\n\t\t</ns2:out>\n\t\t</ns2:executeGenericCommandResponse>")


def device_information(reserved=False, owner="", kl15_edge="false", kl30="12310"):
    def lines(depth, **values):
        return "".join("\t" * depth + f"<{name}>{text}</{name}>\n" for name, text in values.items())

    def channel(name, port, kind):
        inner = lines(6, **{"ns3:active": str(reserved).lower(), "ns3:ip": -1062714326, "ns3:name": name,
                            "ns3:port": port, "ns3:type": kind})
        return f"\t\t\t\t\t<ns3:Channel>\n{inner}\t\t\t\t\t</ns3:Channel>\n"

    network = lines(5, gateway=-1062714367, ip4Address=-1062714326, lanDiscoverMode=3, macAddress=2, netmask=-65536,
                    type=0, wlanSignal=0)
    return wrapped(
        f"\t\t<ns2:getDeviceInformationResponse {DECLARED}>\n\t\t\t<ns2:out>\n" + lines(4, accu=0)
        + "\t\t\t\t<channels>\n" + channel("KLine", 6801, 0) + channel("DCAN", 6801, 1) + channel("MOST", 6802, 2)
        + '\t\t\t\t</channels>\n\t\t\t\t<color xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:nil="true"/>\n'
        f"\t\t\t\t<currentNetworkConfig>\n{network}\t\t\t\t</currentNetworkConfig>\n"
        + lines(4, deviceDescriptionOrNull="TAVO, Velka, QK20417B", error=0, firmware=10203, hardwareVersion=164306,
                id=DEVICE_ID, kl15=12040, kl15Edge=kl15_edge, kl30=kl30, name="TAVO", serial="0012345",
                sessionOwnerOrNull=owner, state=5 if reserved else 4, type=2, vin="TESTVIN0123456789")
        + "\t\t\t</ns2:out>\n\t\t</ns2:getDeviceInformationResponse>\n")


def test_device_information_follows_the_box():
    assert call("getDeviceInformation") == device_information()
    owner = '</owner><x a="1">&amp;$(reboot)`;'
    pathlib.Path("/dev/measure/0").write_text("1\n")
    with stage.replaced("/proc/sys/kl30", "11800\n"):
        code, handle = reserve(owner)
        assert code == "0"
        assert call("getDeviceInformation") == device_information(
            reserved=True, owner=escape(owner, {'"': "&quot;"}), kl15_edge="true", kl30="11800")
    assert call("resetTrigger15Edge") == code_answer("resetTrigger15Edge", 0)
    assert release(handle) == "0" and call("getDeviceInformation") == device_information()


def test_reservation_opens_and_closes_the_ports():
    assert rules() == []
    assert call("releaseDevice", handle="1", deviceId=DEVICE_ID) == release_answer(9)
    assert call("reserveDevice", deviceId="TAVO1", owner="o", hostLock="") == reserve_answer(20, "")
    with stage.replaced("/proc/sys/atmel/acttemp", "Temp:95,Status:12\n"):
        assert reserve() == ("21", "") and value(call("getDeviceInformation"), "state") == "4"
    body = call("reserveDevice", deviceId=DEVICE_ID, owner="o", hostLock=CLIENT)
    handle = value(body, "handle")
    assert int(handle) and body == reserve_answer(0, handle) and rules() == port_rules(CLIENT)
    assert call("reserveDevice", deviceId=DEVICE_ID, owner="o", hostLock="") == reserve_answer(10, "")

    assert call("setHostLock", handle="1", hostLock="0") == code_answer("setHostLock", 7)
    assert call("switchMode", deviceId=DEVICE_ID, mode=3, handle="1") == code_answer("switchMode", 7)
    assert rules() == port_rules(CLIENT)
    assert call("setHostLock", handle=handle, hostLock="0") == code_answer("setHostLock", 0)
    assert rules() == port_rules()

    for wrong in ("1", handle[:-1], handle + "0", "", "<x/>"):
        assert call("releaseDevice", handle=wrong, deviceId=DEVICE_ID) == release_answer(7)
    assert call("releaseDevice", handle=handle, deviceId="TAVO1") == release_answer(20)
    assert call("releaseDevice", handle=handle, deviceId=DEVICE_ID) == release_answer(0)
    assert call("setHostLock", handle="", hostLock="0") == code_answer("setHostLock", 9)
    assert rules() == []


def command(handle, subsystem, name, *parameters):
    inner = "".join(f"<pParameters><key>{key}</key><value>{text}</value></pParameters>" for key, text in parameters)
    return request(f"<executeGenericCommand><handle>{handle}</handle><pSubSystem>{subsystem}</pSubSystem>"
                   f"<pCommand>{name}</pCommand>{inner}</executeGenericCommand>")


def test_generic_commands():
    assert command("1", "diag", "echo") == command_answer(9, "error", "-1")
    _, handle = reserve()
    assert command("1", "diag", "echo") == command_answer(7, "error", "-1")
    assert command(handle, "diag", "echo", ("b", "&lt;2&gt;"), ("a", "x y"), ("b", "3")) == (
        command_answer(0, "result", "a=x y\nb=3\n"))
    assert command(handle, "vehicle", "voltage") == command_answer(0, "result", "kl15=12040 kl30=12310")
    assert command(handle, "diag", "fail") == command_answer(0, "error", "the vehicle does not answer\n")
    assert "<ns4:key>error</ns4:key>" in command(handle, "diag", "../diag/echo")
    # The schemas leave all of it to the handler, which knows shortened names.
    for first, second in (
            ("<pParameters><value>2</value><key>b</key></pParameters>",
             "<pParameters xmlns:t='urn:t' t:array='' id='x'><key>a</key><value>1</value></pParameters>"),
            ("<p><k>b</k><v>2</v><key>c</key></p>", "<Param xmlns='urn:x'><x/><val>1</val>x<ke>a</ke></Param>"),
            ("<pParam><ey>b</ey><alue>2</alue></pParam><Param1><key>c</key></Param1>",
             "<parameters><key>d</key></parameters><ram><key>a</key><value><b>1</b></value></ram>")):
        for declared in ("", f' xmlns="{NAMESPACES[CONNECTOR]}"'):
            assert request(f"<executeGenericCommand{declared}>{first}<pCommand>echo</pCommand><other><p>{second}</p>"
                           f"</other><handle>{handle}</handle>{second}<pSubSystem><![CDATA[di]]>ag</pSubSystem>"
                           "</executeGenericCommand>") == command_answer(0, "result", "a=1\nb=2\n"), first
    assert release(handle) == "0"


def test_faults():
    uri = f"{{{NAMESPACES[CONNECTOR]}}}"
    for body, message in (
            ("", "Can't create xml document from request"),
            (envelope(""), f"Method is empty for {uri}"),
            (envelope("<reservedevice/>"), f"Cannot find dispatch method for {uri}reservedevice")):
        text = fault(message)
        assert exchange(post(body)).decode() == (
            'HTTP/1.0 200 OK\r\nContent-Type: text/xml;charset="utf-8"\r\n'
            f"Content-Length: {len(text)}\r\ncontent-length: {len(text)}\r\nConnection: Close\r\n\r\n" + text)
    for refused, named in ((operation("reserveDevice", deviceId="d", owner="o", colour="c"), "colour"),
                           ("<dance><step/></dance>", "dance"), ("<a><b/></a>", "colour")):  # texts are kept
        text = request(refused)
        assert text.startswith(fault("Validation 1 says:\n").split("</faultstring>")[0])
        assert "\nValidation 2 says:\n" in text and named in text

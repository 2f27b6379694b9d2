"""The connector service: every answer byte for byte, and what it does to the box."""

import pathlib
import threading

import pytest

import box
from box import call, envelope, exchange, fault, fields, post, release, reserve, value

pytestmark = pytest.mark.usefixtures("agent")

NAMESPACES = (
    'xmlns="http://lusora.tembra.com/services/zel/Connector/v1/beans" '
    'xmlns:ns2="http://lusora.tembra.com/services/zel/Connector/v1" '
    'xmlns:ns3="http://lusora.tembra.com/services/zel/Manager/v1/beans" '
    'xmlns:ns4="http://lusora.tembra.com/services/zel/beans"'
)


def wrapped(text):
    return (
        '<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/">\n'
        "\t<S:Body>\n" + text + "\t</S:Body>\n</S:Envelope>\n"
    )


def code_answer(operation, code, further="", line_feed="\n"):
    return wrapped(
        f"\t\t<ns2:{operation}Response {NAMESPACES}>{line_feed}\t\t<ns2:out>\n"
        f"\t\t\t<error>{code}</error>\n{further}"
        f"\t\t</ns2:out>\n\t\t</ns2:{operation}Response>\n"
    )


def reserve_answer(code, handle):
    return code_answer("reserveDevice", code, f"\t\t\t<handle>{handle}</handle>\n")


def release_answer(code):
    return code_answer("releaseDevice", code, line_feed="")


def command_answer(code, key, text):
    return wrapped(
        f"\t\t<ns2:executeGenericCommandResponse {NAMESPACES}>\n\t\t<ns2:out>\n"
        f"\t\t\t<error>{code}</error><commandResultList><ns4:key>{key}</ns4:key>"
        f"<ns4:value>{text}</ns4:value></commandResultList>\n"
        "\t\t</ns2:out>\n\t\t</ns2:executeGenericCommandResponse>"
    )


def device_information(reserved=False, owner="", kl15_edge="false", kl30="12310"):
    def channel(name, port, kind, active):
        return (
            "\t\t\t\t\t<ns3:Channel>\n"
            f"\t\t\t\t\t\t<ns3:active>{str(active).lower()}</ns3:active>\n"
            "\t\t\t\t\t\t<ns3:ip>-1062714326</ns3:ip>\n"
            f"\t\t\t\t\t\t<ns3:name>{name}</ns3:name>\n"
            f"\t\t\t\t\t\t<ns3:port>{port}</ns3:port>\n"
            f"\t\t\t\t\t\t<ns3:type>{kind}</ns3:type>\n"
            "\t\t\t\t\t</ns3:Channel>\n"
        )

    def line(depth, name, text):
        return "\t" * depth + f"<{name}>{text}</{name}>\n"

    return wrapped(
        f"\t\t<ns2:getDeviceInformationResponse {NAMESPACES}>\n\t\t\t<ns2:out>\n"
        + line(4, "accu", "0")
        + "\t\t\t\t<channels>\n"
        + channel("KLine", 6801, 0, reserved)
        + channel("DCAN", 6801, 1, reserved)
        + channel("MOST", 6802, 2, reserved)
        + "\t\t\t\t</channels>\n"
        '\t\t\t\t<color xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:nil="true"/>\n'
        "\t\t\t\t<currentNetworkConfig>\n"
        + line(5, "gateway", "-1062714367")
        + line(5, "ip4Address", "-1062714326")
        + line(5, "lanDiscoverMode", "3")
        + line(5, "macAddress", "2")
        + line(5, "netmask", "-65536")
        + line(5, "type", "0")
        + line(5, "wlanSignal", "0")
        + "\t\t\t\t</currentNetworkConfig>\n"
        + line(4, "deviceDescriptionOrNull", "TAVO, Velka, QK20417B")
        + line(4, "error", "0")
        + line(4, "firmware", "10203")
        + line(4, "hardwareVersion", "164306")
        + line(4, "id", "TAVO0012345")
        + line(4, "kl15", "12040")
        + line(4, "kl15Edge", kl15_edge)
        + line(4, "kl30", kl30)
        + line(4, "name", "TAVO")
        + line(4, "serial", "0012345")
        + line(4, "sessionOwnerOrNull", owner)
        + line(4, "state", "5" if reserved else "4")
        + line(4, "type", "2")
        + line(4, "vin", "TESTVIN0123456789")
        + "\t\t\t</ns2:out>\n\t\t</ns2:getDeviceInformationResponse>\n"
    )


def accept_rules(source):
    return [f"-A INPUT {source}-p tcp -m tcp --dport {port} -j ACCEPT"
            for port in (6801, 6802, 52410, 52411)]


def test_device_information_follows_the_box():
    assert call("getDeviceInformation") == device_information()
    pathlib.Path("/dev/measure/0").write_text("1\n")
    pathlib.Path("/proc/sys/kl30").write_text("11800\n")
    owner = "&lt;/owner&gt;&lt;x a=&quot;1&quot;&gt;&amp;amp;$(reboot)`;"
    code, handle = reserve(owner)
    assert code == "0"
    assert call("getDeviceInformation") == device_information(
        reserved=True, owner=owner, kl15_edge="true", kl30="11800")
    pathlib.Path("/proc/sys/kl30").write_text("12310\n")
    assert call("resetTrigger15Edge") == code_answer("resetTrigger15Edge", 0)
    assert release(handle) == "0"
    assert call("getDeviceInformation") == device_information()


def test_reservation_opens_and_closes_the_ports():
    assert box.rules() == []
    assert call("releaseDevice", handle="1", deviceId=box.DEVICE_ID) == release_answer(9)
    assert call("reserveDevice", deviceId="TAVO1", owner="o", hostLock="") == reserve_answer(20, "")
    body = call("reserveDevice", deviceId=box.DEVICE_ID, owner="o", hostLock=box.CLIENT)
    handle = value(body, "handle")
    assert int(handle) and body == reserve_answer(0, handle)
    assert box.rules() == accept_rules(f"-s {box.CLIENT}/32 ")
    assert call("reserveDevice", deviceId=box.DEVICE_ID, owner="o",
                hostLock="") == reserve_answer(10, "")

    assert call("setHostLock", handle="1", hostLock="0") == code_answer("setHostLock", 7)
    assert box.rules() == accept_rules(f"-s {box.CLIENT}/32 ")
    assert call("setHostLock", handle=handle, hostLock="0") == code_answer("setHostLock", 0)
    assert box.rules() == accept_rules("")

    for wrong in ("1", handle[:-1], handle + "0", "", "&lt;x/&gt;"):
        assert call("releaseDevice", handle=wrong, deviceId=box.DEVICE_ID) == release_answer(7)
    assert call("releaseDevice", handle=handle, deviceId="TAVO1") == release_answer(20)
    assert call("releaseDevice", handle=handle, deviceId=box.DEVICE_ID) == release_answer(0)
    assert box.rules() == []
    assert call("setHostLock", handle="", hostLock="0") == code_answer("setHostLock", 9)
    assert box.rules() == []


def test_an_overheated_box_is_not_reserved():
    temperature = pathlib.Path("/proc/sys/atmel/acttemp")
    before = temperature.read_text()
    temperature.write_text("Temp:95,Status:12\n")
    try:
        assert reserve() == ("21", "")
        assert value(call("getDeviceInformation"), "state") == "4"
    finally:
        temperature.write_text(before)


def command(handle, subsystem, name, *parameters):
    inner = "".join(f"<pParameters><key>{key}</key><value>{text}</value></pParameters>"
                    for key, text in parameters)
    operation = (f"<executeGenericCommand><handle>{handle}</handle>"
                 f"<pSubSystem>{subsystem}</pSubSystem><pCommand>{name}</pCommand>{inner}"
                 "</executeGenericCommand>")
    return exchange(post(envelope(operation))).split(b"\r\n\r\n", 1)[1].decode()


def test_generic_commands():
    assert command("1", "diag", "echo") == command_answer(9, "error", "-1")
    _, handle = reserve()
    assert command("1", "diag", "echo") == command_answer(7, "error", "-1")
    assert command(handle, "diag", "echo", ("b", "&lt;2&gt;"), ("a", "x y"), ("b", "3")) == (
        command_answer(0, "result", "a=x y\nb=3\n"))
    assert command(handle, "vehicle", "voltage") == (
        command_answer(0, "result", "kl15=12040 kl30=12310"))
    assert command(handle, "diag", "fail") == (
        command_answer(0, "error", "the vehicle does not answer\n"))
    for subsystem, name in (("..", "sh"), ("diag", "../diag/echo"), ("diag", "none"), ("", "")):
        assert "<ns4:key>error</ns4:key>" in command(handle, subsystem, name)
    # The schemas leave all of it to the handler, which knows shortened names.
    for first, second in (
            ("<pParameters><value>2</value><key>b</key></pParameters>",
             "<pParameters xmlns:t='urn:t' t:array='' id='x'><key>a</key><value>1</value></pParameters>"),
            ("<p><k>b</k><v>2</v><key>c</key></p>", "<Param xmlns='urn:x'><x/><val>1</val>x<ke>a</ke></Param>"),
            ("<pParam><ey>b</ey><alue>2</alue></pParam><Param1><key>c</key></Param1>",
             "<parameters><key>d</key></parameters><ram><key>a</key><value><b>1</b></value></ram>")):
        for tag in ("executeGenericCommand", f'executeGenericCommand xmlns="{box.SERVICE}"'):
            request = (f"<{tag}>{first}<pCommand>echo</pCommand><other><p>{second}</p></other>"
                       f"<handle>{handle}</handle>{second}<pSubSystem><![CDATA[di]]>ag</pSubSystem>"
                       "</executeGenericCommand>")
            answer = exchange(post(envelope(request))).decode()
            assert answer.endswith(command_answer(0, "result", "a=1\nb=2\n")), first
    assert release(handle) == "0"


def test_faults():
    uri = "{http://lusora.tembra.com/services/zel/Connector/v1}"
    cases = {
        "": "Can't create xml document from request",
        "no xml": "Can't create xml document from request",
        envelope(""): f"Method is empty for {uri}",
        envelope("<dance/>"): f"Cannot find dispatch method for {uri}dance",
        envelope("<reservedevice/>"): f"Cannot find dispatch method for {uri}reservedevice",
    }
    for request, message in cases.items():
        text = wrapped(fault(message))
        assert exchange(post(request)).decode() == (
            'HTTP/1.0 200 OK\r\nContent-Type: text/xml;charset="utf-8"\r\n'
            f"Content-Length: {len(text)}\r\ncontent-length: {len(text)}\r\n"
            "Connection: Close\r\n\r\n" + text)

    for operation, named in (
            (fields("reserveDevice", deviceId="d", owner="o", colour="c"), "colour"),
            (fields("switchMode", deviceId="d", mode="fast"), "mode"),
            ("<dance><step/></dance>", "dance")):
        answer = exchange(post(envelope(operation))).decode()
        text = answer.split("\r\n\r\n", 1)[1]
        assert text.startswith(wrapped(fault("Validation 1 says:\n")).split("</faultstring>")[0])
        assert "\nValidation 2 says:\n" in text and named in text
    assert "colour" in exchange(post(envelope("<a><b/></a>"))).decode(), "texts are kept"


def test_one_of_many_gets_the_box():
    results = []
    threads = [threading.Thread(target=lambda i=i: results.append(reserve(f"owner {i}")))
               for i in range(20)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(code for code, _ in results) == ["0"] + ["10"] * 19
    assert box.rules() == accept_rules("")
    assert release(next(handle for code, handle in results if code == "0")) == "0"

"""The services beside the connector: agent service, WDDX service, downloads. Answers byte for byte."""

import os
import pathlib
import re
import xml.etree.ElementTree as ElementTree

import pytest

import stage
from answers import PACKET, fault, wrapped
from stage import BOX, CLIENT, ask_agent, call, exchange, port_rules, release, reserve, rules
from raw_http import post, value
from zel.soap import AGENT, NAMESPACES

pytestmark = pytest.mark.usefixtures("agent")

UNKNOWN_STATE = "com.tembra.lusora.statemachine.UnknownStateException: "
ILLEGAL = "java.lang.IllegalArgumentException: "
ALLOCATION = ('<struct>\n<var name="Status"><struct><var name="code"><number>{}/number></var>'
              '<var name="msg"><umber>0</number></var><var name="params"><array length="1"><null /></array>'
              "</var></struct></var></struct>")
NOT_FOUND = (b'HTTP/1.0 404 Not found\r\nContent-Type: text/plain"\r\nContent-Length: 40\r\n'
             b"content-length: 40\r\nConnection: Close\r\n\r\n<html><body>FILE NOT FOUND</body></html>")


def response(operation, children=None):
    start = f'\t\t<ns2:{operation}Response xmlns:ns2="{NAMESPACES[AGENT]}"'
    return wrapped(f"{start}/>\n" if children is None else f"{start}>\n{children}\t\t</ns2:{operation}Response>\n")


def returned(operation, text):
    return response(operation, f"\t\t\t<return>{text}</return>\n")


def owner():
    return value(call("getDeviceInformation"), "sessionOwnerOrNull")


def test_the_agent_service_takes_the_box_away_and_gives_it_back():
    running, stopped = (returned("isServiceRunning", text) for text in ("true", "false"))
    assert ask_agent("isServiceRunning") == running
    assert ask_agent("startService") == response("startService"), "a running one is left alone"
    _, handle = reserve("a client")
    assert ask_agent("stopService") == fault(UNKNOWN_STATE + "Cant lock a reserved device!")
    assert ask_agent("isServiceRunning") == running and release(handle) == "0"
    assert ask_agent("stopService") == response("stopService")
    assert ask_agent("isServiceRunning") == stopped and owner() == "VCI-Agent"
    assert reserve()[0] == "10" and rules() == port_rules("127.0.0.1")
    assert ask_agent("stopService") == fault(UNKNOWN_STATE + "Can't lock a already locked device!")
    assert ask_agent("startService") == response("startService")
    assert ask_agent("isServiceRunning") == running and rules() == []
    for name, shown in (("", ""), ("vci-agent", "vci-agent"), ("VCI-Agent ", "VCI-Agent "), ("<x>", "&lt;x&gt;")):
        assert ask_agent("isServiceRunning", name) == fault(f"{ILLEGAL}WRONG service name!: {shown}")
        for operation in ("startService", "stopService"):
            assert ask_agent(operation, name) == fault(f"{ILLEGAL}No service {shown} found!")


def test_monitoring_self_test_and_restart():
    item = "".join(f"\t\t\t\t\t\t<{name}>{text}</{name}>\n" for name, text in (
        ("lastCheck", "TIME"), ("name", "Fan State"), ("status", "OK"), ("type", "HARDWARE"),
        ("infoLabel", "status:LID~EVERYTHING_IS_OK")))
    status = call("getMonitoringStatus", AGENT, groupId="TAVO")
    assert re.sub(r"<lastCheck>1\d{12}<", "<lastCheck>TIME<", status) == returned(
        "getMonitoringStatus", f"\n\t\t\t\t<items>\n\t\t\t\t\t<MonitoringStatusItem>\n{item}"
        "\t\t\t\t\t</MonitoringStatusItem>\n\t\t\t\t</items>\n\t\t\t")
    assert call("getMonitoringStatus", AGENT, groupId="tavo") == response("getMonitoringStatus")

    with stage.replaced("/app/zel/selftest.d/40-markup", "#!/bin/sh\necho 'a < b & c'\n"):
        result = ask_agent("doSelftest")
    texts = re.search(r"<return>(.*)</return>", result)[1]
    assert result == returned("doSelftest", texts)
    assert re.fullmatch(r"10-voltage: OK .*;40-markup: OK \(a &lt; b &amp; c\);", texts)
    assert "Read line: '40-markup: OK (a < b & c)'\n" in stage.log()

    stage.REBOOTS.unlink(missing_ok=True)
    assert ask_agent("restartDevice") == response("restartDevice")
    stage.wait_until(stage.REBOOTS.exists, "the reboot is asked for")
    stage.REBOOTS.unlink()


def wddx(**variables):
    inner = "".join(f"<var name='{name}'><string>{text}</string></var>" for name, text in variables.items())
    return PACKET.format(f"<struct>{inner}</struct>\n")


def form(*fields, end="\r\n"):
    """A form as a client writes it by hand."""
    parts = [f'--frontier{end}Content-Disposition: form-data; name="{name}"{end}{end}{text}{end}'
             for name, text in fields]
    return ("".join(parts) + f"--frontier--{end}").encode()


def rko(function, packet=PACKET.format(""), port=5302):
    """Head and body of the answer to a form."""
    head, body = exchange(post(form(("FunctionName", function), ("packet", packet)), "/rKo"), port).split(
        b"\r\n\r\n", 1)
    return head.decode(), body.decode()


def test_device_status_of_old_clients():
    _, handle = reserve("Tom & <Jerry>")
    head, body = rko("rkoGetDeviceStatus", port=80)
    assert release(handle) == "0" and 'Content-Type: text/xml;charset="utf-8"' in head
    struct = ElementTree.fromstring(body).find("data/struct")

    def plain(node):
        if node.tag == "struct":
            return [(var.get("name"), plain(var[0])) for var in node]
        if node.tag == "array":
            assert int(node.get("length")) == len(node)
            return [plain(item) for item in node]
        return {"null": lambda: None, "boolean": lambda: node.get("value") == "true",
                "number": lambda: int(node.text), "string": lambda: node.text or ""}[node.tag]()

    def channel(name, connection):
        return [("Channel", name), ("Connection", connection), ("ControlledBy", None)]

    def attribute(name, text, persistent=True):
        return [("AttributeName", name), ("AttributeValue", text), ("IsPersistent", persistent)]

    mac = "02:00:00:12:34:56"
    assert plain(struct) == [
        ("DeviceType", 40018), ("UpTime", 60),
        ("SelftestStatus", [("code", 42502), ("msg", 9061), ("params", None)]), ("Hostname", "TAVO"),
        ("MacAddress", mac), ("DhcpMode", 41203), ("IpAddress", BOX), ("Netmask", ""),
        ("DefaultGateway", CLIENT), ("FirmwareRev", 121), ("IsAllocated", "1"),
        ("DeviceOwner", "Tom & <Jerry>"),
        ("IfUsage", [channel("DIAGBUS", "controlled"), channel("CAN", "controlled"), channel("MOST", "open")]),
        ("SlpAttributes", [
            attribute("FirmwareRev", "121"), attribute("MacAddress", mac),
            attribute("VciChannel1", "TELMANO:TAVO:6801"), attribute("VciChannel2", "TELMANO:TAVO:6802"),
            attribute("RkoUrl", "//TAVO:5302/rKO"), attribute("DevType", "TAVO"), attribute("VciChannels", "2"),
            attribute("DevClass", "HUX-VCI"), attribute("description", "TAVO, Velka, QK20417B"),
            attribute("IsAllocated", "1"), attribute("IpAddress", BOX, False),
            attribute("AssignedColor", "white")]),
        ("Status", [("code", 0), ("msg", 0), ("params", None)])]


def test_allocation_and_release_of_old_clients():
    for address, host in (("ANY_HOST", ""), (CLIENT, CLIENT)):
        old = wddx(DeviceOwner="old", IfhClientIpAddr=address)
        head, body = rko("rkoAllocateDevice", old)
        assert "Content-Type: text/html\r\n" in head and body == PACKET.format(ALLOCATION.format("0"))
        assert rules() == port_rules(host)
        assert rko("rkoAllocateDevice", old)[1] == PACKET.format(ALLOCATION.format("42030"))
        for other in ("ol", "older", ""):
            assert rko("rkoReleaseDevice", wddx(DeviceOwner=other))[1] == EMPTY and owner() == "old"
        assert rko("rkoReleaseDevice", old)[1] == EMPTY and rules() == [] and owner() == ""


EMPTY = PACKET.format("")
FIELD, ANY = ("FunctionName", "rkoGetVersion"), ("packet", EMPTY)
ENTITIES = "<!DOCTYPE wddxPacket [<!ENTITY a 'b'>]><wddxPacket><data>&a;</data></wddxPacket>"
INVALID, NO_DATA, UNKNOWN, INTERNAL = ("Invalid Argument given", "no request data", "rKo wddx method not found",
                                       "Internal error")


@pytest.mark.parametrize("body, answer", [
    *((form(("FunctionName", "rko" + name), ANY), EMPTY) for name in (
        "GetVersion", "GetVehicleStatus", "SetIpConfiguration", "SetDeviceAttribute", "UpdateDeviceFirmware",
        "RunDeviceSelfTest", "InitiateCfgRequest")),
    (form(FIELD, ANY, end="\n"), EMPTY),
    (b"\r\n" + form(ANY, FIELD), EMPTY),
    (form(("x", "rkoGetVersion"), ("y", EMPTY)), EMPTY),
    (form(FIELD, ANY).removesuffix(b"\r\n--frontier--\r\n"), EMPTY),
    (form(FIELD, ("packet", EMPTY.replace("<data>", "<data>" + " " * 9000))), EMPTY),
    (form(("a", "x" * 4096), FIELD, ANY), INVALID),
    (form(("FunctionName", "r"), ANY), INVALID),
    (form(FIELD), NO_DATA),
    (form(FIELD, ("packet", "")), NO_DATA),
    (form(("FunctionName", "rkoGetversion"), ANY), UNKNOWN),
    (form(("FunctionName", "x" * 5000), ANY), UNKNOWN),
    (form(FIELD, ("packet", "<wddxPacket>")), INTERNAL),
    (form(FIELD, ("packet", ENTITIES)), INTERNAL),
    *((body, INVALID) for body in (
        EMPTY.encode(), b"", b"--", b"--\r\n", b"--x\r\n", b"--x\r\nContent-", b"--x\r\nContent-Type: a\r\n\r\n",
        b"--x\n" * 2000, b"\n" * 5000 + form(FIELD, ANY))),
])
def test_forms_of_old_clients(body, answer):
    assert exchange(post(body, "/rKo")).decode().split("\r\n\r\n", 1)[1] == answer


def get(target, body=b""):
    return exchange(post(body, target, method="GET"))


def test_the_function_in_the_url():
    for url, body, answer in (
            ("?FunctionName=rkoGetVersion", EMPTY, EMPTY), ("?FunctionName=rkoGetVersion", "", NO_DATA),
            ("?FunctionName=r", EMPTY, INVALID), ("?FunctionName=", EMPTY, INVALID),
            ("", EMPTY, INVALID), ("?Name=rkoGetVersion", EMPTY, INVALID)):
        assert get("/rKo" + url, body.encode()).decode().split("\r\n\r\n", 1)[1] == answer


def test_what_old_clients_do_is_logged():
    _, handle = reserve("Tom\nJerry")
    data = rko("rkoGetDeviceStatus")[1].partition("<data>\n")[2].removesuffix("</data>\n</wddxPacket>\n")
    assert "<string>Tom\nJerry</string>" in data
    shown = data.replace("Tom\n", "Tom\\n")  # no line of the log is the owner's
    for function, packet, answer, lines in (
            ("rkoGetDeviceStatus", EMPTY, PACKET.format(data),
             ["debug", "rKo::rkoGetDeviceStatus\n", f"\n\n{{{shown}}} {{LEN={len(data)}}}\n\n\n"]),
            ("rko\tget" + "x" * 300, EMPTY, UNKNOWN,
             ["debug", "rKo::rko\\tgetxxx", "x... (307 bytes)\n",
              "error", "rKo wddx method 'rko\\tgetx", "x... (307 bytes)' not found\n"]),
            ("rkoGetVersion", "<a", INTERNAL, ["error", "Can't create doc node\n"]),
            ("rkoReleaseDevice", "<wddxPacket/>", EMPTY, ["error", "rKo wddx method failed\n"])):
        assert rko(function, packet)[1] == answer
        rest = stage.log().rpartition("Passing request for '/rKo' to RkoServlet\n")[2]
        for line in lines:
            assert line in rest
            rest = rest.partition(line)[2]
    assert release(handle) == "0"


def download(path):
    return get(f"/web/show.jsp?file={path}")


def test_downloads():
    folder = pathlib.Path("/tmp/served")
    folder.mkdir()
    for name, data in (("plain", b"one\ntwo\n"), ("zero", b"up to\0here"), ("none", b"")):
        (folder / name).write_bytes(data)
        text = data.split(b"\0")[0]
        assert download(f"/tmp/served/{name}") == (
            b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n"
            + f"Content-Length: {len(text)}\r\ncontent-length: {len(text)}\r\nConnection: Close\r\n".encode()
            + f'content-disposition: inline; filename="/tmp/served/{name}"\r\n\r\n'.encode() + text)
    os.mkfifo(folder / "pipe")
    for path in ("/tmp/served", "/tmp/served/missing", "/tmp/served/pipe", "/etc/passwd", "tmp/served/plain", "",
                 "/tm", "/../tmp/served/plain", "/tmp/../dev/zero"):
        assert download(path) == NOT_FOUND, path
    assert exchange(b"GET /web/show.jsp HTTP/1.0\r\n\r\n") == NOT_FOUND
    assert download("/tmp/../etc/hostname").endswith(pathlib.Path("/etc/hostname").read_bytes())
    assert b"HTTP/1.0 404" in download("/tmp/../proc/kmsg") or b"Content-Length: 0" in download("/tmp/../proc/kmsg")
    assert "filename=/tmp/../etc/hostname" in stage.log()


def test_a_large_file_takes_no_memory(agent):
    large = pathlib.Path("/tmp/large")
    large.write_bytes(b"0123456789abcde\n" * (1 << 20))
    before = agent.status("VmHWM")
    assert download("/tmp/large").endswith(b"\r\n\r\n" + large.read_bytes())
    large.unlink()
    assert agent.status("VmHWM") < before + 4096

"""The services beside the connector: agent service, WDDX service, downloads. Answers byte for byte."""

import os
import pathlib
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

import box
import workshop
from box import exchange, fault, post, release, reserve, rules

pytestmark = pytest.mark.usefixtures("agent")

AGENT_SERVICE = "http://lusora.tembra.com/services/Agent"
UNKNOWN_STATE = "com.tembra.lusora.statemachine.UnknownStateException: "
ILLEGAL = "java.lang.IllegalArgumentException: "
PACKET = ("<?xml version='1.0'?>\n<!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'>\n<wddxPacket version='1.0'>\n"
          "<header><comment></comment></header>\n<data>\n{}</data>\n</wddxPacket>\n")
ALLOCATION = ('<struct>\n<var name="Status"><struct><var name="code"><number>{}/number></var>'
              '<var name="msg"><umber>0</number></var><var name="params"><array length="1"><null /></array>'
              "</var></struct></var></struct>")
NOT_FOUND = (b'HTTP/1.0 404 Not found\r\nContent-Type: text/plain"\r\nContent-Length: 40\r\n'
             b"content-length: 40\r\nConnection: Close\r\n\r\n<html><body>FILE NOT FOUND</body></html>")


def ask_agent(operation):
    """What the agent service answers in its Body."""
    head, body = exchange(post(box.envelope(operation), "/services/Agent")).decode().split("\r\n\r\n", 1)
    assert head.startswith("HTTP/1.0 200 OK\r\nContent-Type: text/xml;charset=\"utf-8\"\r\n")
    return re.fullmatch(rf'<S:Envelope xmlns:S="{box.SOAP}">\n\t<S:Body>\n(.*)\t</S:Body>\n</S:Envelope>\n', body,
                        re.S)[1]


def response(operation, children=None):
    start = f'\t\t<ns2:{operation}Response xmlns:ns2="{AGENT_SERVICE}"'
    return start + "/>\n" if children is None else f"{start}>\n{children}\t\t</ns2:{operation}Response>\n"


def named(operation, name="VCI-Agent"):
    return f"<{operation}><name>{name}</name></{operation}>"


def running(text):
    return response("isServiceRunning", f"\t\t\t<return>{text}</return>\n")


def test_the_agent_service_takes_the_box_away_and_gives_it_back():
    assert ask_agent(named("isServiceRunning")) == running("true")
    assert ask_agent(named("startService")) == response("startService"), "a running one is left alone"
    error, handle = reserve("a client")
    assert ask_agent(named("stopService")) == fault(UNKNOWN_STATE + "Cant lock a reserved device!")
    assert ask_agent(named("isServiceRunning")) == running("true")
    assert release(handle) == "0"

    assert ask_agent(named("stopService")) == response("stopService")
    assert ask_agent(named("isServiceRunning")) == running("false")
    assert box.value(box.call("getDeviceInformation"), "sessionOwnerOrNull") == "VCI-Agent"
    assert reserve()[0] == "10" and all("-s 127.0.0.1/32" in rule for rule in rules()) and len(rules()) == 4
    assert ask_agent(named("stopService")) == fault(UNKNOWN_STATE + "Can't lock a already locked device!")
    assert ask_agent(named("startService")) == response("startService")
    assert ask_agent(named("isServiceRunning")) == running("true") and rules() == []


@pytest.mark.parametrize("name", ("", "vci-agent", "VCI-Agent ", "&lt;x&gt;"))
def test_only_one_service_is_known(name):
    assert ask_agent(named("isServiceRunning", name)) == fault(f"{ILLEGAL}WRONG service name!: {name}")
    for operation in ("startService", "stopService"):
        assert ask_agent(named(operation, name)) == fault(f"{ILLEGAL}No service {name} found!")


def test_monitoring_self_test_and_restart():
    group = "<getMonitoringStatus><groupId>{}</groupId></getMonitoringStatus>"
    status = ask_agent(group.format("TAVO"))
    assert re.sub(r"<lastCheck>\d{13}<", "<lastCheck>TIME<", status) == response(
        "getMonitoringStatus",
        "\t\t\t<return>\n\t\t\t\t<items>\n\t\t\t\t\t<MonitoringStatusItem>\n"
        "\t\t\t\t\t\t<lastCheck>TIME</lastCheck>\n\t\t\t\t\t\t<name>Fan State</name>\n"
        "\t\t\t\t\t\t<status>OK</status>\n\t\t\t\t\t\t<type>HARDWARE</type>\n"
        "\t\t\t\t\t\t<infoLabel>status:LID~EVERYTHING_IS_OK</infoLabel>\n"
        "\t\t\t\t\t</MonitoringStatusItem>\n\t\t\t\t</items>\n\t\t\t</return>\n")
    assert ask_agent(group.format("tavo")) == response("getMonitoringStatus")

    with workshop.replaced("/app/zel/selftest.d/40-markup", "#!/bin/sh\necho 'a < b & c'\n"):
        result = ask_agent("<doSelftest/>")
    assert result.startswith(response("doSelftest", "\t\t\t<return>10-voltage: OK").partition("\t\t</ns2")[0])
    assert result.endswith(";40-markup: OK (a &lt; b &amp; c);</return>\n\t\t</ns2:doSelftestResponse>\n")
    assert "Read line: '40-markup: OK (a < b & c)'\n" in box.LOG.read_text()

    reboots = pathlib.Path("/tmp/reboot.log")
    reboots.unlink(missing_ok=True)
    assert ask_agent("<restartDevice/>") == response("restartDevice")
    box.wait_until(reboots.exists, "the reboot is asked for")
    reboots.unlink()


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
    error, handle = reserve("Tom &amp; &lt;Jerry>")
    head, body = rko("rkoGetDeviceStatus", port=80)
    assert release(handle) == "0"
    assert 'Content-Type: text/xml;charset="utf-8"' in head
    struct = ElementTree.fromstring(body).find("data/struct")

    def plain(node):
        match node.tag:
            case "struct":
                return [(var.get("name"), plain(var[0])) for var in node]
            case "array":
                assert int(node.get("length")) == len(node)
                return [plain(item) for item in node]
            case "null":
                return None
            case "boolean":
                return node.get("value") == "true"
            case "number":
                return int(node.text)
        assert node.tag == "string"
        return node.text or ""

    def channel(name, connection):
        return [("Channel", name), ("Connection", connection), ("ControlledBy", None)]

    def attribute(name, text, persistent=True):
        return [("AttributeName", name), ("AttributeValue", text), ("IsPersistent", persistent)]

    mac = "02:00:00:12:34:56"
    assert plain(struct) == [
        ("DeviceType", 40018), ("UpTime", 60),
        ("SelftestStatus", [("code", 42502), ("msg", 9061), ("params", None)]), ("Hostname", "TAVO"),
        ("MacAddress", mac), ("DhcpMode", 41203), ("IpAddress", box.BOX), ("Netmask", ""),
        ("DefaultGateway", box.CLIENT), ("FirmwareRev", 121), ("IsAllocated", "1"),
        ("DeviceOwner", "Tom & <Jerry>"),
        ("IfUsage", [channel("DIAGBUS", "controlled"), channel("CAN", "controlled"), channel("MOST", "open")]),
        ("SlpAttributes", [
            attribute("FirmwareRev", "121"), attribute("MacAddress", mac),
            attribute("VciChannel1", "TELMANO:TAVO:6801"), attribute("VciChannel2", "TELMANO:TAVO:6802"),
            attribute("RkoUrl", "//TAVO:5302/rKO"), attribute("DevType", "TAVO"), attribute("VciChannels", "2"),
            attribute("DevClass", "HUX-VCI"), attribute("description", "TAVO, Velka, QK20417B"),
            attribute("IsAllocated", "1"), attribute("IpAddress", box.BOX, False),
            attribute("AssignedColor", "white")]),
        ("Status", [("code", 0), ("msg", 0), ("params", None)])]


def test_allocation_and_release_of_old_clients():
    for address, source in (("ANY_HOST", ""), ("192.168.68.1", "-s 192.168.68.1/32 ")):
        owner = wddx(DeviceOwner="old", IfhClientIpAddr=address)
        head, body = rko("rkoAllocateDevice", owner)
        assert "Content-Type: text/html\r\n" in head and body == PACKET.format(ALLOCATION.format("0"))
        assert rules()[0] == f"-A INPUT {source}-p tcp -m tcp --dport 6801 -j ACCEPT"
        assert rko("rkoAllocateDevice", owner)[1] == PACKET.format(ALLOCATION.format("42030"))
        for other in ("ol", "older", ""):
            assert rko("rkoReleaseDevice", wddx(DeviceOwner=other))[1] == PACKET.format("")
            assert box.value(box.call("getDeviceInformation"), "sessionOwnerOrNull") == "old"
        assert rko("rkoReleaseDevice", owner)[1] == PACKET.format("")
        assert rules() == [] and box.value(box.call("getDeviceInformation"), "state") == "4"


def test_other_functions_answer_an_empty_packet():
    for function in ("GetVersion", "GetVehicleStatus", "SetIpConfiguration", "SetDeviceAttribute",
                     "UpdateDeviceFirmware", "RunDeviceSelfTest", "InitiateCfgRequest"):
        assert rko("rko" + function)[1] == PACKET.format("")


ENTITIES = "<!DOCTYPE wddxPacket [<!ENTITY a 'b'>]><wddxPacket><data>&a;</data></wddxPacket>"
FIELD = ("FunctionName", "rkoGetVersion")
EMPTY = PACKET.format("")
INVALID, NO_DATA, UNKNOWN, INTERNAL = ("Invalid Argument given", "no request data", "rKo wddx method not found",
                                       "Internal error")


@pytest.mark.parametrize("body, answer", [
    (form(FIELD, ("packet", EMPTY), end="\n"), EMPTY),
    (b"\r\n" + form(("packet", EMPTY), FIELD), EMPTY),
    (form(("x", "rkoGetVersion"), ("y", EMPTY)), EMPTY),
    (form(FIELD, ("packet", EMPTY)).removesuffix(b"\r\n--frontier--\r\n"), EMPTY),
    (form(FIELD, ("packet", EMPTY.replace("<data>", "<data>" + " " * 9000))), EMPTY),
    (form(("a", "x" * 4096), FIELD, ("packet", EMPTY)), INVALID),
    (form(("FunctionName", "r"), ("packet", EMPTY)), INVALID),
    (form(FIELD), NO_DATA),
    (form(FIELD, ("packet", "")), NO_DATA),
    (form(("FunctionName", "rkoGetversion"), ("packet", EMPTY)), UNKNOWN),
    (form(("FunctionName", "x" * 5000), ("packet", EMPTY)), UNKNOWN),
    (form(FIELD, ("packet", "<wddxPacket>")), INTERNAL),
    (form(FIELD, ("packet", ENTITIES)), INTERNAL),
    (EMPTY.encode(), INVALID), (b"", INVALID), (b"--", INVALID), (b"--\r\n", INVALID), (b"--x\r\n", INVALID),
    (b"--x\r\nContent-", INVALID), (b"--x\r\nContent-Type: a\r\n\r\n", INVALID), (b"--x\n" * 2000, INVALID),
    (b"\n" * 5000 + form(FIELD, ("packet", EMPTY)), INVALID),
])
def test_forms_of_old_clients(body, answer):
    assert exchange(post(body, "/rKo")).decode().split("\r\n\r\n", 1)[1] == answer


def get(target, body=b""):
    return exchange(b"GET " + target.encode() + f" HTTP/1.0\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body)


def test_the_function_in_the_url():
    for url, body, answer in (("/rKo?FunctionName=rkoGetVersion", EMPTY, EMPTY),
                              ("/rKo?FunctionName=rkoGetVersion", "", NO_DATA),
                              ("/rKo?FunctionName=r", EMPTY, INVALID), ("/rKo?FunctionName=", EMPTY, INVALID),
                              ("/rKo", EMPTY, INVALID), ("/rKo?Name=rkoGetVersion", EMPTY, INVALID)):
        assert get(url, body.encode()).decode().split("\r\n\r\n", 1)[1] == answer


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
        rest = box.LOG.read_text().rpartition("Passing request for '/rKo' to RkoServlet\n")[2]
        for line in lines:
            assert line in rest
            rest = rest.partition(line)[2]
    assert release(handle) == "0"


def test_a_real_client_posts_a_form(tmp_path):
    packet = tmp_path / "packet.xml"
    packet.write_text(EMPTY)
    for fields in (("FunctionName=rkoGetVersion", f"packet=<{packet}"),
                   ("FunctionName=rkoGetVersion", f"packet=@{packet}")):
        forms = [argument for field in fields for argument in ("-F", field)]
        done = subprocess.run(["nsenter", "--net=/run/netns/client", "curl", "-s", *forms, f"http://{box.BOX}/rKo"],
                              capture_output=True, text=True, check=True)
        assert done.stdout == EMPTY


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
    pipe = folder / "pipe"
    os.mkfifo(pipe)
    for path in ("/tmp/served", "/tmp/served/missing", pipe, "/etc/passwd", "tmp/served/plain", "", "/tm",
                 "/../tmp/served/plain", "/tmp/../dev/zero"):
        assert download(path) == NOT_FOUND, path
    assert exchange(b"GET /web/show.jsp HTTP/1.0\r\n\r\n") == NOT_FOUND
    assert download("/tmp/../etc/hostname").endswith(pathlib.Path("/etc/hostname").read_bytes())
    assert b"HTTP/1.0 404" in download("/tmp/../proc/kmsg") or b"Content-Length: 0" in download("/tmp/../proc/kmsg")
    assert "filename=/tmp/../etc/hostname" in box.LOG.read_text()


def test_a_large_file_takes_no_memory(agent):
    large = pathlib.Path("/tmp/large")
    large.write_bytes(b"0123456789abcde\n" * (1 << 20))
    before = agent.status("VmHWM")
    assert download("/tmp/large").endswith(b"\r\n\r\n" + large.read_bytes())
    large.unlink()
    assert agent.status("VmHWM") < before + 4096

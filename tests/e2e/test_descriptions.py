"""The descriptions that the box publishes: a SOAP toolkit makes its clients from them, and every answer
of the box keeps to them."""

import re
import socket
import subprocess
import warnings

import pytest
from lxml import etree

warnings.filterwarnings("ignore", "'cgi' is deprecated")  # zeep imports it
import zeep
from zeep.helpers import serialize_object
from zeep.plugins import HistoryPlugin

import stage
from stage import BOX, CLIENT, DEVICE_ID, exchange, in_network, request
from raw_http import read_all
from zel.soap import AGENT, CONNECTOR, NAMESPACES

pytestmark = pytest.mark.usefixtures("agent")

URL = f"http://{BOX}:5302"


def check_answers(schema, documents):
    """`schema` is a file or a URL in the client's network, as are those that it refers to."""
    checked = subprocess.run(in_network("client", "xmllint", "--noout", "--schema", schema, *documents),
                             stderr=subprocess.PIPE, text=True)
    assert checked.returncode == 0, checked.stderr


class Client:
    """What the toolkit makes from a description. Keeps the answers in files."""

    def __init__(self, path, folder):
        self.folder, self.answers, self.history = folder, [], HistoryPlugin()
        with stage.namespace("client"):
            self.service = zeep.Client(f"{URL}{path}?wsdl", plugins=[self.history],
                                       settings=zeep.Settings(strict=True)).service

    def call(self, operation, **arguments):
        """The result, or the text of a fault."""
        with stage.namespace("client"):
            try:
                result = serialize_object(self.service[operation](**arguments), dict)
            except zeep.exceptions.Fault as fault:
                return fault.message
        self.answers.append(self.folder / f"{len(self.answers)}-{operation}.xml")
        self.answers[-1].write_bytes(etree.tostring(self.history.last_received["envelope"][0][0]))
        return result


def test_rewriting():
    """Only the first of each pattern, and only whole patterns."""
    def ask():
        with socket.create_connection(("127.0.0.1", 5302), 30) as connection:
            connection.sendall(f"GET {CONNECTOR}?xsd=4 HTTP/1.0\r\n\r\n".encode())
            return read_all(connection).decode().split("\r\n\r\n", 1)

    def text(host):
        base = f"http://{host}:5302{CONNECTOR}?xsd=" if host is not None else ""
        schemas = (("beans", 3), ("ZELConnector_v1", 1), ("pembAgentShared", 4), ("ZELDriver_v1", 2))
        lines = [f'schemaLocation="{base}{number}"' if base else f'schemaLocation="{name}.xsd"'
                 for name, number in schemas]
        return "\n".join([*lines, 'schemaLocation="beans.xsd" schemaLocation="x/beans.xsd" Location="beans.xsd"',
                          f'wsdlsoap:address location="http://{host if base else "localhost"}:1/x"',
                          'wsdlsoap:address location="http://localhost:2"', 'location="http://localhost:3"'])

    file = "/app/zel/protocols/pembAgentShared.xsd"
    with stage.replaced(file, text(None)):
        assert ask()[1] == text(BOX) + "\n"
        with stage.without_address():
            assert ask()[1] == text("") + "\n"
    with stage.replaced(file, None):
        assert ask()[0].startswith("HTTP/1.0 404 Not found\r\n") and f"Can't open {file}" in stage.log()


@pytest.mark.parametrize("path", NAMESPACES)
def test_a_stricter_toolkit(path, tmp_path):
    """gSOAP tells what it does not understand, and leaves it out."""
    for command in (["wsdl2h", "-o", "service.h", f"{URL}{path}?wsdl"],
                    ["soapcpp2", "-C", "-j", "-I/usr/share/gsoap/import", "service.h"]):
        made = subprocess.run(in_network("client", *command), cwd=tmp_path, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        assert made.returncode == 0 and not re.search("(?i)warning|error", made.stdout), made.stdout
    assert {file.name.split(".")[1] for file in tmp_path.glob("*.req.xml")} == set(REQUESTS[path])


def test_connector(tmp_path):
    client = Client(CONNECTOR, tmp_path)
    device, echo = {"deviceId": DEVICE_ID}, {"pSubSystem": "diag", "pCommand": "echo"}
    handle = {"handle": client.call("reserveDevice", **device, owner="<o>", hostLock="0")["handle"]}
    assert client.call("reserveDevice", **device, owner="o") == {"error": 10, "handle": None}
    assert client.call("executeGenericCommand", **handle, **echo, pParameters=[
        {"key": "b", "value": "<2>"}, {"key": "a", "value": "1"}]) == {
            "error": 0, "commandResultList": {"key": "result", "value": "a=1\nb=<2>\n"}}
    reserved = client.call("getDeviceInformation")
    assert (reserved["kl15Edge"], reserved["state"], reserved["sessionOwnerOrNull"]) == (False, 5, "<o>")
    assert reserved["channels"]["Channel"][2] == {
        "active": True, "ip": "-1062714326", "name": "MOST", "port": 6802, "type": 2}
    # No gateway, and a voltage that cannot be measured.
    with stage.changed("ip route del default", f"ip route add default via {CLIENT}"), \
            stage.replaced("/proc/sys/kl30", None):
        poor = client.call("getDeviceInformation")
    assert poor["kl30"] is None and poor["currentNetworkConfig"]["gateway"] is None
    assert [client.call(operation, **arguments) for operation, arguments in (
        ("resetTrigger15Edge", {}), ("setHostLock", {**handle, "hostLock": CLIENT}),
        ("switchMode", {**device, "mode": 3, "handle": "1"}), ("releaseDevice", {**handle, **device}))] == [0, 0, 7, 0]
    check_answers(f"{URL}{CONNECTOR}?xsd=1", client.answers)


def test_agent_service(tmp_path):
    client, name = Client(AGENT, tmp_path), {"name": "VCI-Agent"}
    assert client.call("isServiceRunning", name="<b>") == (
        "java.lang.IllegalArgumentException: WRONG service name!: <b>")
    assert [client.call(operation, **arguments) for operation, arguments in (
        ("stopService", name), ("isServiceRunning", name), ("startService", name), ("restartDevice", {}),
        ("getMonitoringStatus", {"groupId": "tavo"}))] == [None, False, None, None, None]
    assert re.fullmatch(r"(\d\d-\w+: OK \(.*?\);){3}", client.call("doSelftest"))
    item = client.call("getMonitoringStatus", groupId="TAVO")["MonitoringStatusItem"]
    assert item["lastCheck"] > 1_500_000_000_000 and item["infoLabel"] == "status:LID~EVERYTHING_IS_OK"
    head, body = exchange(f"GET {AGENT}?wsdl HTTP/1.1\r\n\r\n".encode()).split(b"\r\n\r\n", 1)
    assert head.startswith(b'HTTP/1.0 200 OK\r\nContent-Type: text/xml;charset="utf-8"\r\n'), head
    (tmp_path / "agent.xsd").write_bytes(etree.tostring(etree.fromstring(body).find(".//{*}schema")))
    check_answers(tmp_path / "agent.xsd", client.answers)


REQUESTS = {
    CONNECTOR: {"getDeviceInformation": "", "resetTrigger15Edge": "", "reserveDevice": "owner deviceId",
                "releaseDevice": "deviceId handle", "setHostLock": "hostLock handle", "switchMode": "mode deviceId",
                "executeGenericCommand": "pSubSystem pCommand handle"},
    AGENT: {"doSelftest": "", "restartDevice": "", "getMonitoringStatus": "groupId",
            "stopService": "name", "isServiceRunning": "name", "startService": "name"}}
VALUES = {"mode": "3", "name": "VCI-Agent"}
INSTANCE = 'xmlns:i="http://www.w3.org/2001/XMLSchema-instance"'
# The operation with what it declares; a field with its attributes.
FORMS = {
    "no namespace": ("{}", "<{0}{2}>{1}</{0}>"),
    "one namespace": ('{} xmlns="{uri}"', "<!-- --><{0}{2}>{1}</{0}><?next?>\n"),
    "a prefix for each": ('c:{} xmlns:c="{uri}"', "<c:{0}{2}>{1}</c:{0}>"),
    "a prefix for the operation": ('c:{} xmlns:c="{uri}"', "<{0}{2}>{1}</{0}>"),
    "encoded": (f'c:{{}} xmlns:c="{{uri}}" {INSTANCE} e:encodingStyle="urn:any" i:type="c:any"',
                '<{0} i:type="not:declared"{2}>{1}</{0}>'),
}


@pytest.mark.parametrize("form", FORMS)
@pytest.mark.parametrize("path", REQUESTS)
def test_forms_of_a_request(path, form):
    """In another order than the description's; what is left out or nil is empty to the handlers."""
    operation_tag, field = FORMS[form]

    def ask(operation, children, more=""):
        tag = operation_tag.format(operation, uri=NAMESPACES[path])
        fields = "".join(field.format(name, value, "") for name, value in children.items())
        answer = request(f"<{tag}> {fields}{more}</{tag.split()[0]}>", path)
        return "refused" if "Validation 1 says:" in answer else answer

    for operation, names in REQUESTS[path].items():
        children = {name: VALUES.get(name, "1") for name in names.split()}
        assert f"{operation}Response xmlns" in ask(operation, children)
        for other in ("id", *children):
            refused = ask(operation, children, field.format(other, "", "")) == "refused"
            assert refused == (operation != "executeGenericCommand"), (operation, other)
        for missing in children:
            rest = {name: value for name, value in children.items() if name != missing}
            nil = field.format(missing, "", f' {INSTANCE} i:nil="true"')
            assert ask(operation, rest) == ask(operation, rest, nil) != "refused", (operation, missing)
    wrong = {CONNECTOR: ("switchMode", {"mode": "fast", "deviceId": ""}), AGENT: ("stopService", {"name": "<text/>"})}
    assert ask(*wrong[path]) == "refused"

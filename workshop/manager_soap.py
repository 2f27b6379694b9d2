"""The manager's sign-in service: checks what a box sends, strictly, and builds what it is answered."""

import datetime
import re
from xml.sax.saxutils import escape

from zel import NotUnderstood, soap
from zel.soap import ENVELOPE, local_name

PATH = "/webservices/OrsManagerTavoService/v1"
SCHEMA = "http://www.w3.org/2001/XMLSchema"
INSTANCE = f"{SCHEMA}-instance"
SERVICE = "http://lusora.tembra.com/services/opla/OrsManagerTavo/v1"
BASE_BEAN = f"{SERVICE}/beans"
BEAN = f"{BASE_BEAN}/signin"
OPERATIONS = ("preSignInTavo", "signInTavo")

ADDRESS = r"(\d{1,3}\.){3}\d{1,3}"
MAC = r"([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}"
NUMBER = r"\d+"
ANY = r"[\s\S]*"


def fixed(**texts):
    return {name: re.escape(text) for name, text in texts.items()}


# Elements of a request in their order: a pattern for the text, or the children.
DEVICE = {"fingerprint": ".+", "hostname": ".+", "type": "TAVO"}
INTERFACE = {"defaultGateway": ADDRESS, "ip": ADDRESS, "macAddress": MAC, "name": None,
             "networkMask": ADDRESS}
COMPONENTS = {"item": {"name": "Agent", "active": "true", "services": "", "timestamp": NUMBER}}
PRE_SIGN_IN = {"in0": {
    "device": DEVICE,
    "deviceDetails": {**fixed(caption="TAVO", comment="", description="TAVO, Velka, QK20417B"),
                      "serialNumber": ".+"},
    "hardwareInformation": {**fixed(manufacturer="Velka", product="TAVO"), "serial": ".+",
                            **fixed(version="16.43.06")},
    "networkConfiguration": {"internalInterface": INTERFACE, "externalInterface": INTERFACE},
    "adHocConfig": fixed(band="1", channel="1", securityLevel="2", ssid="SSID",
                         credentials="Dummy-Credentials", cacertificate="Dummy-CA-Cert",
                         clientcertificate="Dummy-Client-Cert", keypass="Lomitrax"),
    "color": "#[0-9a-f]{6}",
    "components": COMPONENTS,
    "countryCode": ANY,
    "date": {"minute": NUMBER, "hour": NUMBER, "day": NUMBER, "month": NUMBER, "year": r"\d{4}",
             "timezone": ""},
    "infrastructureConfig": fixed(band="1", cacertificate="Dummy-CA-Cert", channel="1",
                                  clientcertificate="Dummy-Client-Cert",
                                  credentials="Dummy-Credentials", keypass="Lomitrax", mode="1",
                                  securityLevel="106", ssid="SSID"),
    "parentHostname": "TAVO",
    "registrationStatus": "0",
    "updateConfigurationExt": {
        "updateSoftware": "false", "currentVersion": ANY, "updateType": "TAVO",
        "updateLocation": {"port": "80", "context": "", "attributes": ""},
        "appVersion": ANY, "firmwareVersion": ANY, "softwareVersion": ANY},
}}
SIGN_IN = {
    "in0": DEVICE,
    "in1": {"externalInterface": INTERFACE, "internalInterface": INTERFACE},
    "in2": {"shareCatalog": {"shares": ""}, "componentCatalog": {"components": COMPONENTS},
            "serviceUserCatalog": {"userContexts": ""}},
}
UNQUALIFIED = ("in0", "in1", "in2")


def header_lines(local, length):
    return [
        'Content-Type: text/xml;charset="utf-8"',
        "Accept: text/xml, multipart/related, text/html, image/gif, image/jpeg, *; q=.2, */*; q=.2",
        f"Host: {local[0]}:{local[1]}",
        "Connection: Keep-Alive",
        f"Content-Length: {length}",
    ]


def check_head(request, local):
    problems = []
    if request.line != f"POST {PATH} HTTP/1.0":
        problems.append(f"request line {request.line!r}")
    wanted = header_lines(local, len(request.body))
    if request.header_lines != wanted:
        for line in request.header_lines:
            if line not in wanted:
                problems.append(f"header line {line!r}")
        for line in wanted:
            if line not in request.header_lines:
                problems.append(f"no header line {line!r}")
        if not problems:
            problems.append("header lines in another order or number: " + ", ".join(
                line.partition(":")[0] for line in request.header_lines))
    return problems


def is_nil(element):
    return element.get(f"{{{INSTANCE}}}nil") == "true"


def check_children(element, wanted, where, problems):
    names = []
    for child in element:
        name = local_name(child)
        names.append(name)
        namespace = "" if name in UNQUALIFIED else BEAN
        if child.tag != (f"{{{namespace}}}{name}" if namespace else name):
            problems.append(f"{where}/{name} is in the wrong namespace: {child.tag}")
    if names != list(wanted):
        problems.append(f"{where} holds {', '.join(names)} instead of {', '.join(wanted)}")
    if (element.text or "").strip() or any((child.tail or "").strip() for child in element):
        problems.append(f"{where} holds text beside its elements")
    for child, name in zip(element, names):
        if name not in wanted:
            continue
        inner = f"{where}/{name}"
        if isinstance(wanted[name], dict):
            check_children(child, wanted[name], inner, problems)
            if wanted[name] is INTERFACE:
                check_interface(child, inner, problems)
        elif wanted[name] is not None and not (is_nil(child) and wanted is INTERFACE):
            if len(child) or not re.fullmatch(wanted[name], child.text or ""):
                problems.append(f"{inner} is {child.text!r}")
    if element.tag.endswith("}date") and \
            element.get(f"{{{INSTANCE}}}type", "").rpartition(":")[2] != "DateEx":
        problems.append(f"{where} is not typed DateEx")


def check_interface(element, where, problems):
    nil = [local_name(child) for child in element if is_nil(child)]
    if nil not in (["name"], ["defaultGateway", "ip", "name", "networkMask"]):
        problems.append(f"{where}: nil are {', '.join(nil) or 'none'}")
    for child in element:
        if is_nil(child) and (child.text or len(child)):
            problems.append(f"{where}: {child.tag} is nil and has content")


def parse(body):
    """(operation's name, its element, problems); the name is None when there is no such operation."""
    try:
        root = soap.parse(body)
    except NotUnderstood as error:
        return None, None, [f"not well-formed: {error}"]
    bodies = root.findall(f"{{{ENVELOPE}}}Body")
    if root.tag != f"{{{ENVELOPE}}}Envelope" or len(bodies) != 1 or len(bodies[0]) != 1:
        return None, None, [f"no envelope with one body and one operation: {root.tag}"]
    operation = bodies[0][0]
    name = operation.tag.removeprefix(f"{{{SERVICE}}}")
    if name not in OPERATIONS or name == operation.tag:
        return None, None, [f"unknown operation {operation.tag}"]

    problems = []
    if not body.startswith(b"<?xml version='1.0' encoding='UTF-8'?>"):
        problems.append(f"XML declaration: {body[:60]!r}")
    end = b"\r\n" if name == "preSignInTavo" else b""
    if not body.endswith(b"</S:Body></S:Envelope>" + end):
        problems.append(f"the body ends with {body[-40:]!r}")
    start = re.search(rb"<ns4:\w+[^>]*>", body)
    for prefix, uri in (("ns2", BEAN), ("ns3", BASE_BEAN), ("ns4", SERVICE)):
        if not start or not re.search(rf"\sxmlns:{prefix}=[\"']{re.escape(uri)}[\"']".encode(), start[0]):
            problems.append(f"the operation does not declare {prefix} as {uri}")
    check_children(operation, PRE_SIGN_IN if name == "preSignInTavo" else SIGN_IN, name, problems)
    serials = {element.text for element in operation.iter()
               if local_name(element) in ("fingerprint", "serialNumber", "serial")}
    if len(serials) > 1:
        problems.append(f"different serial numbers: {serials}")
    return name, operation, problems


def text_of(operation, path):
    return operation.findtext(path, "", {"b": BEAN}) or ""


def said(name, operation):
    """What a request says about the box."""
    device = "in0/b:device" if name == "preSignInTavo" else "in0"
    found = {key: text_of(operation, f"{device}/b:{key}") for key in ("hostname", "fingerprint")}
    if name == "preSignInTavo":
        for key, path in (("color", "b:color"), ("country", "b:countryCode"),
                          ("app", "b:updateConfigurationExt/b:appVersion"),
                          ("firmware", "b:updateConfigurationExt/b:firmwareVersion")):
            found[key] = text_of(operation, f"in0/{path}")
    for key in ("externalInterface", "internalInterface"):
        for interface in operation.iter(f"{{{BEAN}}}{key}"):
            found[key.removesuffix("Interface")] = \
                text_of(interface, "b:ip") + "/" + text_of(interface, "b:macAddress")
    return found


# Answers ----------------------------------------------------------------------------------------

def quoted(text):
    # Line breaks as references: a parser would turn a carriage return into a line feed.
    return escape(str(text), {'"': "&quot;", "\r": "&#13;", "\n": "&#10;"})


# What the box cannot know, with names in it that it knows elsewhere.
NEWS = ('<novelty since="2"><color><port>a</port></color>news</novelty>'
        '<n:date xmlns:n="urn:novelty">Monday</n:date>')


class Answer:
    """Writes elements in one of the forms, without those to be left out. What is None is nil, or left out."""

    def __init__(self, form, omit):
        self.form = form
        self.omit = omit

    def element(self, name, content):
        if name in self.omit or content is None and self.form != "nil":
            return ""
        tag = f"ns2:{name}" if self.form in ("qualified", "typed", "nil") else name
        if content is None:
            return f'<{tag} xsi:nil="true"/>'
        if not isinstance(content, list):
            return f"<{tag}{self.type('xsd:string')}>{quoted(content)}</{tag}>"
        return f"<{tag}{self.type('ns2:' + name.capitalize())}>{self.elements(content)}</{tag}>"

    def elements(self, children):
        texts = [self.element(*child) for child in children]
        return self.among_news("".join(reversed(texts) if self.form == "newer" else texts))

    def among_news(self, text):
        return NEWS + text + NEWS if self.form == "newer" else text

    def type(self, name):
        return f' xsi:type="{name}"' if self.form == "typed" else ""

    def response(self, name, inner):
        if self.form == "bare":
            return envelope(f"<{name}>{inner}</{name}>")
        return envelope(f'<ns4:{name} xmlns:ns2="{BEAN}" xmlns:ns3="{BASE_BEAN}" xmlns:ns4="{SERVICE}" '
                        f'xmlns:xsd="{SCHEMA}" xmlns:xsi="{INSTANCE}"{self.type("ns4:" + name)}>'
                        f"{self.among_news(inner)}</ns4:{name}>")


def envelope(inner):
    return (f'<?xml version="1.0" encoding="UTF-8"?><S:Envelope xmlns:S="{ENVELOPE}"><S:Body>{inner}'
            "</S:Body></S:Envelope>").encode()


def return_element(settings, box, order, image, certificates):
    """preSignInTavoReturn; order tells whether this answer carries the update."""
    def setting(name):
        known = None if settings["form"] == "nil" else box[name]
        return known if settings[name] is None else settings[name]

    now = datetime.datetime.now()
    date = settings["date"] or {key: getattr(now, key)
                                for key in ("minute", "hour", "day", "month", "year")}
    host_name, wlan = setting("hostname"), settings["wlan"]
    children = [("device", None if host_name is None else [("hostname", host_name), ("type", None)]),
                ("deviceDetails", None), ("color", setting("color")), ("countryCode", setting("country")),
                ("infrastructureConfig", [
                    (name, certificates()[name] if wlan[name] is None else wlan[name])
                    for name in ("band", "cacertificate", "channel", "clientcertificate", "credentials",
                                 "keypass", "mode", "securityLevel", "ssid")] if wlan["send"] else None),
                ("date", [(key, date.get(key, "")) for key in
                          ("minute", "hour", "day", "month", "year", "timezone")]),
                ("components", None)]
    update = settings["update"]
    application, firmware = box["app"], box["firmware"]
    location = [("protocol", "http"), ("ip", ""), ("port", "80"), ("context", ""), ("attributes", [])]
    if order:
        if update["type"] == "Application":
            application = update["version"]
        else:
            firmware = update["version"]
        location = [
            ("protocol", update["protocol"]), ("ip", image.ip if update["ip"] is None else update["ip"]),
            ("port", image.port if update["port"] is None else update["port"]),
            ("context", update["context"]),
            ("attributes", [
                ("item", [("key", "MD5CHKSM"),
                          ("value", image.md5 if update["md5"] is None else update["md5"])]),
                ("item", [("key", "FILENAME"), ("value", update["filename"])])])]
    children.append(("updateConfigurationExt", None if settings["form"] == "nil" and not order else [
        ("updateSoftware", "true" if order else "false"), ("currentVersion", box["firmware"]),
        ("updateType", update["type"] if order else "TAVO"), ("updateLocation", location),
        ("appVersion", application), ("firmwareVersion", firmware), ("softwareVersion", application)]))
    return Answer(settings["form"], settings["omit"]).elements(children)


def build_answer(settings, operation, fault, content):
    """(status, body) with the content of preSignInTavoReturn, or with a fault of what is in it."""
    answer = Answer(settings["form"], settings["omit"])
    response = f"{operation}Response"
    pre = operation == "preSignInTavo"

    def normal(more="", inner=content):
        tag = "preSignInTavoReturn"
        inner = f"<{tag}{answer.type('ns2:' + tag)}>{more}{inner}</{tag}>" if pre else more
        return answer.response(response, inner)

    def with_entity(definitions, reference):
        document = normal(f"<device><hostname>{reference}</hostname></device>").decode()
        declaration, rest = document.split("?>", 1)
        return f"{declaration}?><!DOCTYPE S:Envelope [{definitions}]>{rest}".encode()

    match fault["kind"]:
        case "not-xml":
            return 200, b"<html><p>The manager is <b>closed</p>"
        case "not-soap":
            return 200, b'<?xml version="1.0"?><manager><open>false</open></manager>'
        case "wrong-operation":
            return 200, answer.response("otherTavoResponse", "<otherTavoReturn/>")
        case "missing-return":
            return 200, answer.response(response, "") if pre else envelope("")
        case "schema-invalid":
            return 200, normal("<date><year>soon</year></date>")
        case "empty-answer":
            return 200, b""
        case "huge-answer":
            return 200, normal(f"<device><hostname>{'x' * fault['size']}</hostname></device>")
        case "entity-bomb":
            return 200, with_entity('<!ENTITY e0 "boom">' + "".join(
                f'<!ENTITY e{level} "{f"&e{level - 1};" * 10}">' for level in range(1, 10)), "&e9;")
        case "external-entity":
            return 200, with_entity('<!ENTITY file SYSTEM "file:///etc/passwd">'
                                    '<!ENTITY host SYSTEM "http://192.168.68.2:8080/entity">'
                                    '<!ENTITY % more SYSTEM "http://192.168.68.2:8080/more.dtd">%more;',
                                    "&file;&host;")
        case "soap-fault":
            return fault_answer("the manager does not want to")
    return 200, normal()


def fault_answer(text):
    return 500, envelope(f"<S:Fault><faultcode>S:Server</faultcode><faultstring>{quoted(text)}"
                         "</faultstring></S:Fault>")

#!/usr/bin/env python3
"""A diagnostic client: finds a box, talks to its connector service and shows what is asked and answered.

Needs nothing but Python, and shares no code with the agent. The exit status is the service's error
code (0 is success), 100 for a fault and 101 when the box cannot be reached.
"""

import argparse
import http.client
import re
import socket
import struct
import sys
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

PATH = "/zel/services/ConnectorService"
ENVELOPE = "http://schemas.xmlsoap.org/soap/envelope/"
FAULT = 100
UNREACHABLE = 101
SLP_GROUP = "239.255.255.253"
SLP_PORT = 427
MODES = {"configured": "1", "linklocal": "2", "dhcp": "3"}


def element(name, text):
    return f"<{name}>{escape(text)}</{name}>"


def build_request(options):
    """The operation element of the command line."""
    match options.operation:
        case "info":
            return "<getDeviceInformation/>"
        case "reserve":
            return (
                "<reserveDevice>" + element("deviceId", options.device)
                + element("owner", options.owner) + element("hostLock", options.lock)
                + "</reserveDevice>"
            )
        case "mode":
            return (
                "<switchMode>" + element("deviceId", options.device)
                + element("mode", MODES[options.mode]) + element("handle", options.handle)
                + "</switchMode>"
            )
    return options.xml  # "raw"


def find_box(options):
    """Asks all boxes of the network for their attributes (SLP, RFC 2608) and shows the first answer's."""
    def text(value):
        return struct.pack(">H", len(value)) + value.encode()

    body = struct.pack(">H", 1) + text("en") + text("") + text("service:zel.connector")
    body += text("default") + text("") + text("")
    request = bytes([2, 6]) + (len(body) + 10).to_bytes(3, "big") + bytes(5) + body
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as box:
        box.connect((options.host, SLP_PORT))  # only to learn the own address on that network
        own = box.getsockname()[0]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(own))
        client.bind((own, 0))
        client.settimeout(options.wait)
        print(f"  asks {SLP_GROUP}:{SLP_PORT} for the attributes of service:zel.connector")
        client.sendto(request, (SLP_GROUP, SLP_PORT))
        try:
            answer, sender = client.recvfrom(4096)
        except socket.timeout:
            print(f"client: no box has answered within {options.wait} s", file=sys.stderr)
            return UNREACHABLE
    tag = 14 + int.from_bytes(answer[12:14], "big")  # behind the language tag: error and length
    length = int.from_bytes(answer[tag + 2:tag + 4], "big")
    print(f"  {sender[0]} answers:")
    for name, value in re.findall(rb"\(([^=()]+)=([^()]*)\)", answer[tag + 4:tag + 4 + length]):
        print(f"    {printable(name):<24} {printable(unescape(value))}")
    return 0


def unescape(value):
    """A value of an attribute list without the escapes of its reserved characters (RFC 2608, section 5)."""
    return re.sub(rb"\\([0-9A-Fa-f]{2})", lambda digits: bytes.fromhex(digits[1].decode()), value)


def printable(value):
    """Nothing that steers a terminal."""
    return "".join(c if c.isprintable() else "?" for c in value.decode(errors="replace"))


def send(host, port, operation):
    """Sends the operation in an envelope; returns the answer's body as text."""
    body = f'<e:Envelope xmlns:e="{ENVELOPE}"><e:Body>{operation}</e:Body></e:Envelope>'
    connection = http.client.HTTPConnection(host, port, timeout=60)
    try:
        connection.request("POST", PATH, body.encode(), {"Content-Type": 'text/xml;charset="utf-8"'})
        return connection.getresponse().read().decode()
    finally:
        connection.close()


def local_name(node):
    return node.tag.rpartition("}")[2]


def show(node, depth=1):
    """Prints an element tree, one line an element."""
    text = (node.text or "").strip().replace("\n", "\n" + "    " * (depth + 1))
    print("    " * depth + local_name(node) + (f": {text}" if text else ""))
    for child in node:
        show(child, depth + 1)


def find(root, name):
    for node in root.iter():
        if local_name(node) == name:
            return (node.text or "").strip()
    return None


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="192.168.68.42")
    parser.add_argument("--port", type=int, default=5302)
    parser.add_argument("--device", default="TAVO0012345", help="device identifier of the box")
    parser.add_argument("--quiet", action="store_true", help="print only the handle or the fault")
    operations = parser.add_subparsers(dest="operation", required=True)
    find = operations.add_parser("find", help="find a box and show its attributes")
    find.add_argument("--wait", type=float, default=5, help="seconds to wait for an answer")
    operations.add_parser("info", help="read the device information")
    reserve = operations.add_parser("reserve", help="reserve the box; prints the handle")
    reserve.add_argument("--owner", required=True)
    reserve.add_argument("--lock", default="", help="the only host that may use the ports")
    mode = operations.add_parser("mode", help="switch the box to another way of addressing")
    mode.add_argument("mode", choices=MODES)
    mode.add_argument("--handle", default="", help="of the reservation; a free box needs none")
    raw = operations.add_parser("raw", help="send an operation element as it stands")
    raw.add_argument("xml")
    return parser.parse_args()


def main():
    options = parse_arguments()
    if options.operation == "find":
        return find_box(options)
    operation = build_request(options)
    if not options.quiet:
        print(f"  asks {options.host}:{options.port}: {operation}")
    try:
        root = ElementTree.fromstring(send(options.host, options.port, operation))
    except (OSError, http.client.HTTPException) as error:
        print(f"client: {options.host}:{options.port} cannot be reached: {error}", file=sys.stderr)
        return UNREACHABLE
    answer = root[0][0]
    if options.quiet:
        print(find(root, "handle") or find(root, "faultstring") or "")
    else:
        print("  answer:")
        show(answer)
    if local_name(answer) == "Fault":
        return FAULT
    return int(find(root, "error"))


if __name__ == "__main__":
    sys.exit(main())

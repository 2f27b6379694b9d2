#!/usr/bin/env python3
"""A diagnostic client: finds a box, talks to its connector service and shows what is asked and answered.

Needs nothing but Python, and shares no code with the agent. The exit status is the service's error
code (0 is success), 100 for a fault and 101 when the box cannot be reached.
"""

import argparse
import http.client
import re
import sys
import xml.etree.ElementTree as ElementTree

sys.dont_write_bytecode = True
import slp
from soap import CONNECTOR, envelope, find, local_name, operation

FAULT = 100
UNREACHABLE = 101
MODES = {"configured": "1", "linklocal": "2", "dhcp": "3"}


def build_request(options):
    """The operation element of the command line."""
    match options.operation:
        case "info":
            return operation("getDeviceInformation")
        case "reserve":
            return operation("reserveDevice", deviceId=options.device, owner=options.owner, hostLock=options.lock)
        case "mode":
            return operation("switchMode", deviceId=options.device, mode=MODES[options.mode], handle=options.handle)
    return options.xml  # "raw"


def find_box(options):
    """Asks all boxes of the network for their attributes (SLP, RFC 2608) and shows the first answer's."""
    own = slp.address_towards(options.host)
    with slp.open_client(own) as client:
        client.settimeout(options.wait)
        print(f"  asks {slp.GROUP}:{slp.PORT} for the attributes of {slp.CONNECTOR}")
        client.sendto(slp.attribute_request(), (slp.GROUP, slp.PORT))
        try:
            answer, sender = client.recvfrom(4096)
            attributes = slp.read_attributes(answer)
        except (TimeoutError, slp.BadMessage) as error:
            print(f"client: no box has answered within {options.wait} s: {error}", file=sys.stderr)
            return UNREACHABLE
    print(f"  {sender[0]} answers:")
    for name, value in re.findall(rb"\(([^=()]+)=([^()]*)\)", attributes.encode()):
        print(f"    {printable(name):<24} {printable(unescape(value))}")
    return 0


def unescape(value):
    """A value of an attribute list without the escapes of its reserved characters (RFC 2608, section 5)."""
    return re.sub(rb"\\([0-9A-Fa-f]{2})", lambda digits: bytes.fromhex(digits[1].decode()), value)


def printable(value):
    """Nothing that steers a terminal."""
    return "".join(c if c.isprintable() else "?" for c in value.decode(errors="replace"))


def send(host, port, request):
    """Sends the operation in an envelope; returns the answer's body as text."""
    connection = http.client.HTTPConnection(host, port, timeout=60)
    try:
        connection.request("POST", CONNECTOR, envelope(request).encode(), {"Content-Type": 'text/xml;charset="utf-8"'})
        return connection.getresponse().read().decode()
    finally:
        connection.close()


def show(node, depth=1):
    """Prints an element tree, one line an element."""
    text = (node.text or "").strip().replace("\n", "\n" + "    " * (depth + 1))
    print("    " * depth + local_name(node) + (f": {text}" if text else ""))
    for child in node:
        show(child, depth + 1)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="192.168.68.42")
    parser.add_argument("--port", type=int, default=5302)
    parser.add_argument("--device", default="TAVO0012345", help="device identifier of the box")
    parser.add_argument("--quiet", action="store_true", help="print only the handle or the fault")
    operations = parser.add_subparsers(dest="operation", required=True)
    finding = operations.add_parser("find", help="find a box and show its attributes")
    finding.add_argument("--wait", type=float, default=5, help="seconds to wait for an answer")
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
    request = build_request(options)
    if not options.quiet:
        print(f"  asks {options.host}:{options.port}: {request}")
    try:
        root = ElementTree.fromstring(send(options.host, options.port, request))
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

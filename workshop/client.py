#!/usr/bin/env python3
"""A diagnostic client: finds a box, talks to its connector service and shows what is asked and answered.

Needs nothing but Python, and shares no code with the agent. What is asked is sent as it stands, right or
wrong. The exit status is the service's error code (0 is success), 100 for a fault and 101 when no box answers.
"""

import argparse
import sys

sys.dont_write_bytecode = True
import zel
from zel import slp
from zel.soap import envelope, find, local_name, operation, parse, send

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
    """Asks all boxes of the network for their attributes and shows those of the first that answers."""
    print(f"  asks {slp.GROUP}:{slp.PORT} for the attributes of {slp.CONNECTOR}")
    for sender, attributes in slp.answers(options.wait):
        print(f"  {sender} answers:")
        for name, value in slp.split_attributes(attributes).items():
            print(f"    {printable(name):<24} {printable(slp.unescape(value))}")
        return 0
    print(f"client: no box has answered within {options.wait} s", file=sys.stderr)
    return UNREACHABLE


def printable(text):
    """Nothing that steers a terminal."""
    return "".join(c if c.isprintable() else "?" for c in text)


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
        root = parse(send(options.host, options.port, envelope(request), timeout=60))
    except zel.Error as error:
        print(f"client: {error}", file=sys.stderr)
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

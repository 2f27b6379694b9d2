#!/usr/bin/python3
"""A client made by a SOAP toolkit (zeep): it knows of the box what the box's own descriptions say.

usage: toolkit.py URL-OF-A-DESCRIPTION [OPERATION [NAME=VALUE...]]
Without an operation it lists them; the answer of one is shown as the toolkit has typed it.
"""

import sys

import zeep
from zeep.helpers import serialize_object


def show(value, name, depth=1):
    if isinstance(value, dict):
        print("  " * depth + name)
        for child, inner in value.items():
            show(inner, child, depth + 1)
    elif isinstance(value, list):
        for item in value:
            show(item, name, depth)
    else:
        print("  " * depth + f"{name}: {value!r}")


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    client = zeep.Client(sys.argv[1])
    if len(sys.argv) == 2:
        for service in client.wsdl.services.values():
            for port in service.ports.values():
                for name, operation in sorted(port.binding.all().items()):
                    print(f"  {name}({operation.input.signature()})")
        return
    values = dict(pair.split("=", 1) for pair in sys.argv[3:])
    show(serialize_object(client.service[sys.argv[2]](**values)), sys.argv[2], 1)


if __name__ == "__main__":
    main()

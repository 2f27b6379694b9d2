"""A switch port with the delay of a real one: the cable between it and a box's card carries nothing until both
have agreed on a speed, which begins anew whenever the card is set up or the cable plugged in.

Run by workshop/network: port.py PORT NETWORK MILLISECONDS. PORT is a port of the switch, NETWORK the namespace of
the box, whose card is eth0. A client of its socket says "in" or "out" (the cable) or "end", and is answered when that
is done.
"""

import contextlib
import fcntl
import pathlib
import select
import socket
import struct
import sys
import time

from stage import enter_network, namespace_path

CARD = "eth0"

SIOCGIFFLAGS, SIOCSIFFLAGS = 0x8913, 0x8914
IFF_UP = 1
RTMGRP_LINK = 1
RTM_NEWLINK = 16
REQUEST = struct.Struct("16sh22x")  # ifreq: name, flags
MESSAGE = struct.Struct("=IHHIIBxHiII")  # nlmsghdr and ifinfomsg


def control_path(port):
    return pathlib.Path(f"/run/port-{port}")


def tell(port, word):
    """Has the process of that port do it. False when there is none: the port is without delay."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        try:
            client.connect(str(control_path(port)))
        except (FileNotFoundError, ConnectionRefusedError):
            return False
        client.sendall(word.encode())
        client.recv(1)
        return True


def flags(requests, name):
    return REQUEST.unpack(fcntl.ioctl(requests, SIOCGIFFLAGS, REQUEST.pack(name.encode(), 0)))[1]


class Port:
    def __init__(self, name, network, delay):
        self.name = name
        self.delay = delay
        self.due = None  # when the link comes
        enter_network(namespace_path("switch"))
        self.switch = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        enter_network(network)
        self.events = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
        self.events.bind((0, RTMGRP_LINK))
        self.is_up = False
        with contextlib.suppress(OSError), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as box:
            self.is_up = bool(flags(box, CARD) & IFF_UP)
        self.is_plugged = self.is_on()
        if not self.is_up:
            self.switch_to(False)

    def is_on(self):
        with contextlib.suppress(OSError):  # the card was pulled out, with this end of the cable
            return bool(flags(self.switch, self.name) & IFF_UP)
        return False

    def switch_to(self, on):
        with contextlib.suppress(OSError):
            others = flags(self.switch, self.name) & ~IFF_UP
            fcntl.ioctl(self.switch, SIOCSIFFLAGS, REQUEST.pack(self.name.encode(), others | (IFF_UP if on else 0)))

    def negotiate(self):
        """Both ends begin anew; nothing passes until they are done."""
        self.switch_to(False)
        self.due = time.monotonic() + self.delay if self.is_up and self.is_plugged else None

    def read_events(self):
        data = self.events.recv(65536)
        while data:
            size, kind, *_, index, card_flags, _ = MESSAGE.unpack_from(data)
            data = data[(size + 3) & ~3:]
            try:
                is_card = index == socket.if_nametoindex(CARD)
            except OSError:
                is_card = self.is_up = False
            is_up = kind == RTM_NEWLINK and bool(card_flags & IFF_UP)
            if is_card and is_up != self.is_up:
                self.is_up = is_up
                self.negotiate()

    def obey(self, word):
        if word == "end":
            self.switch_to(self.is_plugged)
        elif (word == "in") != self.is_plugged:
            self.is_plugged = word == "in"
            self.negotiate()

    def serve(self, control):
        word = ""
        while word != "end":
            timeout = None if self.due is None else max(0, self.due - time.monotonic())
            ready = select.select([self.events, control], [], [], timeout)[0]
            if self.events in ready:
                self.read_events()
            if control in ready:
                client = control.accept()[0]
                with client:
                    word = client.recv(16).decode()
                    self.obey(word)
                    if word == "end":
                        control_path(self.name).unlink()
            if self.due is not None and time.monotonic() >= self.due:
                self.switch_to(True)
                self.due = None


def main():
    name, network, milliseconds = sys.argv[1:]
    path = control_path(name)
    path.unlink(missing_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as control:
        port = Port(name, network, int(milliseconds) / 1000)
        control.bind(str(path))
        control.listen()
        port.serve(control)


if __name__ == "__main__":
    main()

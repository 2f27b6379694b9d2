"""Boxes by the thousand: one process, in a network of its own on the workshop's switch, answers searches for all of
them. Each has its own address, from which it answers, and its own attributes; there is nothing else of it."""

import contextlib
import ipaddress
import socket
import struct
import threading

from stage import in_background, namespace, output_of
from zel import slp

NETWORK = "responders"
# The upper half of the workshop's addresses; every one of them is answered from there.
ADDRESSES = ipaddress.ip_network("192.168.128.0/17")
MOST = ADDRESSES.num_addresses - 2
TYPES = "service:zel.connector,service:hux-vci,"

IP_PKTINFO = 8  # linux/in.h
COLORS = "#ede3d3", "#be1110", "#ffff43", "#8a4280", "#4e8541", "#754836", "#163279", "#acaea6"
OWNERS = "alice", "bob", "carol"


def address(number):
    """Of the box of that number, from 1 on."""
    return str(ADDRESSES[number])


def attributes(number):
    """What a box says: every third is reserved, and every fourth on the WLAN."""
    serial = f"TAVO{1000000 + number}"
    owner = OWNERS[number // 3 % len(OWNERS)] if number % 3 == 0 else ""
    wlan = number % 4 == 0
    return (f"(DevId=box-{number}),(Service=zel-connector),(Serial={serial})"
            f",(MacAddress=02:00:01:{number >> 16:02x}:{number >> 8 & 255:02x}:{number & 255:02x}),(DevType=TAVO)"
            ",(ImageVersionBoot=10203),(ImageVersionApplication=10202),(ImageVersionPackage=10600)"
            f",(Color={COLORS[number % len(COLORS)]}),(Counter=-2147483648),(State={5 if owner else 4}),(Owner={owner})"
            f",(Kl15Voltage=0),(Kl30Voltage={11500 + number * 37 % 1300}),(Kl15Trigger=false)"
            f",(SignalStrength={40 + number % 60 if wlan else 0}),(VIN=TESTVIN{number:010}),(Gateway=0x10)"
            ",(Diag=[0x12,0x18]),(AccuCapacity=0),(VciChannels=[KLine,DCAN,MOST]),(Netmask=-65536)"
            f",(NetGateway=-1062714367),(NetworkType={int(wlan)}),(UUID=00000000-0000-0000-0000-{number:012})")


class Box:
    def __init__(self, number, attribute_list):
        own = ADDRESSES[number].packed
        self.sender = [(socket.IPPROTO_IP, IP_PKTINFO, struct.pack("=i4s4s", 0, own, bytes(4)))]
        self.replies = {slp.ATTR_RQST: self.halves(slp.attribute_reply(attribute_list, 0)),
                        slp.SRV_RQST: self.halves(slp.service_reply(TYPES, 0))}

    @staticmethod
    def halves(reply):
        """What stands before and behind the number of the question."""
        return reply[:10], reply[12:]

    def answer(self, sock, function, xid, client):
        before, behind = self.replies[function]
        sock.sendmsg([before, xid, behind], self.sender, 0, client)


@contextlib.contextmanager
def network():
    """What the boxes are in, as long as the block lasts."""
    with contextlib.ExitStack() as stack:
        output_of("ip", "netns", "add", NETWORK)
        stack.callback(output_of, "ip", "netns", "delete", NETWORK)
        output_of("ip", "-batch", "-", network="switch", input=f"""
            link add {NETWORK} type veth peer name eth0 netns /run/netns/{NETWORK}
            link set {NETWORK} master bridge up
        """)
        stack.callback(output_of, "ip", "link", "delete", NETWORK, network="switch")
        output_of("ip", "-batch", "-", network=NETWORK, input=f"""
            link set lo up
            link set eth0 up
            route add local {ADDRESSES} dev eth0
            route add {ADDRESSES.supernet(1)} dev eth0
        """)
        yield


def open_socket():
    with namespace(NETWORK):
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.bind(("0.0.0.0", slp.PORT))
        sock.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        slp.join_group(sock, "0.0.0.0")
    return sock


def asked(boxes, ancillary):
    """All of them, unless the question went to the address of one."""
    destination = ipaddress.ip_address(ancillary[0][2][8:12])
    if destination.is_multicast:
        return boxes
    number = int(destination) - int(ADDRESSES[0])
    return boxes[number - 1:number] if number else []


def answer_one(sock, boxes, strays=False):
    """Waits for the next question and answers it, as boxes do, without a look at who has answered already."""
    request, ancillary, _, client = sock.recvmsg(4096, 64)
    try:
        function, xid, wanted = slp.read_request(request)
    except slp.BadMessage:
        return
    if wanted not in ("", slp.CONNECTOR) or function not in (slp.ATTR_RQST, slp.SRV_RQST):
        return
    for box in asked(boxes, ancillary):
        if strays:  # nothing, and the answer to a question of somebody else's
            sock.sendmsg([b""], box.sender, 0, client)
            sock.sendto(slp.attribute_reply("(Serial=?)", int.from_bytes(xid, "big") ^ 1), client)
        box.answer(sock, function, xid, client)


def answer_for(count):
    """Answers for that many boxes until it is interrupted."""
    boxes = [Box(number, attributes(number)) for number in range(1, count + 1)]
    with network(), open_socket() as sock:
        print(f"Ctrl-C ends {count} boxes, {address(1)} to {address(count)}.", flush=True)
        while True:
            with contextlib.suppress(OSError):  # from where no answer gets to
                answer_one(sock, boxes)


@contextlib.contextmanager
def other_boxes(*lists):
    """Further boxes, one for each of these attribute lists, that also send what nobody has asked for."""
    boxes = [Box(number, attribute_list) for number, attribute_list in enumerate(lists, 1)]
    ended = threading.Event()
    with contextlib.ExitStack() as stack:
        stack.enter_context(network())
        sock = stack.enter_context(open_socket())
        sock.settimeout(0.1)

        def answer():
            while not ended.is_set():
                with contextlib.suppress(OSError):
                    answer_one(sock, boxes, strays=True)

        stack.enter_context(in_background(answer))
        stack.callback(ended.set)  # comes before the join
        yield

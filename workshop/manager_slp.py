"""The manager's side of the service location protocol: answers the box's question where the manager
is. Requests are read by RFC 2608, and what deviates from it is told, except for what every box does.
"""

import contextlib
import select
import socket
import struct
import threading

from zel.slp import (ATTR_RQST, GROUP, MAX_DATAGRAM, SCOPE, SRV_RPLY, VERSION, BadMessage, Fields, address_towards,
                     attribute_reply, join_group, message, text)

SERVICE = "service:zel.manager"
INTERNAL_ERROR = 10

IP_PKTINFO = 8  # the socket module does not name it before Python 3.14
PKTINFO = struct.Struct("=I4s4s")

# ClusterIP of replies that are correct otherwise.
CLUSTER_IPS = {
    "host-name": "manager.workshop",
    "no-byte": "300.1.1.1",
    "short": "192.168.68",
    "padded": " 192.168.68.2 ",
    "ipv6": "fe80::1",
    "any-address": "0.0.0.0",
    "own-address": "127.0.0.1",
    "group": "239.255.255.253",
    "broadcast": "255.255.255.255",
}
REPLIES = {
    "good": "a correct answer",
    "no-service": "a list that names a ClusterIP but is not the manager's",
    "no-cluster-ip": "the manager's list without a ClusterIP",
    "empty-ip": 'ClusterIP="", nothing between the quotes',
    "no-value": "ClusterIP= and no value at all",
    "one-character": "a value too short to be enclosed in anything",
    "other-case": "attribute names in another case",
    "error": "an error code and no list",
    "broken-length": "a message length that is not the datagram's",
    "list-too-long": "a list longer than the datagram",
    "language-too-long": "a language tag longer than the datagram",
    "cut": "the first 13 bytes of an answer",
    "wrong-function": "a service reply instead of an attribute reply",
    "noise": "bytes that are no message",
} | {kind: f'ClusterIP="{address}"' for kind, address in CLUSTER_IPS.items()}


def parse_request(data):
    """(fields of an attribute request, deviations); BadMessage when it cannot be read as one."""
    problems = []
    fields = Fields(data)
    version = fields.number(1, "version")
    if version != VERSION:
        raise BadMessage(f"version {version}")
    function = fields.number(1, "function")
    if function != ATTR_RQST:
        raise BadMessage(f"function {function}")
    length = fields.number(3, "message length")
    if length != len(data):
        problems.append(f"message length {length}, {len(data)} bytes received")
    flags = fields.number(2, "flags")
    if flags & 0x1FFF:
        problems.append(f"reserved flags are set: {flags:#06x}")
    extension = fields.number(3, "next extension")
    if extension:
        problems.append(f"next extension at {extension}")
    request = {"xid": fields.number(2, "transaction"), "language": fields.text("language tag")}
    for name in ("responders", "url", "scopes", "tags", "spi"):
        request[name] = fields.text(name)
    # A box ends its attribute requests with two zero bytes more than the message has fields for.
    if fields.rest() not in (b"", b"\0\0"):
        problems.append(f"{len(fields.rest())} bytes after the last field: {fields.rest()!r}")
    if not request["language"]:
        problems.append("empty language tag")
    if request["spi"]:
        problems.append(f"authentication is asked for: {request['spi']!r}")
    return request, problems


def build_reply(kind, request, cluster_ip):
    """One of REPLIES as a datagram."""
    xid, language = request["xid"], request["language"]
    cluster_ip = CLUSTER_IPS.get(kind, cluster_ip)
    attributes = f'(Service=zel-manager),(ClusterIP="{cluster_ip}")'

    def reply(listed, error=0):
        return attribute_reply(listed, xid, language, error)

    good = reply(attributes)
    match kind:
        case _ if kind == "good" or kind in CLUSTER_IPS:
            return good
        case "no-service":
            return reply(f'(Service=other-manager),(ClusterIP="{cluster_ip}")')
        case "no-cluster-ip":
            return reply("(Service=zel-manager)")
        case "empty-ip":
            return reply('(Service=zel-manager),(ClusterIP="")')
        case "no-value":
            return reply("(Service=zel-manager),(ClusterIP=)")
        case "one-character":
            return reply("(Service=zel-manager),(ClusterIP=1)")
        case "other-case":
            return reply(f'(service=ZEL-MANAGER),(clusterip="{cluster_ip}")')
        case "error":
            return reply("", INTERNAL_ERROR)
        case "broken-length":
            return good[:2] + (len(good) + 7).to_bytes(3, "big") + good[5:]
        case "list-too-long":
            start = len(good) - 1 - len(attributes)
            return good[:start - 2] + b"\xff\xff" + good[start:]
        case "language-too-long":
            return good[:12] + b"\xff\xff" + good[14:]
        case "cut":
            return good[:2] + (13).to_bytes(3, "big") + good[5:13]
        case "wrong-function":
            url = struct.pack("!BH", 0, 600) + text(f"{SERVICE}://{cluster_ip}") + b"\0"
            return message(SRV_RPLY, struct.pack("!HH", 0, 1) + url, xid=xid, language=language)
        case "noise":
            return bytes(range(255, 100, -1))
    raise ValueError(kind)


class SlpService:
    def __init__(self, scenario, journal, address, port):
        self.settings = scenario["slp"]
        self.journal = journal
        self.asked = 0
        self.has_answered = threading.Event()
        # A socket that is bound to an address of the machine does not get what goes to the group.
        any_address = address == "0.0.0.0"
        self.sockets = [self.open(bound, port) for bound in
                        ((address,) if any_address else (address, GROUP))]
        if not join_group(self.sockets[-1], address):
            journal.line("SLP", "no interface takes part in multicast; only unicast is heard")

    @staticmethod
    def open(address, port):
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        sock.bind((address, port))
        return sock

    def run(self):
        while True:
            for sock in select.select(self.sockets, [], [])[0]:
                data, ancillary, _, peer = sock.recvmsg(MAX_DATAGRAM, socket.CMSG_SPACE(12))
                to_group = any(
                    PKTINFO.unpack(content)[2] == socket.inet_aton(GROUP)
                    for level, kind, content in ancillary
                    if (level, kind) == (socket.IPPROTO_IP, IP_PKTINFO))
                # A peer that cannot be answered must not end the service.
                with contextlib.suppress(OSError):
                    self.handle(data, peer, to_group)

    def handle(self, data, peer, to_group):
        who = f"{peer[0]}:{peer[1]}"
        try:
            request, problems = parse_request(data)
        except BadMessage as error:
            self.journal.problem(f"SLP {who}: {error} in {data[:64]!r}")
            return
        for problem in problems:
            self.journal.problem(f"SLP {who}: {problem}")

        asks = f"{who} asks {'the group' if to_group else 'directly'} for {request['url']}"
        own = address_towards(peer[0])
        if request["url"] != SERVICE or SCOPE not in request["scopes"].lower().split(","):
            self.journal.line("SLP", f"{asks} in scope {request['scopes']} -> not ours, ignored")
            return
        if own in request["responders"].split(","):
            self.journal.line("SLP", f"{asks} -> has our answer already")
            return

        number = self.journal.record("slp", request_bin=data)
        self.asked += 1
        if self.asked <= self.settings["ignore"]:
            self.journal.line("SLP", f"{asks} -> request {self.asked} is ignored")
            return
        replies = self.settings["replies"]
        turn = min(self.asked - self.settings["ignore"], len(replies))
        kinds = replies[turn - 1] if replies else []
        cluster_ip = self.settings["cluster_ip"] or own
        for kind in kinds:
            datagram = build_reply(kind, request, cluster_ip)
            self.journal.record("slp", number, answer_bin=datagram)
            self.sockets[0].sendto(datagram, peer)
            self.has_answered.set()
        told = [f"ClusterIP={cluster_ip}" if kind == "good" else kind for kind in kinds]
        self.journal.line("SLP", f"{asks} -> " +
                          (f"answered {', '.join(told)}" if told else "silence"))

"""Those who use the box that is soaked, and those who harm it. Each is a thread with an address of its own."""

import http.client
import socket
import threading
import time
import traceback
import xml.etree.ElementTree as ElementTree

import raw_http
import stage
from soak_judge import ANSWER_LIMIT, RELEASE, SLP_SIZE, Broken, now
from raw_http import GREETING, post, read_all
from zel import NotUnderstood, slp
from zel.soap import (AGENT, CONNECTOR, NAMESPACES, OnePieceConnection, element, envelope, find, local_name, operation,
                      parse)

DESCRIPTIONS = [(CONNECTOR, query) for query in ("wsdl", "xsd=1", "xsd=2", "xsd=3", "xsd=4")] + [(AGENT, "wsdl")]
TEXT = "".join(f"{number:07} what a vehicle has said, and what it has been asked\n" for number in range(50000))
TEXT_FILE = "/tmp/soak.txt"
KEPT_TIME = 2  # seconds that a kept connection is trusted; the box closes it after five
PAUSE = 0.25 if RELEASE else 0.6  # mean seconds between two turns of a client
SLP_TRIES, SLP_TIMEOUT = 5, 2  # datagrams may be lost
TYPES = "service:zel.connector,service:hux-vci,"


def legacy_form(function, values):
    packet = "<?xml version='1.0'?><wddxPacket version='1.0'><header/><data><struct>" + "".join(
        f"<var name='{key}'>{element('string', value)}</var>" for key, value in values.items()) \
        + "</struct></data></wddxPacket>"
    parts = "".join(f'--soak\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{content}\r\n'
                    for name, content in (("FunctionName", function), ("packet", packet)))
    return f"{parts}--soak--\r\n".encode()


class Client:
    """Asks the box by HTTP and SLP, and judges the answers."""

    def __init__(self, judge, random, address=None):
        self.judge = judge
        self.random = random
        self.address = address
        self.connection = None
        self.used = 0

    def source(self):
        return (self.address, 0) if self.address else None

    def connect(self, port):
        since = now()
        if self.connection and (self.connection.port != port or since - self.used > KEPT_TIME
                                or self.connection.sock is None):
            self.close()
        if not self.connection:
            self.connection = OnePieceConnection(stage.BOX, port, ANSWER_LIMIT, source_address=self.source())
            self.connection.connect()
            self.judge.answered("connect", since)

    def close(self):
        if self.connection:
            self.connection.close()
        self.connection = None

    def http(self, kind, method, path, body=None, port=5302, status=200, **headers):
        """The body of the answer."""
        connecting = since = now()
        phase = "connecting"
        try:
            self.connect(port)
            phase, since = "asking", now()
            self.connection.request(method, path, body, headers)
            response = self.connection.getresponse()
            data = response.read()
            self.used = now()
            if response.will_close:
                self.close()
        except (OSError, http.client.HTTPException) as error:
            self.close()
            self.judge.unanswered(f"{kind}, {phase}", connecting, error)
        self.judge.right(kind, since, response.status == status, f"status {response.status}: {data[:200]}")
        self.judge.answered(kind, since)
        return data

    @staticmethod
    def reset(connection):
        raw_http.reset_on_close(connection)
        connection.close()

    def send_and_reset(self, data, read=0):
        since = now()
        try:
            connection = socket.create_connection((stage.BOX, 5302), ANSWER_LIMIT, self.source())
            connection.sendall(data)
            if read:
                connection.recv(read)
            self.reset(connection)
        except OSError as error:
            self.judge.unanswered("vanish", since, error, "silence")

    def soap(self, name, path=CONNECTOR, /, **values):
        since = now()
        text = envelope(operation(name, self.random.choice(["", NAMESPACES[path]]), **values)).encode()
        headers = {"Connection": "Keep-Alive"} if self.random.random() < 0.5 else {}
        body = text
        if self.random.random() < 0.2:  # in chunks
            body = iter([text[:50], text[50:]])
        data = self.http(name, "POST", path, body, **headers)
        try:
            root = parse(data)
        except NotUnderstood as error:
            self.judge.right(name, since, False, f"{error}: {data[:500]}")
        answer = root[0][0]
        # Of the faults there are only those that are asked for.
        self.judge.right(name, since, local_name(answer) in (name + "Response", "Fault"), f"{data[:500]}")
        return answer

    def code(self, name, /, **values):
        answer = self.soap(name, **values)
        code = find(answer, "error")
        self.judge.right(name, now(), code is not None, ElementTree.tostring(answer)[:500])
        return int(code), answer

    def legacy(self, function, /, **values):
        return self.http(function, "POST", "/rKo", legacy_form(function, values),
                         port=self.random.choice([80, 5302]),
                         **{"Content-Type": "multipart/form-data; boundary=soak"}).decode()

    def information(self):
        since, before = now(), self.judge.snapshot()
        _, answer = self.code("getDeviceInformation")
        for name in ("kl15", "kl30", "vin"):
            self.judge.see_value("getDeviceInformation", since, name, find(answer, name))
        state, owner = find(answer, "state"), find(answer, "sessionOwnerOrNull")
        self.judge.see_owner("getDeviceInformation", since, before, state, owner)
        return state, owner

    def free_lost(self, owner):
        """Releases a reservation whose owner has not got the answer."""
        if owner in self.judge.lost:
            self.legacy("rkoReleaseDevice", DeviceOwner=owner)

    def slp(self, kind, function, fields, answered, address=stage.BOX):
        """The fields behind the error code of the answer."""
        since = now()
        xid = self.random.randrange(1, 1 << 16)
        request = slp.message(function, *fields, xid=xid)
        with slp.open_client(self.address) as asking:
            asking.settimeout(SLP_TIMEOUT)
            for attempt in range(SLP_TRIES):
                sent = now()
                try:
                    asking.sendto(request, (address, slp.PORT))
                    while True:
                        answer = asking.recv(65536)
                        if answer[10:12] == xid.to_bytes(2, "big"):
                            break
                except OSError as error:
                    if not self.judge.is_undisturbed(since) or attempt == SLP_TRIES - 1:
                        self.judge.unanswered(kind, since, error, "discovery")
                    continue
                break
        self.judge.answered(kind, sent, "good" if attempt == 0 else "good, asked again")
        try:
            fields = slp.read_reply(answer, answered)
        except slp.BadMessage as error:
            self.judge.right(kind, since, False, f"{error}: {answer!r}", "discovery")
        self.judge.right(kind, since, len(answer) <= SLP_SIZE, f"{answer!r}", "discovery")
        return fields


class Gate:
    """Lets the clients in; closed, it waits until those inside have come to an end."""

    def __init__(self):
        self.changed = threading.Condition()
        self.closed = True
        self.ended = False
        self.inside = 0

    def enter(self):
        with self.changed:
            self.changed.wait_for(lambda: not self.closed or self.ended)
            self.inside += 1
            return not self.ended

    def leave(self):
        with self.changed:
            self.inside -= 1
            self.changed.notify_all()

    def open(self):
        with self.changed:
            self.closed = False
            self.changed.notify_all()

    def close(self, timeout):
        """True when all have left."""
        with self.changed:
            self.closed = True
            return self.changed.wait_for(lambda: self.inside == 0, timeout)

    def end(self):
        with self.changed:
            self.ended = True
            self.changed.notify_all()


class Actor(Client, threading.Thread):
    """Takes turns with pauses, while the gate is open."""

    def __init__(self, judge, random, address, gate):
        Client.__init__(self, judge, random, address)
        threading.Thread.__init__(self, name=f"{type(self).__name__}-{address}", daemon=True)
        self.gate = gate
        self.turns = 0

    def run(self):
        stage.enter_network(stage.namespace_path("client"))
        while self.gate.enter():
            try:
                self.turns += 1
                self.turn()
            except Broken:
                pass
            except Exception:
                self.judge.check("answered", False, f"{self.name}: {traceback.format_exc()}")
            finally:
                if self.gate.closed:
                    self.close()
                self.gate.leave()
            time.sleep(min(self.random.expovariate(1 / PAUSE), 5 * PAUSE))


class Reader(Actor):
    """Reads information, descriptions and files."""

    def __init__(self, judge, random, address, gate, settings):
        super().__init__(judge, random, address, gate)
        self.settings = settings

    def turn(self):
        self.random.choice([self.information, self.information, self.describe, self.greet, self.look_for_nothing,
                            self.download, self.download, self.download_settings, self.dawdle])()

    def describe(self):
        path, query = self.random.choice(DESCRIPTIONS)
        since = now()
        data = self.http("description", "GET", f"{path}?{query}")
        root = local_name(parse(data))
        self.judge.right("description", since, root == ("schema" if query.startswith("xsd") else "definitions")
                         and (root == "schema" or stage.BOX.encode() in data), f"{query}: {root}")

    def greet(self):
        since = now()
        data = self.http("/test", "GET", "/test", port=self.random.choice([80, 5302]))
        self.judge.right("/test", since, data == GREETING, f"{data[:100]}")

    def look_for_nothing(self):
        self.http("not found", "GET", self.random.choice(["/nothing", "/", "/zel", "/web/show.jsp?file=/etc/hostname",
                                                          "/web/show.jsp?file=/tmp/none"]), status=404)

    def file(self, path):
        return self.http("download", "GET", f"/web/show.jsp?file={path}", port=self.random.choice([80, 5302]))

    def download(self):
        since = now()
        if self.random.random() < 0.5:
            data = self.file(TEXT_FILE)
            self.judge.right("download", since, data == TEXT.encode(), f"{len(data)} other bytes")
        else:
            data = self.file(stage.AGENT_LOG)
            self.judge.right("download", since, len(data) > 0, "the log is empty")

    def download_settings(self):
        self.settings.check(self.file(f"/tmp/..{stage.CONFIGURATION}").decode(), "the download")

    def dawdle(self):
        """A request that comes slowly is one all the same."""
        since = now()
        request = post(envelope("<getDeviceInformation/>"))
        try:
            with socket.create_connection((stage.BOX, 5302), ANSWER_LIMIT, self.source()) as slow:
                for start in range(0, len(request), 30):
                    slow.sendall(request[start:start + 30])
                    time.sleep(0.1)
                answer = read_all(slow)
        except OSError as error:
            self.judge.unanswered("slow", since, error)
        self.judge.right("slow", since, answer.endswith(b"Envelope>\n"), f"{answer[-200:]}")
        self.judge.answered("slow", since)


class Seeker(Actor):
    """Looks for boxes by SLP, in all ways."""

    def turn(self):
        group = self.random.choice([stage.BOX, stage.BOX, slp.GROUP, "239.255.1.1"])
        self.random.choice([self.ask_attributes, self.ask_attributes, self.ask_legacy, self.ask_services,
                            self.ask_types])(group)

    def attributes(self, kind, url, group):
        return self.slp(kind, slp.ATTR_RQST, ["", url, slp.SCOPE, "", ""], slp.ATTR_RPLY, group).text("attributes")

    def ask_attributes(self, group):
        since, before = now(), self.judge.snapshot()
        text = self.attributes("SLP attributes", self.random.choice([slp.CONNECTOR, ""]), group)
        found = dict(part.partition("=")[::2] for part in text[1:-1].split("),("))
        self.judge.right("SLP attributes", since, f"TAVO{found.get('Serial', '')}".endswith(stage.DEVICE_ID)
                         and found["UUID"][:8] == "00000000", text, "discovery")
        if "(" not in (before[0] or ""):  # an owner with reserved characters stands there in another way
            self.judge.see_value("SLP attributes", since, "kl30", found["Kl30Voltage"])
            self.judge.see_value("SLP attributes", since, "vin", found["VIN"])
            if "<" not in found["Owner"] and "\\" not in found["Owner"] and "(" not in found["Owner"]:
                self.judge.see_owner("SLP", since, before, found["State"], found["Owner"])

    def ask_legacy(self, group):
        since = now()
        text = self.attributes("SLP legacy attributes", "service:hux-vci", group)
        self.judge.right("SLP legacy attributes", since, f"(IpAddress={stage.BOX})" in text, text, "discovery")

    def ask_services(self, group):
        since = now()
        fields = self.slp("SLP services", slp.SRV_RQST,
                          ["", self.random.choice(["", slp.CONNECTOR, "service:hux-vci"]), slp.SCOPE, "", ""],
                          slp.SRV_RPLY, group)
        self.judge.right("SLP services", since, TYPES.encode() in fields.rest(), f"{fields.rest()}", "discovery")

    def ask_types(self, group):
        since = now()
        fields = self.slp("SLP types", slp.TYPE_RQST, ["", slp.ALL_AUTHORITIES, slp.SCOPE], slp.TYPE_RPLY, group)
        self.judge.right("SLP types", since, TYPES.encode() in fields.rest(), f"{fields.rest()}", "discovery")

"""What strangers send to the box that is soaked: broken HTTP, SOAP, WDDX and SLP."""

import contextlib
import socket

import stage
from soak_clients import TEXT_FILE, Actor, legacy_form
from soak_judge import ANSWER_LIMIT, SILENCE_LIMIT, now
from raw_http import post, read_all
from zel import slp
from zel.soap import AGENT, CONNECTOR, envelope

FULL_BODY = (1 << 20) - 200  # as many bytes as the box takes


class Stranger(Actor):
    """Sends rubbish. It never asks for a reservation, so that none can come of it."""

    def turn(self):
        if self.random.random() < 0.3:
            return self.send_datagrams()
        make = self.random.choice([self.heads, self.bodies, self.documents, self.documents, self.forms, self.mutants])
        return self.send(make())

    def send(self, data):
        since = now()
        answer = b""
        try:
            with socket.create_connection((stage.BOX, 5302), ANSWER_LIMIT, self.source()) as connection:
                connection.settimeout(ANSWER_LIMIT + SILENCE_LIMIT)
                try:
                    connection.sendall(data)
                    if self.random.random() < 0.5:
                        with contextlib.suppress(OSError):  # the box has closed it already
                            connection.shutdown(socket.SHUT_WR)
                    answer = read_all(connection)
                except (ConnectionResetError, BrokenPipeError):
                    pass
        except OSError as error:
            self.judge.unanswered("rubbish", since, error, "silence")
        self.judge.right("rubbish", since, answer[:8] in (b"", b"HTTP/1.0") and b"<handle>" not in answer,
                         f"{answer[:300]}", "silence")
        self.judge.answered("rubbish", since, "answered" if answer else "closed")

    def noise(self, most=2000):
        return self.random.randbytes(self.random.randint(1, most))

    def heads(self):
        number = self.random.choice(["-5", "99999999999999999999", "0x10", "", "1e3", "+1", "10\r\nContent-Length: 5"])
        return self.random.choice([
            self.noise(), b"\r\n" * 50, b"GET\r\n\r\n", b"GET /test\r\n\r\n", b"\0" * 100,
            b"GET /" + b"a" * 70000 + b" HTTP/1.0\r\n\r\n",
            b"GET /test HTTP/1.0\r\n" + b"X: y\r\n" * 20000 + b"\r\n",
            b"GET /test HTTP/9.9\r\nno colon here\r\n: \r\n\r\n",
            f"POST {CONNECTOR} HTTP/1.1\r\nContent-Length: {number}\r\n\r\n<a/>".encode()])

    def bodies(self):
        chunks = self.random.choice([b"zzz\r\n", b"-1\r\n", b"ffffffff\r\nabc", b"5\r\nabc\r\n0\r\n\r\n",
                                     b"5;x=" + b"y" * 5000 + b"\r\nabcde\r\n0\r\n\r\n", b"3\r\nabc"])
        return self.random.choice([
            f"POST {CONNECTOR} HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n".encode() + chunks,
            post(b"<a", length=400), post(b"x" * 500, length=1 << 21), post(self.noise(), "/rKo")])

    def documents(self):
        path = self.random.choice([CONNECTOR, AGENT])
        count = self.random.choice([10, 200, 3000])
        text = self.random.choice([
            "<a>", "<a/>" * count, "<a>" * count, envelope("<a>" * count + "</a>" * count),
            envelope("<getDeviceInformation>" + "<a/>" * count + "</getDeviceInformation>"),
            envelope("<a " + " ".join(f'a{i}="1"' for i in range(count)) + "/>"),
            envelope("<a " + " ".join(f'xmlns:a{i}="u{i}"' for i in range(count)) + "/>"),
            envelope("<releaseDevice><handle>" + "x" * count * 30 + "</handle></releaseDevice>"),
            envelope(f"<executeGenericCommand><handle>{count}</handle><pSubSystem>../..</pSubSystem>"
                     "<pCommand>$(reboot)</pCommand></executeGenericCommand>"),
            envelope("<isServiceRunning><name>\n== FATAL: forged</name></isServiceRunning>"),
            '<!DOCTYPE a [<!ENTITY b "' + "c" * 100 + '"><!ENTITY d "' + "&b;" * 100 + '">]>'
            + envelope("<a>&d;&d;</a>"),
            '<!DOCTYPE a [<!ENTITY b SYSTEM "file:///etc/passwd">]>' + envelope("<isServiceRunning><name>&b;</name>"
                                                                                "</isServiceRunning>"),
            "<a/>" * (FULL_BODY // 4)])
        data = text.encode()
        if self.random.random() < 0.2:
            data = data.replace(b"a", b"\xff\xfe")
        return post(data, path)

    def forms(self):
        form = legacy_form("rkoGetDeviceStatus", {"DeviceOwner": "x" * self.random.choice([1, 5000])})
        return post(self.random.choice([
            form.replace(b"--soak", b"--other", 1), form.replace(b"\r\n\r\n", b"\r\n"), form[:100],
            form.replace(b"rkoGetDeviceStatus", b"rko\nforged"), form.replace(b"<data>", b"<data" + b" a='1'" * 50),
            form.replace(b"<struct>", b"<struct>" * 3000)]), "/rKo")

    def mutants(self):
        data = bytearray(self.random.choice([
            post(envelope("<getDeviceInformation/>")),
            post(envelope("<getMonitoringStatus><groupId>TAVO</groupId></getMonitoringStatus>"), AGENT),
            post(legacy_form("rkoGetDeviceStatus", {"DeviceOwner": "x"}), "/rKo")]))
        for _ in range(self.random.randint(1, 8)):
            position = self.random.randrange(len(data))
            data[position:position + self.random.randint(0, 2)] = self.noise(2)
        return bytes(data)

    def send_datagrams(self):
        good = slp.attribute_request()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.bind((self.address, 0))
            for _ in range(20):
                data = bytearray(self.random.choice([good, good, self.noise(), bytes(4096)]))
                for _ in range(self.random.randint(1, 5)):
                    data[self.random.randrange(len(data))] = self.random.randrange(256)
                try:
                    stranger.sendto(data[:self.random.choice([len(data), len(data) // 2])],
                                    (stage.BOX, slp.PORT))
                except OSError:
                    pass  # the cable is out
        self.judge.outcomes["SLP rubbish"]["sent"] += 20


class Vanishing(Actor):
    """Connects, and leaves in every way but the proper one."""

    def turn(self):
        self.random.choice([self.leave, self.leave_in_download, self.crowd, self.fall_silent])()
        self.judge.outcomes["vanish"]["done"] += 1

    def open(self):
        return socket.create_connection((stage.BOX, self.random.choice([80, 5302])), ANSWER_LIMIT, self.source())

    def leave(self):
        request = post(envelope("<getDeviceInformation/>"))
        self.send_and_reset(request[:self.random.choice([0, 1, 40, len(request) - 5, len(request)])])

    def leave_in_download(self):
        self.send_and_reset(f"GET /web/show.jsp?file={TEXT_FILE} HTTP/1.0\r\n\r\n".encode(), 4096)

    def crowd(self):
        since = now()
        connections = []
        try:
            for _ in range(12):
                connections.append(self.open())
        except OSError as error:
            self.judge.unanswered("vanish", since, error, "silence")
        finally:
            for connection in connections:
                self.reset(connection)

    def fall_silent(self):
        """Half a request, or none, and then nothing: the box ends the connection."""
        since = now()
        try:
            with self.open() as connection:
                connection.settimeout(0.2)
                connection.sendall(self.random.choice([b"", b"POST ", b"GET /test HTTP/1.0\r\nHost"]))
                while not self.gate.closed:
                    try:
                        if not connection.recv(65536):
                            break
                    except TimeoutError as late:
                        if now() - since > SILENCE_LIMIT:
                            self.judge.unanswered("silent", since, late, "silence")
        except ConnectionResetError:
            pass
        except OSError as error:
            self.judge.unanswered("silent", since, error, "silence")
        if not self.gate.closed:
            self.judge.answered("silent", since)

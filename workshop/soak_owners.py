"""Those who reserve the box that is soaked, each in his way."""

import socket
import time

import stage
from soak_clients import Actor
from soak_judge import ANSWER_LIMIT, BUSY_TIME, Broken, now
from raw_http import post
from zel.soap import AGENT, envelope, find, local_name, operation

SERVICE_OWNER = "VCI-Agent"


class Owner(Actor):
    """Reserves, uses and releases the box."""

    HOSTS = ["", "0", "192.168.68.11", "192.168.70.9", "10.1", "nobody's"]

    def turn(self):
        owner = f"{self.address}-{self.turns}{self.random.choice(['', '', ' <&>', ' x),(State=4'])}"
        host = self.random.choice(self.HOSTS)
        epoch = self.judge.reserving(owner)
        if self.random.random() < 0.05:
            self.judge.lose(owner, epoch)
            return self.vanish(owner, host)
        since = now()
        with self.judge.losing(owner, epoch):
            code, answer = self.code("reserveDevice", deviceId=stage.DEVICE_ID, owner=owner, hostLock=host)
        if code != 0:
            self.judge.released(owner, epoch)
            hot = code == 21 and not self.judge.was_always("hot", False, since)
            self.judge.right("reserveDevice", since, code == 10 or hot, f"refused with {code}", "reservation")
            self.judge.outcomes["reserveDevice"]["refused"] += 1
            self.free_lost(self.information()[1])
            return None
        self.judge.right("reserveDevice", since, not self.judge.was_always("hot", True, since),
                         "a box too hot is reserved", "reservation")
        if self.judge.reserved(owner, epoch):
            try:
                self.use(owner, epoch, find(answer, "handle"), host)
            finally:
                self.give_back(owner, epoch, find(answer, "handle"))
        return None

    def vanish(self, owner, host):
        self.send_and_reset(post(envelope(operation(
            "reserveDevice", deviceId=stage.DEVICE_ID, owner=owner, hostLock=host))))
        self.judge.outcomes["reserveDevice"]["gone before the answer"] += 1

    def use(self, owner, epoch, handle, host):
        uses = [self.look_at_rules, self.lock, self.command, self.intrude, self.see]
        for use in self.random.sample(uses, self.random.randint(1, 4)):
            if not self.judge.holds(owner, epoch):
                return
            host = use(owner, epoch, handle, host) or host

    def expect(self, epoch, name, wanted, /, **values):
        since = now()
        code, answer = self.code(name, **values)
        if epoch == self.judge.epoch and not (code != 0 and now() - since > BUSY_TIME):
            self.judge.right(name, since, code == wanted, f"{code} and not {wanted} for {values}", "reservation")
        return answer

    @staticmethod
    def dotted(host):
        try:
            return socket.inet_ntoa(socket.inet_aton(host or "0"))
        except OSError:
            return "255.255.255.255"

    def look_at_rules(self, owner, epoch, _handle, host):
        self.judge.check_rules(self.dotted(host), still=lambda: self.judge.holds(owner, epoch))

    def lock(self, owner, epoch, handle, _host):
        host = self.random.choice(self.HOSTS[1:])
        self.expect(epoch, "setHostLock", 0, handle=handle, hostLock=host)
        self.look_at_rules(owner, epoch, handle, host)
        return host

    def command(self, _owner, epoch, handle, _host):
        subsystem, command = self.random.choice([("diag", "echo"), ("diag", "fail"), ("vehicle", "voltage")])
        name, since = "executeGenericCommand", now()
        text = f"a <b> & {self.random.random()}"
        code, answer = self.code(name, handle=handle, pSubSystem=subsystem, pCommand=command,
                                 pParameters=[{"key": "said", "value": text}])
        key, value = find(answer, "key"), find(answer, "value")
        if epoch != self.judge.epoch:
            return
        good = code == 0 and key == ("error" if command == "fail" else "result")
        if command == "echo":
            good = good and value == f"said={text}"
        elif command == "voltage":
            voltages = dict(part.split("=") for part in value.split()) if good else {}
            good = set(voltages) == {"kl15", "kl30"}
            for voltage in voltages:
                self.judge.see_value(name, since, voltage, voltages[voltage])
        self.judge.right(name, since, good, f"{command} answers {code}, {key}, {value}", "reservation")

    def intrude(self, _owner, epoch, _handle, _host):
        """What others try while the box is taken."""
        device = stage.DEVICE_ID
        self.expect(epoch, "releaseDevice", 7, handle=self.random.choice(["", "0", "12345"]), deviceId=device)
        self.expect(epoch, "setHostLock", 7, handle="4711", hostLock="192.168.68.66")
        self.expect(epoch, "switchMode", 7, deviceId=device, mode="1", handle="")
        self.expect(epoch, "reserveDevice", 20, deviceId="TAVO0000000", owner="intruder", hostLock="")

    def see(self, _owner, _epoch, _handle, _host):
        self.information()

    def give_back(self, owner, epoch, handle):
        """Releases it, and goes on asking for that until there is an answer, or another agent."""
        self.judge.releasing(owner)
        broken = False
        end = now() + 3 * ANSWER_LIMIT
        while epoch == self.judge.epoch and now() < end:
            since = now()
            try:
                code, _ = self.code("releaseDevice", handle=handle, deviceId=stage.DEVICE_ID)
            except Broken:
                broken = True
                time.sleep(0.3)
                continue
            busy = code != 0 and now() - since > BUSY_TIME
            if busy and not broken:
                continue
            if epoch == self.judge.epoch:
                self.judge.check("reservation", code == 0 or broken, f"releaseDevice: {owner!r} is answered {code}")
            self.judge.released(owner, epoch)
            return
        self.judge.lose(owner, epoch)


class LegacyOwner(Owner):
    def turn(self):
        owner = f"old {self.address}-{self.turns}"
        epoch = self.judge.reserving(owner)
        since = now()
        with self.judge.losing(owner, epoch):
            text = self.legacy("rkoAllocateDevice", DeviceOwner=owner, IfhClientIpAddr="ANY_HOST")
            taken = "<number>0/number>" in text
            self.judge.right("rkoAllocateDevice", since, taken or "<number>42030/number>" in text, text)
            if not taken:
                self.judge.released(owner, epoch)
                self.judge.outcomes["rkoAllocateDevice"]["refused"] += 1
            elif self.judge.reserved(owner, epoch):
                try:
                    self.look_at_status(owner, epoch)
                finally:
                    self.judge.releasing(owner)
                self.let_go(owner, epoch)

    def look_at_status(self, owner, epoch):
        self.look_at_rules(owner, epoch, None, "0")
        since = now()
        status = self.legacy("rkoGetDeviceStatus", Any="")
        if self.judge.holds(owner, epoch):
            self.judge.right("rkoGetDeviceStatus", since, f'"DeviceOwner"><string>{owner}<' in status
                             and '"IsAllocated"><string>1<' in status, status, "true state")

    def let_go(self, owner, epoch):
        """A release has no answer of its own, and one that is busy leaves it to be asked again."""
        since = now()
        self.legacy("rkoReleaseDevice", DeviceOwner=owner)
        if now() - since < BUSY_TIME or self.information()[1] != owner:
            self.judge.released(owner, epoch)
        else:
            self.judge.lose(owner, epoch)


class Supervisor(Owner):
    """Stops and starts the service, asks how the box is."""

    def turn(self):
        if SERVICE_OWNER in self.judge.possible:  # the last answer was lost
            self.start_service(self.judge.epoch)
        choice = self.random.choice(["stop", "stop", "doSelftest", "getMonitoringStatus", "restartDevice"])
        if choice == "stop":
            return self.stop_service()
        values = {"groupId": "TAVO"} if choice == "getMonitoringStatus" else {}
        since = now()
        answer = self.soap(choice, AGENT, **values)
        text = find(answer, "return") if choice == "doSelftest" else find(answer, "status")
        wanted = {"doSelftest": "30-network: OK", "getMonitoringStatus": "OK"}.get(choice, "")
        return self.judge.right(choice, since, wanted in (text or ""), f"answers {text}")

    def stop_service(self):
        epoch = self.judge.reserving(SERVICE_OWNER)
        answer = self.soap("stopService", AGENT, name=SERVICE_OWNER)
        if local_name(answer) == "Fault":
            self.judge.released(SERVICE_OWNER, epoch)
            self.judge.outcomes["stopService"]["refused"] += 1
            return
        if not self.judge.reserved(SERVICE_OWNER, epoch):
            return
        self.look_at_rules(SERVICE_OWNER, epoch, None, "127.0.0.1")
        running = self.soap("isServiceRunning", AGENT, name=SERVICE_OWNER)
        if self.judge.holds(SERVICE_OWNER, epoch):
            self.judge.right("isServiceRunning", now(), find(running, "return") == "false", "it is said to run")
        if self.random.random() < 0.3:
            self.come_in_between(epoch)
        self.start_service(epoch)

    def come_in_between(self, epoch):
        """Somebody frees the stopped box, takes it, and must have it when the service is started."""
        self.judge.releasing(SERVICE_OWNER)
        self.legacy("rkoReleaseDevice", DeviceOwner=SERVICE_OWNER)
        owner = f"between-{self.turns}"
        taken = self.judge.reserving(owner)
        with self.judge.losing(owner, taken):
            code, answer = self.code("reserveDevice", deviceId=stage.DEVICE_ID, owner=owner, hostLock="")
        if code != 0:
            self.judge.released(owner, taken)
        elif self.judge.reserved(owner, taken):
            try:
                self.start_service(epoch)
                self.information()
            finally:
                self.give_back(owner, taken, find(answer, "handle"))

    def start_service(self, epoch):
        self.judge.releasing(SERVICE_OWNER)
        self.soap("startService", AGENT, name=SERVICE_OWNER)
        self.judge.released(SERVICE_OWNER, epoch)

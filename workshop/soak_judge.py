"""What must hold of a box that is soaked, and what the clients have seen of it.

Every check has a name; how often it was looked at, and what it found, is in the table at the end.
"""

import collections
import contextlib
import math
import pathlib
import subprocess
import threading
import time

import stage

RELEASE = not stage.SANITIZED
# Bounds of the agent's process; a sanitizer keeps what was freed, and has a thread of its own.
RESIDENT_SPREAD = 4 << 10 if RELEASE else 600 << 10   # kB above the rest at the start
RESIDENT_GROWTH = 1 << 10 if RELEASE else 300 << 10   # kB from the second third of a long life to the last
RESIDENT_PEAK = 96 << 10 if RELEASE else 2 << 20      # kB
THREADS_AT_REST = 4 if RELEASE else 6
DESCRIPTORS_SPREAD = 2
THREADS_PEAK = 210
PROCESSES_LEFT = ("udhcpc", "zcip", "avahi-autoipd", "wpa_supplicant")  # they keep the network

ANSWER_LIMIT = 20 if RELEASE else 60  # seconds
SILENCE_LIMIT = 5 + 10                # seconds until a connection that is silent ends, on a busy machine
BUSY_TIME = 2                         # seconds after which a reservation may be refused as busy
SLP_SIZE = 1400                       # most bytes of an answer
LOG_LINES = 60
SHOWN = 3                             # findings of a check that are shown

PORTS = {str(port) for port in stage.PORTS}
SITE_RULES = ["-A INPUT -j site", "-A INPUT -p tcp -m tcp --dport 9998 -j ACCEPT"]
BAD_WORDS = (*stage.COMPLAINTS, "FATAL: Segmentation fault")

CHECKS = {
    "one owner": "nobody is told that he has the box while somebody else has it",
    "true state": "the box shows the owner it has, and none that is gone",
    "reservation": "who has the box can use and release it, nobody else can; a free box can be had",
    "rules": "four rules for the host of a reservation, none for a free box, those of the site untouched",
    "settings": "what was saved is there after every start; the file is whole at every moment",
    "values": "every answer shows values that were true meanwhile",
    "answered": "every well-formed request is answered in time, and correctly",
    "discovery": "every SLP question is answered",
    "silence": "a connection that falls silent ends, and so does one that sends rubbish",
    "memory": "resident memory comes back to rest, does not grow, and has a peak",
    "threads": "threads and descriptors come back to rest",
    "output": "no sanitizer and no fault speaks up; the agent ends only when told",
    "start and stop": "it serves in time after a start; SIGTERM ends it in time, with status 0, and leaves nothing",
    "sign-in": "the manager finds nothing wrong with what the box sends",
}


def now():
    return time.monotonic()


class Broken(Exception):
    """An exchange without a usable answer; the judge knows of it."""


class Judge:
    def __init__(self):
        self.lock = threading.RLock()
        self.start = now()
        self.looked = collections.Counter()
        self.findings = collections.defaultdict(list)
        self.tails = {}  # of the log, when a check failed first
        self.outcomes = collections.defaultdict(collections.Counter)
        self.seconds = collections.defaultdict(list)
        self.calm_from = math.inf
        self.epoch = 0
        self.holder = None
        self.possible = set()  # owners whose reservation may exist
        self.lost = set()      # those of them that have got no answer, and care no more
        self.gone = {}         # owners whose reservation cannot, and since when
        self.history = {}

    def check(self, name, good, text):
        """Looks at what must hold; `text` says what was seen instead."""
        with self.lock:
            self.looked[name] += 1
            if good:
                return True
            if not self.findings[name]:
                self.tails[name] = stage.log().splitlines()[-LOG_LINES:]
            self.findings[name].append(text)
            if len(self.findings[name]) <= SHOWN:
                self.tell(f"FAILED {name} ({CHECKS[name]}): {text}")
        return False

    def tell(self, text):
        print(f"{now() - self.start:7.2f} {text}", flush=True)

    # What disturbs answers -----------------------------------------------------------------------

    def disturb(self):
        self.calm_from = math.inf

    def calm(self, grace):
        """Requests that begin from `grace` seconds on must be answered."""
        self.calm_from = now() + grace

    def is_undisturbed(self, since):
        return since >= self.calm_from

    # Requests ------------------------------------------------------------------------------------

    def answered(self, kind, since, outcome="good"):
        with self.lock:
            self.outcomes[kind][outcome] += 1
            if self.is_undisturbed(since):
                self.seconds[kind].append(now() - since)

    def unanswered(self, kind, since, error, name="answered"):
        """Ends the client's exchange; a finding unless something has disturbed it."""
        calm = self.is_undisturbed(since)
        with self.lock:
            self.outcomes[kind]["failed" if calm else "broken"] += 1
        if calm:
            self.check(name, False, f"{kind}: {error!r} after {now() - since:.1f} s")
        raise Broken

    def right(self, kind, since, good, text, name="answered"):
        """The answer to a request is what it must be. What a kill or the cable has cut is broken."""
        if not good and not self.is_undisturbed(since):
            with self.lock:
                self.outcomes[kind]["broken"] += 1
            raise Broken
        if not self.check(name, good, f"{kind}: {text}"):
            raise Broken

    # The reservation -----------------------------------------------------------------------------
    # Certain is only what lies between the answer to a reservation and the sending of its release.

    def reserving(self, owner):
        with self.lock:
            self.possible.add(owner)
            self.gone.pop(owner, None)
            return self.epoch

    @contextlib.contextmanager
    def losing(self, owner, epoch):
        """What breaks here leaves the reservation to whoever finds it."""
        try:
            yield
        except Broken:
            self.lose(owner, epoch)
            raise

    def lose(self, owner, epoch):
        with self.lock:
            if epoch == self.epoch:
                self.lost.add(owner)

    def reserved(self, owner, epoch):
        """False when the agent that has said so has been ended since."""
        with self.lock:
            if epoch != self.epoch:
                return False
            self.check("one owner", self.holder is None, f"{owner!r} is told that he has the box, which "
                       f"{self.holder!r} has not released")
            self.holder = owner
        return True

    def holds(self, owner, epoch):
        return epoch == self.epoch and self.holder == owner

    def releasing(self, owner):
        with self.lock:
            if self.holder == owner:
                self.holder = None

    def released(self, owner, epoch):
        with self.lock:
            if epoch == self.epoch:
                self.possible.discard(owner)
                self.lost.discard(owner)
                self.gone[owner] = now()

    def ending_agent(self):
        with self.lock:
            self.disturb()
            self.epoch += 1
            self.gone |= dict.fromkeys(self.possible, now())
            self.possible.clear()
            self.lost.clear()
            self.holder = None

    def snapshot(self):
        with self.lock:
            return self.holder, self.epoch

    def see_owner(self, kind, since, before, state, owner):
        """Judges what an answer says; `before` is the snapshot at its request."""
        with self.lock:
            holder, epoch = before
            if epoch != self.epoch or not self.is_undisturbed(since):
                return
            if holder is not None and holder == self.holder:
                self.check("true state", (state, owner) == ("5", holder), f"{kind} shows state {state} of "
                           f"{owner!r} while {holder!r} has the box")
            elif state == "5":
                self.check("true state", self.gone.get(owner, math.inf) > since,
                           f"{kind} shows {owner!r}, whose reservation has ended "
                           f"{since - self.gone.get(owner, since):.1f} s before it was asked")

    # Values that change --------------------------------------------------------------------------

    def change(self, name, value, write):
        with self.lock:
            past = self.history.setdefault(name, [])
            del past[:-20]
            past.append([now(), math.inf, value])
        write()
        with self.lock:
            for entry in past[:-1]:
                entry[1] = min(entry[1], now())

    def see_value(self, kind, since, name, value):
        with self.lock:
            past = self.history[name]
            allowed = {text for _, end, text in past if end >= since}
        self.check("values", value in allowed, f"{kind}: {name} is {value!r} and not of {allowed}")

    def was_always(self, name, value, since):
        with self.lock:
            return all(text == value for _, end, text in self.history[name] if end >= since)

    # The packet filter ---------------------------------------------------------------------------

    def check_rules(self, host, timeout=0.0, still=lambda: True):
        """Four for that host, none for None; `still` tells whether that is still what must be."""
        end = now() + timeout
        while True:
            done = subprocess.run(stage.in_network("box", "sh", "-c", "iptables -S INPUT; "
                                                   "cat /proc/sys/net/ipv4/ip_forward"),
                                  capture_output=True, text=True, timeout=60)
            lines = done.stdout.splitlines()
            added = [line for line in lines if line.startswith("-A")]
            found = [line for line in added if line.split()[-3] in PORTS]
            wanted = [] if host is None else stage.port_rules("" if host == "0.0.0.0" else host)
            good = (found == wanted and [line for line in added if line not in found] == SITE_RULES
                    and lines[-1:] == ["0" if host is None else "1"])
            if not still():
                return
            if good or now() >= end:
                break
            time.sleep(0.2)
        self.check("rules", good, f"for {host or 'a free box'}: {'; '.join(lines)} {done.stderr}")


class Process:
    """The agent, seen by the kernel."""

    def __init__(self, judge, agent):
        self.judge = judge
        self.agent = agent
        self.process = agent.process
        self.rests = []

    def read(self):
        return {"descriptors": self.agent.descriptors(),
                **{name: self.agent.status(name) for name in ("VmRSS", "VmHWM", "Threads")}}

    def rest(self, timeout=SILENCE_LIMIT):
        """Waits until it has come to rest, and judges that."""
        end = now() + timeout
        while True:
            figures = self.read()
            first = self.rests[0] if self.rests else figures
            threads = (figures["Threads"] <= THREADS_AT_REST
                       and figures["descriptors"] <= first["descriptors"] + DESCRIPTORS_SPREAD)
            memory = figures["VmRSS"] <= first["VmRSS"] + RESIDENT_SPREAD
            if (threads and memory) or now() > end:
                break
            time.sleep(0.1)
        self.rests.append(figures)
        self.judge.check("threads", threads, f"at rest {figures}, in the beginning {first}")
        self.judge.check("memory", memory and figures["VmHWM"] <= RESIDENT_PEAK,
                         f"kB at rest {figures}, in the beginning {first}")

    def check_growth(self):
        third = len(self.rests) // 3
        if third >= 3:
            late, middle = (sum(rest["VmRSS"] for rest in part) / third
                            for part in (self.rests[-third:], self.rests[-2 * third:-third]))
            self.judge.check("memory", late - middle <= RESIDENT_GROWTH,
                             f"grows from {middle:.0f} to {late:.0f} kB at rest: "
                             f"{[rest['VmRSS'] for rest in self.rests]}")

    def check_output(self):
        text = self.agent.output()
        bad = [text[max(0, text.index(word) - 200):][:6000] for word in BAD_WORDS if word in text]
        self.judge.check("output", not bad, "\n".join(bad))


def processes_of_agent(mark):
    """Command lines of the processes that have inherited the agent's environment."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if mark.encode() in (path / "environ").read_bytes().split(b"\0"):
                found.append((path / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            pass  # it has just ended
    return found

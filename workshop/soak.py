"""Keeps a box busy in every way for some minutes, ends and starts its agent, and watches that nothing goes wrong.

Runs in a simulated box: script/soak MINUTES [SEED]. What is random comes from the seed; clients, kernel and agent
run side by side all the same, so that a seed repeats what is done and not when exactly it is.
"""

import argparse
import collections
import contextlib
import faulthandler
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time
import traceback

sys.dont_write_bytecode = True
import soak_clients
import soak_owners
import soak_rubbish
import stage
from soak_judge import (ANSWER_LIMIT, CHECKS, PROCESSES_LEFT, RELEASE, SITE_RULES, THREADS_PEAK, Broken, Judge, Process,
                        now, processes_of_agent)
from soak_manager import ManagerStage, Settings

SERVE_LIMIT = 60                       # seconds from the start of an agent to its first answer
STOP_LIMIT = 3 if RELEASE else 30      # a sanitizer looks for leaks at the end
QUIET_LIMIT = 3 * ANSWER_LIMIT         # seconds until the clients have come to the end of their turns
OVERTIME = 180                         # seconds after which a soak that does not end is given up
GRACE = 1, 10                          # seconds of calm after a start, after the cable's return
FREE_LOOKS = 3                         # a request whose client has gone may still be at work
RULES_TIMEOUT = 5                     # a sign-in may just have the box
LAST_START = 8                         # seconds before the end: later nothing is started
LIFE = 6, 1 / 8                        # seconds that an agent lives at least; most of it, of the whole time
MARK = {"SOAKED": str(os.getpid())}  # what the agent's processes inherit
ENDS = ["kill at work", "kill reserved", "term at work", "term reserved"]
EVENTS = ["cable", "manager", "quiet", "cable", "quiet"]


class Soak:
    def __init__(self, minutes, seed):
        self.seconds = minutes * 60
        self.chance = random.Random(f"{seed} soak")
        self.judge = Judge()
        self.settings = Settings(self.judge, ("soak", "white", "DE"))
        self.manager = ManagerStage(self.judge, self.settings, random.Random(f"{seed} manager"))
        self.gate = soak_clients.Gate()
        self.counts = collections.Counter()
        self.rests = []
        self.peaks = collections.Counter()
        self.ended = threading.Event()
        self.watched = None  # the agent that must not end
        self.asking = soak_clients.Client(self.judge, self.chance)
        kinds = [soak_owners.Owner] * 3 + [soak_owners.LegacyOwner, soak_owners.Supervisor, soak_clients.Seeker,
                                           soak_clients.Reader, soak_clients.Reader, soak_rubbish.Vanishing,
                                           soak_rubbish.Vanishing, soak_rubbish.Stranger, soak_rubbish.Stranger]
        self.actors = []
        for number, kind in enumerate(kinds, 11):
            more = [self.settings] if kind is soak_clients.Reader else []
            self.actors.append(kind(self.judge, random.Random(f"{seed} {number}"), f"192.168.68.{number}", self.gate,
                                    *more))
        self.changing = threading.Thread(target=self.change_values, args=[random.Random(f"{seed} values")], daemon=True)
        self.watching = threading.Thread(target=self.watch, daemon=True)

    def time_left(self):
        return self.judge.start + self.seconds - now()

    # What goes on beside the clients ---------------------------------------------------------------

    @staticmethod
    def write(path, text):
        """As the kernel does: nobody sees half of it."""
        path = pathlib.Path(path)
        draft = path.with_name(f".{path.name}")
        draft.write_text(text)
        draft.replace(path)

    def change_values(self, chance):
        def change(name, value, path, text):
            self.judge.change(name, value, lambda: self.write(path, text))

        while True:
            voltage = str(chance.randint(9000, 14500))
            change("kl30", voltage, "/proc/sys/kl30", f"{voltage}\n")
            voltage = str(chance.randint(0, 14500))
            change("kl15", voltage, "/proc/sys/atmel/kl15_ewb", f"{voltage}\n")
            vin = f"SOAK{chance.randint(0, 10**13 - 1):013}"
            change("vin", vin, "/tmp/kvadvin", f"KVAD={vin}\nGW_DIAG_ADR=0x10\nDIAG_ADR=0x12\n")
            hot = chance.random() < 0.1
            change("hot", hot, "/proc/sys/atmel/acttemp", f"Temp:{95 if hot else 41},Status:{12 if hot else 0:02}\n")
            self.write("/tmp/moststate", f"{chance.randint(0, 1)}\n")
            if self.ended.wait(chance.uniform(0.2, 0.8)):
                return

    def watch(self):
        """Looks at the settings file, and that the agent is there, at every moment."""
        while not self.ended.wait(0.05):
            with contextlib.suppress(FileNotFoundError):
                self.settings.check()
            agent = self.watched
            if agent and agent.process.poll() is not None and self.watched is agent:
                self.judge.check("output", False, f"the agent has ended with status {agent.process.returncode}")
                self.judge.ending_agent()
                self.watched = None
            elif agent:
                with contextlib.suppress(OSError, TypeError):
                    for name, value in agent.read().items():
                        self.peaks[name] = max(self.peaks[name], value)
                    self.judge.check("threads", self.peaks["Threads"] <= THREADS_PEAK, f"{self.peaks}")

    # The life of an agent --------------------------------------------------------------------------

    def start_agent(self):
        without_cable = self.chance.random() < 0.2
        if without_cable:
            self.pull_cable("out")
        since = now()
        self.agent = Process(self.judge, stage.Agent(**MARK))
        self.counts["starts"] += 1
        if without_cable:
            self.counts["starts without cable"] += 1
            time.sleep(1.5)
            self.pull_cable("in")
        good = False
        while not good and self.agent.process.poll() is None and now() - since < SERVE_LIMIT:
            try:
                self.asking.information()
                good = True
            except Broken:
                time.sleep(0.05)
        self.judge.check("start and stop", good, f"not serving {now() - since:.1f} s after its start, status "
                         f"{self.agent.process.poll()}")
        if not good:
            return False
        self.watched = self.agent
        self.judge.tell("serves")
        self.judge.calm_from = since
        self.judge.answered("start", since)
        self.judge.calm(GRACE[0])
        self.settle()
        return True

    def wait_until_free(self):
        """Frees what is left over from lost answers, and waits for a sign-in. True once nothing more comes."""
        end, looks, owner = now() + QUIET_LIMIT, 0, None
        while now() < end:
            with contextlib.suppress(Broken):
                state, owner = self.asking.information()
                looks = looks + 1 if state == "4" else 0
                if looks == FREE_LOOKS:
                    return True
                self.asking.free_lost(owner)
            time.sleep(0.1)
        return self.judge.check("reservation", False, f"the box stays with {owner!r}, whom nobody knows")

    def settle(self):
        """Nobody is there: a free box has no rules, the settings are the saved ones, and it comes to rest."""
        free = self.wait_until_free()
        self.asking.close()
        if free:
            self.judge.check_rules(None, RULES_TIMEOUT)
        self.manager.look()
        with contextlib.suppress(FileNotFoundError):
            self.settings.check()
        self.agent.rest()
        self.rests.append(self.agent.rests[-1])

    def quiet(self):
        self.judge.tell("quiet")
        self.counts["quiet moments"] += 1
        if not self.gate.close(QUIET_LIMIT):
            self.judge.check("answered", False, f"clients are still at work after {QUIET_LIMIT} s")
        self.settle()
        reserved = self.reserve()
        if reserved:
            owner, epoch, handle = reserved
            self.judge.check_rules("192.168.68.99", still=lambda: self.judge.holds(owner, epoch))
            soak_owners.Owner.give_back(self.asking, owner, epoch, handle)
            self.asking.close()
            self.judge.check_rules(None, RULES_TIMEOUT)
        self.gate.open()

    def reserve(self):
        """A free box is to be had by whoever asks, but when a sign-in has it, or when it is too hot."""
        owner = f"quiet {self.counts['quiet moments']}.{self.counts['starts']}"
        end = now() + QUIET_LIMIT
        seen = "no answer"
        while now() < end:
            epoch = self.judge.reserving(owner)
            with contextlib.suppress(Broken), self.judge.losing(owner, epoch):
                code, answer = self.asking.code("reserveDevice", deviceId=stage.DEVICE_ID, owner=owner,
                                                hostLock="192.168.68.99")
                if code == 0 and self.judge.reserved(owner, epoch):
                    self.judge.check("reservation", True, "")
                    return owner, epoch, soak_clients.find(answer, "handle")
                self.judge.released(owner, epoch)
                seen = code, self.asking.information()
                if seen == (10, ("4", "")):
                    break
            self.wait_until_free()
        self.judge.check("reservation", False, f"a box that nobody has is refused: {seen}")
        return None

    def pull_cable(self, state):
        stage.network("cable", state)

    def cable(self):
        self.judge.tell("cable")
        self.counts["cable pulled"] += 1
        self.judge.disturb()
        self.pull_cable("out")
        time.sleep(self.chance.uniform(0.2, 2.5))
        self.pull_cable("in")
        self.judge.calm(GRACE[1] if self.seconds > 60 else GRACE[1] / 3)

    def live(self, seconds, ends):
        end = now() + min(seconds, max(self.time_left(), 1))
        self.gate.open()
        while now() < end and self.watched:
            time.sleep(min(self.chance.uniform(0.5, 2), max(end - now(), 0)))
            if not self.events:
                self.events = self.chance.sample(EVENTS, len(EVENTS))
            event = self.events.pop()
            {"cable": self.cable, "manager": self.manager.change, "quiet": self.quiet}[event]()
            self.manager.look()
        if self.watched:
            self.end_agent(ends)
        else:
            self.gate.close(QUIET_LIMIT)

    def end_agent(self, how):
        """Ends it while clients are at work, or after somebody has reserved the box."""
        self.judge.tell(how)
        self.counts[how] += 1
        sign, _, when = how.partition(" ")
        if when == "reserved":
            self.gate.close(QUIET_LIMIT)
            self.wait_until_free()
            self.reserve()
        self.agent.check_growth()
        self.watched = None
        self.judge.ending_agent()
        process, since = self.agent.process, now()
        process.send_signal(signal.SIGKILL if sign == "kill" else signal.SIGTERM)
        try:
            status = process.wait(STOP_LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            status = f"none within {STOP_LIMIT} s"
            process.wait(20)
        if sign == "term":
            self.judge.calm_from = since
            self.judge.answered("stop", since)
            self.judge.disturb()
            self.judge.check("start and stop", status == 0, f"exit status {status} after SIGTERM")
            self.judge.check_rules(None)
            left = processes_of_agent("SOAKED={SOAKED}".format(**MARK))
            strange = [line for line in left if not any(name in line for name in PROCESSES_LEFT)]
            self.judge.check("start and stop", not strange and len(left) <= len(PROCESSES_LEFT),
                             f"left after the stop: {left}")
        self.agent.agent.kill()
        self.asking.close()
        if not self.gate.close(QUIET_LIMIT):
            self.judge.check("answered", False, f"clients are still at work {QUIET_LIMIT} s after the agent's end")
        self.agent.check_output()

    def run(self):
        prepare_box()
        self.changing.start()
        time.sleep(0.1)  # every value has been written
        for thread in [self.watching, *self.actors]:
            thread.start()
        ends, self.events = [], []
        self.manager.start()
        while self.time_left() > LAST_START:
            if not ends:
                ends = self.chance.sample(ENDS, len(ENDS))
            if self.start_agent():
                self.live(self.chance.uniform(LIFE[0], max(LIFE[0] + 1, self.seconds * LIFE[1])), ends.pop())
            else:
                self.agent.process.kill()
                break
            if self.time_left() > 0 and self.chance.random() < 0.4:
                self.manager.change()
        self.gate.end()
        self.ended.set()
        for thread in [self.watching, self.changing, *self.actors]:
            thread.join(QUIET_LIMIT)
        if self.manager.manager:
            self.manager.stop()


def prepare_box():
    for number in range(11, 31):
        subprocess.run(stage.in_network("client", "ip", "address", "add", f"192.168.68.{number}/16", "dev", "eth0"),
                       check=True, timeout=30)
    pathlib.Path(soak_clients.TEXT_FILE).write_text(soak_clients.TEXT)
    for rule in ["-N site", "-A site -p tcp -m tcp --dport 9999 -j DROP", *SITE_RULES]:
        subprocess.run(["iptables", *rule.split()], check=True, timeout=30)


def print_table(soak, seed):
    judge = soak.judge
    print(f"\n{'request':24}{'p50 s':>8}{'p99 s':>8}{'max s':>8}  outcomes")
    for kind in sorted(judge.outcomes):
        times = sorted(judge.seconds[kind])
        figures = "".join(f"{times[int(part * (len(times) - 1))]:8.3f}" for part in (0.5, 0.99, 1) if times) or " " * 24
        print(f"{kind:24}{figures}  " + ", ".join(f"{count} {what}" for what, count in judge.outcomes[kind].items()))
    if soak.rests:
        print(f"\n{'at rest':24}{'first':>8}{'last':>8}{'most':>8}{'peak':>8}")
        for name in ("VmRSS", "Threads", "descriptors"):
            values = [rest[name] for rest in soak.rests]
            print(f"{name:24}{values[0]:8}{values[-1]:8}{max(values):8}{soak.peaks[name]:8}")
        print(f"{'VmHWM':24}{'':24}{soak.peaks['VmHWM']:8}")
    print(f"\n{'check':24}{'looked at':>10}{'failed':>8}")
    for name in CHECKS:
        judge.check(name, judge.looked[name] > 0, "has not been looked at")
        print(f"{name:24}{judge.looked[name]:10}{len(judge.findings[name]):8}  {CHECKS[name]}")
    counts = {**soak.counts, **{f"manager {what}": count for what, count in soak.manager.counts.items()}}
    print("\n" + ", ".join(f"{count} {what}" for what, count in counts.items()))
    requests = sum(sum(outcomes.values()) for kind, outcomes in judge.outcomes.items())
    print(f"{requests} exchanges in {now() - judge.start:.0f} s, seed {seed}, agent {stage.AGENT}")


def main():
    parser = argparse.ArgumentParser(prog="script/soak", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", type=float, help="how long")
    parser.add_argument("seed", nargs="?", type=int, default=int(time.time()), help="what an earlier run has printed")
    options = parser.parse_args()
    if not pathlib.Path("/run/netns/client").exists():
        sys.exit("soak: this is no simulated box; try script/soak")
    print(f"soaks {stage.AGENT} for {options.minutes:g} minutes, seed {options.seed}", flush=True)
    faulthandler.dump_traceback_later(options.minutes * 60 + OVERTIME, exit=True)
    soak = Soak(options.minutes, options.seed)
    try:
        soak.run()
    except Exception:
        soak.judge.check("start and stop", False, f"the soak itself fails: {traceback.format_exc()}")
    print_table(soak, options.seed)
    failed = [name for name in CHECKS if soak.judge.findings[name]]
    if failed:
        for name, lines in soak.judge.tails.items():
            print(f"\nthe log when {name!r} failed first:\n" + "\n".join(line[:200] for line in lines))
        if stage.AGENT_OUTPUT.exists():
            print("\nthe end of the agent's output:\n" + "\n".join(
                stage.AGENT_OUTPUT.read_text(errors="replace").splitlines()[-10:]))
        print(f"FAILED: {', '.join(failed)} (seed {options.seed})", flush=True)
    else:
        print("PASSED", flush=True)
    stage.clear()
    os._exit(1 if failed else 0)  # a client may still be waiting


if __name__ == "__main__":
    main()

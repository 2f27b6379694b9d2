"""The same as counts.py for the board's processor, which is emulated. Argument: the agent that is built for it.

The emulator takes one instruction at a time and tells each, and each system call of the agent: its own are not among
them. This is slow, so that a good part of what comes once a second falls on one request; the median request counts.
"""

import collections
import json
import os
import re
import statistics
import sys
import threading
import time

import counts
import stage

WARM_UP, COUNTED = 5, 15
TRACE = "/tmp/trace"
# On a board it is none: the kernel lets programs read the time by themselves, the emulator does not.
NOT_CALLS = {"clock_gettime64"}


class Trace:
    """Counts what the emulator tells: an instruction a line, or a system call."""

    def __init__(self):
        os.mkfifo(TRACE)
        self.instructions = 0
        self.calls = collections.Counter()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        rest = b""
        with open(TRACE, "rb", buffering=0) as trace:
            while piece := trace.read(1 << 20):
                lines = rest + piece
                end = max(lines.rfind(b"Trace "), 0)
                lines, rest = lines[:end], lines[end:]
                # A call follows the instruction that makes it. Thread 0 wakes once a second and serves nobody.
                self.calls.update(re.findall(rb"^Trace (?!0:).*\n\d+ (\w+)\(", lines, re.M))
                self.instructions += lines.count(b"Trace ") - lines.count(b"Trace 0: ")

    def take(self):
        """What was told since the last time, when nothing more comes."""
        before = -1
        while before != self.instructions:
            before = self.instructions
            time.sleep(0.1)
        taken = self.instructions, {name.decode(): number for name, number in self.calls.items()}
        self.instructions = 0
        self.calls.clear()
        return taken


def main():
    trace = Trace()
    process = counts.start([stage.PROJECT / "tests/powerpc/run", sys.argv[1]], env={
        **os.environ, "QEMU_SINGLESTEP": "1", "QEMU_LOG": "nochain,exec,strace", "QEMU_LOG_FILENAME": TRACE})
    instructions, calls = {}, {}
    for name in counts.REQUESTS:
        client = counts.Client(name)
        client.ask(WARM_UP)
        trace.take()
        taken = []
        for _ in range(COUNTED):
            client.ask(1)
            taken.append(trace.take())
        instructions[name] = statistics.median(number for number, _ in taken)
        calls[name] = counts.medians([collections.Counter(each) for _, each in taken])
        for none in NOT_CALLS:
            calls[name].pop(none, None)
    counts.stop(process)
    print(json.dumps(counts.result_of(instructions, calls), indent=1))


if __name__ == "__main__":
    main()

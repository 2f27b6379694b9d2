"""What the agent takes of a board, beside its budget and a program that does nothing.

Runs in a simulated box. Arguments: the agent and the other program, both stripped.
"""

import contextlib
import pathlib
import statistics
import subprocess
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "workshop"))
import stage

STARTS = 20
REST_SECONDS = 30
# The address is there and stays: it is set anew, but not asked for.
CONFIGURATION = "opla.mode=OPLA-Next\n" + stage.static(stage.BOX)
#            what                                      unit        budget
QUANTITIES = (("file, stripped", "KiB", 700),
              ("resident memory at rest", "KiB", 8 * 1024),
              ("from exec to the first answered request", "ms", 300),
              ("wake-ups at rest", "per s", 1))
# A poll a second may fall into the time measured once more than it has seconds.
LIMITS = [budget + (1 / REST_SECONDS if unit == "per s" else 0) for _, unit, budget in QUANTITIES]


def wake_ups(process):
    """How often its threads have waited since they began."""
    return sum(stage.number(path, "voluntary_ctxt_switches")
               for path in pathlib.Path(f"/proc/{process.pid}/task").glob("*/status"))


def end(process):
    process.terminate()
    process.wait(30)


def start_agent(program):
    stage.CONFIGURATION.write_text(CONFIGURATION)
    return subprocess.Popen([program], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def first_answer(program):
    begin = time.monotonic()
    agent = start_agent(program)
    while True:
        assert agent.poll() is None, "the agent has ended"
        assert time.monotonic() - begin < 30, "the agent does not answer"
        with contextlib.suppress(ConnectionRefusedError):
            answer = stage.exchange(b"GET /test HTTP/1.0\r\n\r\n", 80)
            assert answer.startswith(b"HTTP/1.0 200 OK"), answer
            return agent, (time.monotonic() - begin) * 1000
        time.sleep(0.001)


def first_word(program):
    begin = time.monotonic()
    process = subprocess.Popen([program], stdout=subprocess.PIPE)
    process.stdout.read(1)
    return process, (time.monotonic() - begin) * 1000


def measure(program, start):
    """The quantities, in the order of the table; of the time, each start's."""
    times = []
    for _ in range(STARTS):
        process, milliseconds = start(program)
        times.append(milliseconds)
        if len(times) < STARTS:
            end(process)
    time.sleep(2)  # until the last request's thread is gone
    before = wake_ups(process)
    time.sleep(REST_SECONDS)
    rate = (wake_ups(process) - before) / REST_SECONDS
    memory = stage.number(f"/proc/{process.pid}/status", "VmRSS")
    end(process)
    size = pathlib.Path(program).stat().st_size / 1024
    return size, memory, times, rate


def main():
    agent, other = measure(sys.argv[1], first_answer), measure(sys.argv[2], first_word)
    print(f"{'':<48}{'budget':>8}{'agent':>10}{'nothing':>10}")
    over = False
    for (what, unit, budget), limit, own, others in zip(QUANTITIES, LIMITS, agent, other):
        if unit == "ms":
            own, others = statistics.median(own), statistics.median(others)
        exceeds = own > limit
        over |= exceeds
        print(f"{what + ', ' + unit:<48}{budget:>8}{own:>10.1f}{others:>10.1f}{'  OVER' if exceeds else ''}")
    return 1 if over else 0


if __name__ == "__main__":
    sys.exit(main())

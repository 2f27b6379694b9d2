"""What is compared with what, what is to be reached, and the tables of it. Reads what bench/suite.py has printed."""

import dataclasses
import json
import statistics
import sys

sys.dont_write_bytecode = True
import footprint


@dataclasses.dataclass(frozen=True)
class Kind:
    """Rows that differ in their load alone.

    The agent's `quantity` in an experiment stands beside that of a peer, if there is one. Compared is their ratio,
    their difference if it is `counted`, or without peer the agent's own. Of that, `targets` tells by load what is
    to be reached; none: nothing is. `most` turns it into a limit.
    """
    title: str
    experiment: str
    quantity: str
    unit: str
    peer: str = ""
    targets: dict = dataclasses.field(default_factory=dict)
    most: bool = False
    counted: bool = False
    side: str = "agent"
    loads: tuple = ()


def of_all(target, loads=("1", "8", "64")):
    return dict.fromkeys(loads, target)


GET, NEW, SOAP, SLP = ("GET, kept connection", "GET, new connection each", "getDeviceInformation, kept connection",
                       "AttrRqst, full list")
RATE = "requests/s"
BUDGETS = [{"": limit} for limit in footprint.LIMITS]
MEMORY = "resident memory, idle connections"
KINDS = (
    Kind(GET, "get-kept", "rate", RATE, "responder", of_all(0.8)),
    Kind(GET, "get-kept", "rate", RATE, "lighttpd", {"1": 1.0, "8": 1.3, "64": 1.3}),
    Kind(GET, "get-kept", "rate", RATE, "lighttpd with a log"),
    Kind("GET, kept connection, asked by ab", "get-by-others", "rate", RATE, "responder"),
    Kind("GET, kept connection, asked by ab", "get-by-others", "rate", RATE, "lighttpd"),
    Kind("lighttpd, asked by ours and by wrk", "generators", "rate", RATE, "wrk", side="ours"),
    Kind(NEW, "get-new", "rate", RATE, "responder", of_all(0.8)),
    Kind(NEW, "get-new", "stalls", "stalls", "responder", of_all(0), most=True, counted=True),
    Kind(SOAP, "soap-kept", "rate", RATE, "constants", of_all(0.5)),
    Kind(SOAP, "soap-kept", "rate", RATE, "live values", {"8": 1.6, "64": 1.6}),
    Kind(SLP, "attributes", "rate", RATE, "echo", of_all(0.5, ("1", "4"))),
    Kind("instructions of a request", "counts", "instructions", "", most=True, targets={
        "GET of the test page": 9000, "getDeviceInformation": 100000, "AttrRqst": 45000}),
    Kind("system calls of a request", "counts", "calls", "", most=True, targets={
        "GET of the test page": 4, "getDeviceInformation": 20, "AttrRqst": 20}),
    Kind(MEMORY, "memory", "memory", "KiB", "lighttpd"),
    Kind(MEMORY, "memory", "memory", "KiB", "responder"),
    Kind("connections that stay open", "memory", "open", "", "lighttpd", loads=("64", "512")),
    Kind("memory of each of them", "memory", "each", "KiB", "lighttpd", loads=("64", "512")),
    Kind("memory of each of them", "memory", "each", "KiB", "responder", loads=("64", "512")),
    Kind("save on disc, more settings", "saves-on-disc", "mean", "µs", "write, fsync, rename", {"0": 1.3}, most=True),
    Kind("save in memory, more settings", "saves-in-memory", "mean", "µs", "write, fsync, rename"),
    Kind("file, stripped", "rest", "file", "KiB", targets=BUDGETS[0], most=True),
    Kind("resident memory at rest", "rest", "memory", "KiB", "nothing"),
    Kind("resident memory at rest", "rest", "memory", "KiB", targets=BUDGETS[1], most=True),
    Kind("wake-ups at rest", "rest", "wake-ups", "per s", targets=BUDGETS[3], most=True),
    Kind("exec to first answer", "rest", "milliseconds", "ms", "nothing"),
    Kind("exec to first answer", "rest", "milliseconds", "ms", targets=BUDGETS[2], most=True),
    Kind("p99 of a new client, slow ones beside it", "new-beside-slow", "p99", "µs", "responder"),
    Kind("64 clients, new connections, backlog", "backlog", "rate", RATE, "responder"),
    Kind("64 clients, new connections, backlog", "backlog", "p99", "µs", "responder"),
    Kind("64 clients, new connections, backlog", "backlog", "stalls", "stalls", "responder", counted=True),
    Kind("zelctl find, boxes", "find", "found", "shown", side="zelctl"),
    Kind("zelctl find, boxes", "find", "seconds", "s", side="zelctl"),
    Kind("zelctl find, boxes", "find", "processor", "ms of the processor", side="zelctl"),
)


@dataclasses.dataclass(frozen=True)
class Spread:
    """Of the rounds of one side, or of what was compared round by round."""
    median: float
    low: float
    high: float

    @classmethod
    def of(cls, values):
        values = list(values)
        return cls(statistics.median(values), min(values), max(values))

    def __str__(self):
        if self.low == self.high:
            return number(self.median)
        return f"{number(self.median)} ({number(self.low)}…{number(self.high)})"


def number(value):
    """Three digits, or all before the point."""
    if abs(value) >= 100 or value == int(value):
        return f"{round(value):,}"
    return f"{value:.2f}" if abs(value) < 10 else f"{value:.1f}"


@dataclasses.dataclass(frozen=True)
class Row:
    kind: Kind
    load: str
    own: Spread
    other: Spread | None
    compared: Spread
    target: float | None

    def key(self):
        return self.kind.title, self.kind.quantity, self.kind.peer, self.load

    def reached(self):
        """None: nothing is to be reached."""
        if self.target is None:
            return None
        return self.compared.median <= self.target if self.kind.most else self.compared.median >= self.target

    def cells(self):
        target = "" if self.target is None else f"{'≤' if self.kind.most else '≥'} {number(self.target)}"
        return (self.kind.title, self.load, self.kind.unit, str(self.own), self.kind.peer,
                "" if self.other is None else str(self.other),
                "" if self.other is None else str(self.compared), target,
                {None: "", True: "yes", False: "NO"}[self.reached()])


HEAD = ("what", "load", "unit", "agent", "beside", "its", "ratio or difference", "to reach", "reached")


def rows_of(kind, result):
    for load, sides in result["measured"].get(kind.experiment, {}).items():
        if kind.loads and load not in kind.loads:
            continue
        own = [rounds[kind.quantity] for rounds in sides[kind.side]]
        other, compared = None, Spread.of(own)
        if kind.peer:
            others = [rounds[kind.quantity] for rounds in sides[kind.peer]]
            other = Spread.of(others)
            if kind.counted:
                compared = Spread.of(a - b for a, b in zip(own, others))
            elif min(others) > 0:
                compared = Spread.of(a / b for a, b in zip(own, others))
            else:
                raise ValueError(f"{kind.title}: a ratio to nothing")
        yield Row(kind, load, Spread.of(own), other, compared, kind.targets.get(load))


def rows(result, *experiments):
    """Those of the experiments, or all."""
    return [row for kind in KINDS if not experiments or kind.experiment in experiments
            for row in rows_of(kind, result)]


def text_table(head, lines):
    lines = [head, *lines]
    widths = [max(len(line[column]) for line in lines) for column in range(len(head))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines)


def markdown_table(head, lines):
    return "\n".join("| " + " | ".join(line) + " |" for line in (head, ["---"] * len(head), *lines))


def about(result):
    machine = result["machine"]
    return (f"{result['revision']} ({result['agent']}), {result['date']}, {machine['cores']} × {machine['processor']}, "
            f"Linux {machine['kernel']}; load {machine['load']:.1f} at the start; "
            f"medians (lowest…highest), {result['seconds']} s in all")


def comparison(old, new):
    """What has changed between two runs, and whether beyond the spread of both."""
    before = {row.key(): row for row in rows(old)}
    lines = []
    for row in rows(new):
        if row.key() not in before:
            continue
        was = before[row.key()].compared
        now = row.compared
        apart = now.low > was.high or now.high < was.low
        change = f"{(now.median / was.median - 1) * 100:+.0f} %" if was.median else f"{now.median - was.median:+g}"
        lines.append((row.kind.title, row.load, row.kind.quantity, row.kind.peer, str(was), str(now), change,
                      "beyond the spread" if apart else ""))
    return text_table(("what", "load", "quantity", "beside", "old", "new", "change", ""), lines)


def read(path):
    with open(path) as file:
        return json.load(file)


def main():
    """One result: its table, and 1 when something was not reached. Two: what has changed from the one to the other."""
    results = [read(path) for path in sys.argv[1:]]
    for name, result in zip(("old", "new") if len(results) == 2 else ("measured",), results):
        print(f"{name}: {about(result)}")
    if len(results) == 2:
        print(comparison(*results))
        return 0
    found = rows(results[0])
    print(text_table(HEAD, [row.cells() for row in found]))
    for name, reason in results[0]["failed"].items():
        print(f"{name} has failed: {reason}")
    return 1 if results[0]["failed"] or any(row.reached() is False for row in found) else 0


if __name__ == "__main__":
    sys.exit(main())

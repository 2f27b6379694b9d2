"""Measures the agent beside its peers; bench/rows.py says what is compared with what.

Runs in a simulated box, all sides of an experiment by turns. Prints what was measured as JSON, and on standard error
what it is at. Arguments: the revision, the agent and the program that does nothing, both stripped, and experiments if
not all of them are wanted.
"""

import contextlib
import datetime
import json
import os
import pathlib
import platform
import re
import resource
import shutil
import socket
import subprocess
import sys
import time
import traceback

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "workshop"))
import footprint
import peers
import raw_http
import stage
from zel import slp

ROUNDS, SHORT_ROUNDS = 5, 11
CONNECTIONS = (1, 8, 64)
SLOW_CLIENTS = 150
# One address gets half of the agent's places.
SOURCES = [f"127.2.0.{number}" for number in range(1, 9)]
SAVES = 40


def by_turns(sides, rounds=ROUNDS):
    """The results of every side's rounds, by its name; who is last in a round begins the next."""
    results = {name: [] for name in sides}
    turns = list(sides.items())
    for _ in range(rounds):
        for name, measure in turns:
            results[name].append(measure())
        turns.reverse()
    return results


def for_each(values, what, sides, rounds=ROUNDS):
    """The results of every side for each of the values, by value: sides take it."""
    results = {}
    for value in values:
        progress(f"{what} {value}")
        results[value] = by_turns({name: lambda measure=measure: measure(value) for name, measure in sides.items()},
                                  rounds)
    return results


def progress(text):
    print(f"{time.monotonic() - BEGIN:6.0f} s  {text}", file=sys.stderr)


# Experiments: each returns {load: {side: [result of a round, …]}} ---------------------------------

def get_kept():
    ports = {"agent": peers.TEST_PAGE, "responder": peers.RESPONDER, "lighttpd": peers.LIGHTTPD,
             "lighttpd with a log": peers.LOGGING_LIGHTTPD}
    with peers.agent(), peers.responder(), peers.lighttpd(), peers.lighttpd(peers.LOGGING_LIGHTTPD):
        return for_each(CONNECTIONS, "GET, connections:", {
            name: lambda connections, port=port: peers.kept("get", port, connections)
            for name, port in ports.items()}, SHORT_ROUNDS)


def get_by_others():
    """The same, asked by generators of others."""
    ports = {"agent": peers.TEST_PAGE, "responder": peers.RESPONDER, "lighttpd": peers.LIGHTTPD}
    with peers.agent(), peers.responder(), peers.lighttpd():
        return for_each((8, 64), "GET, asked by ab, connections:", {
            name: lambda connections, port=port: peers.others_rate("ab", port, connections)
            for name, port in ports.items()})


def generators():
    """What they reach at one server."""
    port = peers.LIGHTTPD
    with peers.lighttpd():
        return for_each((8, 64), "lighttpd, asked by wrk and by ours, connections:", {
            "ours": lambda connections: peers.kept("get", port, connections),
            "wrk": lambda connections: peers.others_rate("wrk", port, connections)})


def get_new():
    with peers.agent(""), peers.responder(peers.RESPONDER_OF_ONE, 1):
        return for_each(CONNECTIONS, "GET, each on a new connection, clients:", {
            name: lambda clients, port=port: peers.new_connections(port, clients)
            for name, port in (("agent", peers.TEST_PAGE), ("responder", peers.RESPONDER_OF_ONE))})


def soap_kept():
    ports = {"agent": peers.SERVICES, "constants": peers.CONSTANT, "live values": peers.LIVE}
    with peers.agent(), peers.soap_server("constant"), peers.soap_server("live"):
        return for_each(CONNECTIONS, "getDeviceInformation, connections:", {
            name: lambda connections, port=port: peers.kept("soap", port, connections)
            for name, port in ports.items()}, SHORT_ROUNDS)


def attributes():
    with peers.agent():
        size = len(peers.ask_once(slp.PORT))
        with peers.echo(size):
            return for_each((1, 4), "AttrRqst, clients:", {
                name: lambda clients, port=port: peers.datagrams(port, clients)
                for name, port in (("agent", slp.PORT), ("echo", peers.ECHO))}, SHORT_ROUNDS)


def backlog():
    """Many new connections at each length of the queue for them."""
    results = {}
    for length in (1, 16, 128):
        with peers.agent(f"web.listen.backlog={length}\n"), peers.responder(backlog=length):
            results |= for_each((length,), "64 clients with new connections, backlog:", {
                name: lambda _, port=port: peers.new_connections(port, 64)
                for name, port in (("agent", peers.TEST_PAGE), ("responder", peers.RESPONDER))})
    return results


def new_beside_slow():
    def measure(port, count):
        with peers.slow_clients(port, count):
            time.sleep(0.5)
            return peers.answered(peers.new_connections(port, 1))
    with peers.agent(), peers.responder():
        return for_each((0, SLOW_CLIENTS), "a new client beside slow ones:", {
            name: lambda count, port=port: measure(port, count)
            for name, port in (("agent", peers.TEST_PAGE), ("responder", peers.RESPONDER))})


def is_open(connection):
    """Whether the server has not closed it."""
    connection.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        return connection.recv(1) != b""
    return True


def open_idle(port, count):
    """Connections on which one request was answered; the server may end the first of them for the last."""
    connections = []
    for number in range(count):
        connection = socket.create_connection((peers.HOST, port), 10, (SOURCES[number % len(SOURCES)], 0))
        connection.sendall(peers.REQUESTS["get"])
        raw_http.read_response(connection)
        connections.append(connection)
    return connections


def memory():
    """Resident memory by the connections that stay idle."""
    counts = (0, 64, 512)

    def measure(server, port):
        sizes = {}
        with server() as pid:
            for name, count in (*((count, count) for count in counts), ("afterwards", 0)):
                connections = open_idle(port, count or 1)
                if not count:
                    connections.pop().close()
                    time.sleep(1)
                kept = sum(map(is_open, connections))
                sizes[name] = {"memory": stage.number(f"/proc/{pid}/status", "VmRSS"), "open": kept}
                for connection in connections:
                    connection.close()
        for count in counts[1:]:
            sizes[count]["each"] = (sizes[count]["memory"] - sizes[0]["memory"]) / sizes[count]["open"]
        return sizes

    progress("memory of idle connections")
    found = by_turns({"agent": lambda: measure(peers.agent, peers.TEST_PAGE),
                      "responder": lambda: measure(peers.responder, peers.RESPONDER),
                      "lighttpd": lambda: measure(peers.lighttpd, peers.LIGHTTPD)})
    return {load: {name: [sizes[load] for sizes in rounds] for name, rounds in found.items()}
            for load in (*counts, "afterwards")}


def saves(on_disc):
    """One save, by the number of settings that others have added."""
    def measure(more):
        settings = stage.ALONE + stage.static(stage.BOX) + "".join(
            f"com.tembra.lusora.site.setting{number}=value {number}\n" for number in range(more))
        copy = stage.CONFIGURATION.with_name("copy")

        def agents():
            stage.CONFIGURATION.write_text(settings)
            return peers.run(peers.PROGRAMS / "save-store", SAVES)

        def others():
            # The bytes that the agent has written.
            shutil.copy(stage.CONFIGURATION, copy)
            return peers.run(peers.PROGRAMS / "save-peer", copy, SAVES)
        return agents, others

    results = {}
    with contextlib.ExitStack() as stack:
        if on_disc:
            # Over the box's own /config, which is in memory, a folder of the disc that the project is on.
            disc = stage.PROJECT / "build/bench/disc"
            subprocess.run(["mount", "--bind", disc, stage.CONFIGURATION.parent], check=True)
            stack.callback(subprocess.run, ["umount", stage.CONFIGURATION.parent], check=True)
            subprocess.run(["mount", "-o", "remount,bind,rw", stage.CONFIGURATION.parent], check=True)
        for more in (0, 100, 1000):
            progress(f"saves, on disc: {on_disc}, more settings: {more}")
            agents, others = measure(more)
            results[more] = by_turns({"agent": agents, "write, fsync, rename": others})
    return results


def rest():
    """What the agent takes of a board, beside a program that does nothing."""
    progress("start and rest")
    names = "file", "memory", "milliseconds", "wake-ups"
    results = {"agent": [], "nothing": []}
    for side, program, start in (("agent", sys.argv[2], footprint.first_answer),
                                 ("nothing", sys.argv[3], footprint.first_word)):
        size, resident, times, rate = footprint.measure(program, start)
        results[side] = [dict(zip(names, (size, resident, milliseconds, rate))) for milliseconds in times]
    return {"": results}


def counts():
    progress("instructions and system calls")
    return {name: {"agent": [result]} for name, result in peers.run(
        sys.executable, stage.PROJECT / "bench/counts.py", stage.AGENT).items()}


@contextlib.contextmanager
def boxes(count):
    """That many which answer searches."""
    process = subprocess.Popen([stage.PROJECT / "workshop/boxes", "--responders", str(count)], stdout=subprocess.PIPE)
    try:
        process.stdout.readline()  # it is there
        yield
    finally:
        process.terminate()
        process.wait()


def find():
    """How long `zelctl find` takes, how many boxes it shows and what that costs the client's processor."""
    progress("zelctl find")

    def measure(count):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        begin = time.monotonic()
        shown = stage.output_of(stage.ZELCTL, "find", "--json", network="client")
        seconds = time.monotonic() - begin
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return {"found": len(json.loads(shown)), "seconds": seconds,
                "processor": (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000}

    results = {}
    for count in (10, 100, 1000):
        with boxes(count):
            results |= for_each((count,), "zelctl find, boxes:", {"zelctl": measure})
    return results


EXPERIMENTS = {
    "get-kept": get_kept, "get-by-others": get_by_others, "generators": generators, "get-new": get_new,
    "soap-kept": soap_kept, "attributes": attributes, "backlog": backlog, "new-beside-slow": new_beside_slow,
    "memory": memory, "saves-on-disc": lambda: saves(True), "saves-in-memory": lambda: saves(False), "rest": rest,
    "counts": counts, "find": find,
}


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cores": len(os.sched_getaffinity(0)), "processor": model[1] if model else platform.machine(),
            "kernel": platform.release(), "load": os.getloadavg()[0]}


def main():
    unknown = set(sys.argv[4:]) - EXPERIMENTS.keys()
    if unknown:
        sys.exit(f"no such experiment: {', '.join(unknown)}; there are {', '.join(EXPERIMENTS)}")
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8 * peers.ROOM), hard))
    peers.prepare()
    result = {"revision": sys.argv[1], "agent": os.path.relpath(stage.AGENT, stage.PROJECT),
              "date": datetime.date.today().isoformat(), "machine": machine()}
    result["measured"], result["failed"] = {}, {}
    for name in sys.argv[4:] or EXPERIMENTS:
        try:
            result["measured"][name] = EXPERIMENTS[name]()
        except Exception as error:  # the others are worth their time
            traceback.print_exc()
            stage.clear()
            result["failed"][name] = str(error)
    result["seconds"] = round(time.monotonic() - BEGIN)
    print(json.dumps(result))


BEGIN = time.monotonic()
if __name__ == "__main__":
    main()

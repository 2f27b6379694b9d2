"""What the demos share: a numbered story of checked steps, and the box, manager and client on stage."""

import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parent.parent
AGENT = os.environ.get("ZEL_AGENT", str(PROJECT / "build/release/zel"))
MANAGER_OUTPUT = pathlib.Path("/tmp/manager.out")
AGENT_OUTPUT = pathlib.Path("/tmp/agent.out")
AGENT_LOG = pathlib.Path("/tmp/log/nativezel.log")
CONFIGURATION = pathlib.Path("/config/agent.configuration")
IN_CLIENT_NETWORK = ["nsenter", "--net=/run/netns/client"]
CLIENT = IN_CLIENT_NETWORK + [sys.executable, str(PROJECT / "workshop/client.py")]
BOX = "192.168.68.42"
START_LIMIT = 60
STOP_LIMIT = 2 if "release" in AGENT else 20  # a sanitizer looks for leaks at the end
FAULT = 100

BOLD, GREEN, RED, PLAIN = ("\033[1m", "\033[32m", "\033[31m", "\033[0m") if sys.stdout.isatty() \
    else ("", "", "", "")


class Failed(Exception):
    pass


on_stage = []


def enter(command, output):
    """Starts a program that writes to that file."""
    with output.open("w") as file:
        on_stage.append(subprocess.Popen(command, stdout=file, stderr=subprocess.STDOUT))
    return on_stage[-1]


def clear():
    """Ends what still runs, so that nothing of a failed story is in the way of the next."""
    for process in on_stage:
        process.kill()
        process.wait()
    on_stage.clear()


def title(text):
    title.number += 1
    print(f"\n{BOLD}{title.number}. {text}{PLAIN}", flush=True)


title.number = 0


def check(condition, text):
    if not condition:
        raise Failed(text)
    print(f"  {GREEN}ok{PLAIN}: {text}", flush=True)


def wait_until(condition, what, seconds=START_LIMIT):
    end = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {seconds} s")
        time.sleep(0.05)
    return result


def in_client_network(*command):
    """Runs a command there, shows it with what it prints, and returns that."""
    done = subprocess.run(IN_CLIENT_NETWORK + list(command), capture_output=True, text=True, cwd=PROJECT)
    print(f"  $ {shlex.join(command)}\n" + "".join(f"  {line}\n" for line in done.stdout.splitlines()), end="")
    check(done.returncode == 0, f"done {done.stderr}".strip())
    return done.stdout


def client(*arguments, expect=0, only=""):
    """Runs the client, shows what it prints, checks its exit status, and returns the output.

    `only` is a pattern of the lines to be shown.
    """
    done = subprocess.run(CLIENT + list(arguments), capture_output=True, text=True)
    lines = (done.stdout + done.stderr).splitlines(keepends=True)
    print("".join(line for line in lines if re.search(only, line)), end="")
    meaning = {0: "success", FAULT: "a fault"}.get(expect, f"error code {expect}")
    if done.returncode != expect:
        raise Failed(f"expected {meaning}, got {done.returncode}")
    print(f"  {GREEN}ok{PLAIN}: {meaning}", flush=True)
    return done.stdout


def field(output, name):
    for line in output.splitlines():
        key, _, text = line.strip().partition(": ")
        if key == name:
            return text
    return ""


def setting(name):
    lines = CONFIGURATION.read_text().splitlines()
    return next((line.partition("=")[2] for line in lines if line.startswith(name + "=")), None)


def log():
    return AGENT_LOG.read_text(errors="replace") if AGENT_LOG.exists() else ""


def start_manager(scenario, *settings):
    manager = enter(["nsenter", "--net=/run/netns/manager", sys.executable, str(PROJECT / "workshop/manager"),
                     "--scenario", scenario, "--record", "/tmp/manager", *settings], MANAGER_OUTPUT)
    wait_until(lambda: "READY" in MANAGER_OUTPUT.read_text(), "the manager is ready")
    return manager


def start_agent():
    """Switches the box on: its card has no address, and the agent starts."""
    subprocess.run(["ip", "address", "flush", "dev", "eth0"], check=True)
    subprocess.run(["ip", "link", "set", "eth0", "down"], check=True)
    start_agent.logged = len(log())
    return enter([AGENT], AGENT_OUTPUT)


start_agent.logged = 0


def log_of_this_start():
    return log()[start_agent.logged:]


def wait_until_serving(agent, host=BOX):
    def serves():
        if agent.poll() is not None:
            raise Failed(f"the agent ended with status {agent.returncode}")
        return subprocess.run(CLIENT + ["--quiet", "--host", host, "info"],
                              capture_output=True).returncode == 0
    wait_until(serves, "the agent serves")


def stop(agent):
    agent.send_signal(signal.SIGTERM)
    try:
        status = agent.wait(STOP_LIMIT)
    except subprocess.TimeoutExpired:
        raise Failed(f"the agent did not stop within {STOP_LIMIT} s") from None
    check(status == 0, f"the agent's exit status is {status}")

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
ZELCTL = pathlib.Path(AGENT).with_name("zelctl")
if not ZELCTL.exists():  # the agent is another processor's, and emulated
    ZELCTL = PROJECT / "build/release/zelctl"
BOX = "192.168.68.42"
DEVICE_ID = "TAVO0012345"
START_LIMIT = 60
STOP_LIMIT = 2 if "release" in AGENT else 20  # a sanitizer looks for leaks at the end
REFUSED = 1  # exit status of zelctl

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


def in_client_network(*command, status=0, only=""):
    """Runs a command there, shows it with what it prints, checks its exit status, and returns what it prints.

    `only` is a pattern of the lines to be shown.
    """
    typed = shlex.join(command) + (f" | grep -E {shlex.quote(only)}" if only else "")
    path = f"{ZELCTL.parent}:{os.environ['PATH']}"
    done = subprocess.run(IN_CLIENT_NETWORK + list(command), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, cwd=PROJECT, env={**os.environ, "PATH": path})
    lines = [line for line in done.stdout.splitlines() if re.search(only, line)]
    print(f"  $ {typed}\n" + "".join(f"  {line}\n" for line in lines), end="", flush=True)
    if done.returncode != status:
        raise Failed(f"exit status {done.returncode}, not {status}: {done.stdout}")
    return done.stdout


def zelctl(*arguments, **options):
    return in_client_network("zelctl", *arguments, **options)


def is_state(state, host=DEVICE_ID):
    """Asks the box, and shows, whether it is free or reserved."""
    return state in zelctl("info", host, only="^state").split()


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
        return subprocess.run([*IN_CLIENT_NETWORK, ZELCTL, "info", host], capture_output=True).returncode == 0
    wait_until(serves, "the agent serves")


def stop(agent):
    agent.send_signal(signal.SIGTERM)
    try:
        status = agent.wait(STOP_LIMIT)
    except subprocess.TimeoutExpired:
        raise Failed(f"the agent did not stop within {STOP_LIMIT} s") from None
    check(status == 0, f"the agent's exit status is {status}")

"""How a demo tells its story: numbered steps that are shown and checked."""

import os
import re
import shlex
import subprocess
import sys

from stage import DEVICE_ID, PROJECT, ZELCTL, Agent, Failed, in_network, log

REFUSED = 1  # exit status of zelctl

BOLD, GREEN, RED, PLAIN = ("\033[1m", "\033[32m", "\033[31m", "\033[0m") if sys.stdout.isatty() \
    else ("", "", "", "")


def title(text):
    title.number += 1
    print(f"\n{BOLD}{title.number}. {text}{PLAIN}", flush=True)


title.number = 0


def check(condition, text):
    if not condition:
        raise Failed(text)
    print(f"  {GREEN}ok{PLAIN}: {text}", flush=True)


def show(typed, output, only=""):
    """A command of the box as it is typed from outside, in the project's folder, and what it has printed."""
    typed = f"simbox/enter {typed}" + (f" | grep -E {shlex.quote(only)}" if only else "")
    lines = [line for line in output.splitlines() if re.search(only, line)]
    print(f"  {BOLD}{typed}{PLAIN}\n" + "".join(f"    {line}\n" for line in lines), end="", flush=True)


def in_client_network(*command, status=0, only=""):
    """Runs a command there, shows it with what it prints, checks its exit status, and returns what it prints.

    `only` is a pattern of the lines to be shown.
    """
    path = f"{ZELCTL.parent}:{os.environ['PATH']}"
    done = subprocess.run(in_network("client", *command), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, cwd=PROJECT, env={**os.environ, "PATH": path})
    show(f"--client {shlex.join(command)}", done.stdout, only)
    if done.returncode != status:
        raise Failed(f"exit status {done.returncode}, not {status}: {done.stdout}")
    return done.stdout


def zelctl(*arguments, **options):
    return in_client_network("zelctl", *arguments, **options)


def is_state(state, host=DEVICE_ID):
    """Asks the box, and shows, whether it is free or reserved."""
    return state in zelctl("info", host, only="^state").split()


def start_agent():
    """Switches the box on: its card has no address, and the agent starts."""
    subprocess.run(["ip", "address", "flush", "dev", "eth0"], check=True)
    subprocess.run(["ip", "link", "set", "eth0", "down"], check=True)
    start_agent.logged = len(log())
    return Agent()


start_agent.logged = 0


def log_of_this_start():
    return log()[start_agent.logged:]


def stop(agent):
    status = agent.stop(2)
    check(status == 0, f"the agent's exit status is {status}")

"""zelctl among many boxes, and what shells complete of it."""

import contextlib
import fcntl
import json
import os
import re
import struct
import subprocess
import termios
import time

import pytest

import responders
import stage
from stage import PROJECT, ZELCTL, in_network, wait_until

COMPLETION = PROJECT / "tools/completion"
COUNT = 1000


def run(*command, **environment):
    return subprocess.run(in_network("client", *command), capture_output=True, text=True, timeout=60,
                          env={**os.environ, **environment})


def zelctl(*arguments):
    return run(ZELCTL, *arguments)


@pytest.fixture(scope="module")
def terminals():
    subprocess.run(["mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "devpts", "/dev/pts"], check=True)
    with contextlib.suppress(FileExistsError):
        os.symlink("pts/ptmx", "/dev/ptmx")


def test_a_thousand_boxes_are_found_and_none_twice():
    boxes = subprocess.Popen(["workshop/boxes", "--responders", str(COUNT)], stdout=subprocess.PIPE, text=True)
    try:
        assert "1000 boxes" in boxes.stdout.readline()
        for number, why in (("0", "no number from 1"), ("1", "there already")):
            again = subprocess.run(["workshop/boxes", "--responders", number], stderr=subprocess.PIPE, text=True)
            assert again.returncode and why in again.stderr and "Traceback" not in again.stderr
        for _ in range(3):
            begin = time.monotonic()
            found = json.loads(zelctl("find", "--json").stdout)
            assert [box["address"] for box in found] == [responders.address(1 + number) for number in range(COUNT)]
            assert len({box["serial"] for box in found}) == COUNT
            assert stage.SANITIZED or time.monotonic() - begin < 5
        # The question to one address is that box's alone.
        with stage.namespace("client"):
            client = responders.slp.open_client(stage.CLIENT)
        with client:
            client.settimeout(1)
            client.sendto(responders.slp.attribute_request(), (responders.address(COUNT), responders.slp.PORT))
            reply, sender = client.recvfrom(4096)
            assert sender[0] == responders.address(COUNT)
            assert responders.slp.read_attributes(reply) == responders.attributes(COUNT)
            with pytest.raises(TimeoutError):
                client.recvfrom(4096)
    finally:
        boxes.terminate()
        assert boxes.wait(20) == 0


def test_boxes_with_one_serial_number():
    first, second = responders.address(1), responders.address(2)
    boxes = responders.other_boxes("(Serial=TAVO7),(DevId=\u6771\u4eac),(State=4),(Owner=x)",
                                   "(Serial=TAVO7),(DevId=e\u0301\u0301e),(State=5),(Owner=x)", "(Serial=TAVO8)")
    with boxes, subprocess.Popen(in_network("client", ZELCTL, "watch", "--interval", "0.5"), stdout=subprocess.PIPE,
                                 text=True, env={**os.environ, "TZ": "XYZ-5:30"}) as watch:
        record = [watch.stdout.readline() for _ in range(5)]
        watch.terminate()
        for query in ((), ("--state", "free"), ("--serial", "TAVO7")):
            assert f"{first}  TAVO7 (2 boxes)" in zelctl("find", *query).stdout
        lines = zelctl("find").stdout.splitlines()
        # Two wide characters, and two with two marks.
        assert [line.index(word) for line, word in zip(lines[1:3], ("free", "reserved"))] == [
            lines[0].index("STATE") - 2, lines[0].index("STATE") + 2]
        for name in "TAVO7", "7":
            done = zelctl("info", name)
            assert done.returncode == 2 and f"by its address: {first} (TAVO7), {second} (TAVO7)" in done.stderr
        assert f"{first}:5302 cannot be reached" in zelctl("info", first).stderr
        assert "192.168.128.3:5302 cannot be reached" in zelctl("info", "TAVO8").stderr
    for line, (address, event) in zip(record, ((first, "there, free"), (first, "one of 2 boxes"),
                                               (second, "there, reserved"), (second, "one of 2 boxes"))):
        assert re.match(rf"\d{{4}}-\d\d-\d\dT\d\d:\d\d:\d\d\+05:30 {address} \(TAVO7\) is {event}", line)


def test_a_small_terminal_shows_what_changes_first(terminals):
    main, other = os.openpty()
    fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 10, 200, 0, 0))
    lists = [f"(Serial=TAVO{number}),(State=4)" for number in range(1, 21)]
    watch = subprocess.Popen(in_network("client", ZELCTL, "watch", "--interval", "0.4"), stdout=other,
                             env={**os.environ, "NO_COLOR": "1"})
    shown = ""

    def rows():
        nonlocal shown
        shown += os.read(main, 65536).decode()
        frames = [re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]", "", frame) for frame in shown.split("\x1b[H")]
        assert all(frame.count("\n") <= 10 for frame in frames)
        return frames
    with responders.other_boxes(*lists[:-1]):
        wait_until(lambda: any("and 14 more" in frame and "TAVO5 " in frame for frame in rows()), "nineteen boxes")
    with responders.other_boxes(*lists):
        wait_until(lambda: any(re.search(r"NETWORK\r\n192.168.128.20 ", frame) for frame in rows()), "the new box")
    watch.terminate()
    assert watch.wait(20) == 0
    os.close(main), os.close(other)


BASH = """
. "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_zelctl zelctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def in_bash(line, _):
    words = [part for word in line.split(" ") for part in re.split("(=)", word)]
    return run("bash", "-c", BASH, "bash", COMPLETION / "zelctl.bash", *words).stdout


def in_fish(line, _):
    return run("fish", "--no-config", "-c", 'source $argv[1]; complete -C"$argv[2]"', COMPLETION / "zelctl.fish",
               line).stdout


def in_zsh(line, offered):
    return in_terminal(line, offered, "zsh -f -i", f"fpath=({COMPLETION} $fpath); autoload -Uz compinit; "
                                                   "compinit -u -D; LISTMAX=0")


def files_in_bash(line, offered):
    """Which its line editor completes."""
    return in_terminal(line, offered, "bash --norc --noprofile -i", f". {COMPLETION}/zelctl.bash")


def in_terminal(line, offered, command, setup):
    """What a terminal shows from the line's last word on when the tab key is pressed."""
    main, other = os.openpty()
    os.set_blocking(main, False)
    shell = subprocess.Popen(in_network("client", *command.split()), stdin=other, stdout=other, stderr=other,
                             start_new_session=True, env={**os.environ, "TERM": "dumb"})
    os.close(other)
    shown = ""

    def shows(*texts):
        nonlocal shown
        with contextlib.suppress(BlockingIOError):
            shown += os.read(main, 65536).decode()
        return all(text in shown for text in texts)
    try:
        os.write(main, f"{setup}; PS1='> '\necho rea''dy\n".encode())
        wait_until(lambda: shows("ready\r\n"), "the shell is ready")
        shown = ""
        os.write(main, f"{line}\t".encode())
        wait_until(lambda: shows(*offered), f"{line} is completed", 20)
        return shown.partition(line.rpartition(" ")[0])[2]
    finally:
        shell.kill()
        shell.wait()
        os.close(main)


@pytest.mark.parametrize("complete", [in_bash, in_fish, in_zsh])
def test_shells_complete(complete, terminals, tmp_path, monkeypatch):
    (tmp_path / "zelctl").symlink_to(ZELCTL)
    monkeypatch.setenv("PATH", f"{tmp_path}:{os.environ['PATH']}")
    with responders.other_boxes("(Serial=TAVO7),(DevId=seven),(State=4)", "(Serial=TAVO8),(DevId=$(reboot)),(State=4)",
                                "(Serial=TAVO9)", "(Serial=TAVO9)", "(Serial=`id`\t)"):
        for line, offered, others in (
                ("zelctl re", ("reserve", "release", "restart"), ("find",)),
                ("zelctl find --s", ("--state", "--serial"), ("--owner",)),
                ("zelctl find --state ", ("free", "reserved"), ("TAVO",)),
                ("zelctl find --color=b", ("blue", "brown"), ("red",)),
                ("zelctl mode ", ("dhcp", "linklocal", "TAVO7"), ("`",)),
                ("zelctl mode TAVO7 ", ("dhcp", "configured"), ("TAVO8",)),
                ("zelctl info ", ("TAVO7", "TAVO8", "192.168.128.3", "192.168.128.4", "192.168.128.5"),
                 ("TAVO9", "reboot", "`", "192.168.128.1")),
                ("zelctl info 192.168.128.", ("192.168.128.1", "192.168.128.2"), ("TAVO",)),
                ("zelctl info --timeout 3 s", ("seven",), ("selftest",)),
                ("zelctl metrics --output /etc/debian_ver", ("/etc/debian_version",), ("TAVO",)),
                ("zelctl metrics --state=/etc/debian_ver", ("/etc/debian_version",), ("TAVO",))):
            shown = (files_in_bash if complete is in_bash and "/etc" in line else complete)(line, offered)
            assert all(word in shown for word in offered), (line, shown)
            assert not any(word in shown for word in others), (line, shown)

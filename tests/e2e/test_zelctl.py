"""zelctl from a person's and a script's side: in the client's network, against the agent and other boxes."""

import json
import os
import pathlib
import re
import signal
import subprocess

import pytest

import responders
import stage
from stage import AGENT_LOG, BOX, CLIENT, DEVICE_ID, ZELCTL, in_network, port_rules, rules

TOOLS = pathlib.Path(__file__).parents[2] / "tools"
HOSTILE = "\x1b]0;title\x07\x1b[2J\r\n\x9b31m\u202ea\"\\"

pytestmark = pytest.mark.usefixtures("agent")


def zelctl(*arguments, status=0, **environment):
    """What the tool prints; what it prints on standard error is one line, and none when it succeeds."""
    done = subprocess.run(in_network("client", ZELCTL, *arguments), capture_output=True, timeout=120,
                          env={**os.environ, **environment})
    output, error = done.stdout.decode(), done.stderr.decode()
    stage.check_output(error)
    assert (done.returncode, error.count("\n")) == (status, status != 0), (arguments, output, error)
    assert "\x1b" not in output + error and "\r" not in output
    return error if status else output


@pytest.fixture
def at_home(tmp_path):
    """The tool of somebody who keeps handles there."""
    return lambda *arguments, **options: zelctl(*arguments, XDG_STATE_HOME=str(tmp_path), **options)


def test_a_box_is_found():
    lines = zelctl("find", "--color", "white", "--state", "free").splitlines()
    assert lines[0].split() == "ADDRESS SERIAL NAME COLOR STATE OWNER VOLTAGE NETWORK".split()
    assert lines[1].split() == [BOX, DEVICE_ID, lines[1].split()[2], "white", "free", "12.3", "V", "cable"]
    found, = json.loads(zelctl("find", "--json", "--serial", "0012345"))
    assert found["address"] == BOX and found["attributes"]["VIN"] == "TESTVIN0123456789"
    for part in (["--owner", "nobody"], ["--serial", "12345"], ["--color", "whit"], ["--state", "reserved"]):
        assert zelctl("find", *part, status=3)
    assert json.loads(zelctl("info", "--json"))["currentNetworkConfig.ip4Address"] == BOX
    assert re.search(rf"^id +{DEVICE_ID}$", zelctl("info", DEVICE_ID), re.M)


def test_a_reservation_from_beginning_to_end(at_home, tmp_path):
    kept = tmp_path / "zelctl" / DEVICE_ID
    assert "no handle" in at_home("lock", BOX, CLIENT, status=2)
    handle = at_home("reserve", BOX, "--owner", "<me & you>", "--lock", "192.168.68.9").strip()
    assert kept.read_text().strip() == handle and kept.stat().st_mode & 0o777 == 0o600
    assert rules() == port_rules("192.168.68.9")
    assert "reserved already by '<me & you>'" in at_home("reserve", BOX, "--owner", "you", status=1)
    at_home("lock", BOX, CLIENT)
    assert rules() == port_rules(CLIENT)
    assert at_home("command", BOX, "vehicle", "voltage", "unit=mV") == "kl15=12040 kl30=12310\n"
    assert "cannot be started" in at_home("command", BOX, "vehicle", "nothing", status=1)
    at_home("mode", BOX, "dhcp")
    assert "code 7" in at_home("mode", BOX, "dhcp", "--handle", "1", status=1)
    assert "code 7" in at_home("release", BOX, "--handle", "1", status=1) and kept.exists()
    at_home("release", BOX)
    assert not kept.exists() and rules() == []
    handle = at_home("reserve", BOX, "--owner", "me").strip()
    assert stage.release(handle) == "0"
    assert "code 9" in at_home("release", BOX, status=1) and not kept.exists()


def test_the_agent_service():
    assert "10-voltage: OK" in zelctl("selftest", BOX)
    zelctl("stop", BOX)
    assert "service: stopped\nFan State: OK" in zelctl("status", BOX)
    assert "already locked" in zelctl("stop", BOX, status=4)
    zelctl("start", BOX)
    assert "service: running" in zelctl("status", BOX)
    zelctl("restart", BOX)
    assert 'name="ConnectorService"' in zelctl("wsdl", BOX)
    assert "restartDevice" in zelctl("wsdl", BOX, "--agent")


def test_who_is_not_there_or_is_no_box():
    assert "timed out" in zelctl("info", "192.168.68.99", "--timeout", "0.5", status=3)
    assert "refused" in zelctl("info", f"{BOX}:81", status=3)
    assert "no SOAP" in zelctl("info", f"{BOX}:80", status=4)
    assert "no box 'nobody'" in zelctl("info", "nobody", "--wait", "0.3", status=3)
    zelctl("x", status=2)
    with open("/dev/full", "w") as full:
        done = subprocess.run(in_network("client", ZELCTL, "wsdl", BOX), stdout=full, stderr=subprocess.PIPE, text=True)
    assert done.returncode == 5 and "cannot be written" in done.stderr


def test_several_boxes_some_hostile():
    one = "(Serial=TAVO7),(DevId=one),(State=5),(Owner=me),(State=4),(Color=#be1110),(NetworkType=1),(SignalStrength=7)"
    two = f"(Serial={HOSTILE}),(Owner={HOSTILE * 20}),({HOSTILE}=1),(Color=#zzzzzz)"
    with responders.other_boxes(one, two, "((((=),(Serial=TAVO9),("):
        addresses = [found["address"] for found in json.loads(zelctl("find", "--json"))]
        assert addresses == [BOX, "192.168.128.1", "192.168.128.2", "192.168.128.3"]
        assert re.search(r"^192.168.128.1 +TAVO7 +one +red +reserved +me +WLAN 7$", zelctl("find"), re.M)
        hostile = json.loads(zelctl("find", "--json"))[2]["attributes"]
        assert hostile["Serial"] == HOSTILE and hostile[HOSTILE] == "1"
        assert "4 boxes answer, name one: 192.168.68.42 (TAVO0012345), 192.168.128.1" in zelctl("info", status=2)
        assert "192.168.128.3:5302 cannot be reached" in zelctl("info", "9", status=3)


def follow(*arguments):
    return subprocess.Popen(in_network("client", ZELCTL, *arguments), stdout=subprocess.PIPE, text=True)


def end(process):
    process.send_signal(signal.SIGINT)
    return process.wait(20)


def test_five_boxes_at_work(at_home):
    boxes = subprocess.Popen(["workshop/boxes"], stdout=subprocess.PIPE, text=True)
    assert any(line.startswith("Ctrl-C") for line in boxes.stdout)
    found = {each["name"]: each for each in json.loads(zelctl("find", "--json"))}
    assert [(name, found[name]["color"], found[name]["state"], found[name]["owner"]) for name in sorted(found)[1:]] == [
        ("bay-1", "green", "free", ""), ("bay-2", "blue", "reserved", "alice"),
        ("bay-3", "yellow", "free", ""), ("bay-4", "grey", "reserved", "bob")]
    assert "name one" in at_home("release", status=2)
    at_home("reserve", "bay-3", "--owner", "me")
    assert "no handle" in at_home("release", "bay-2", status=2)
    assert at_home("command", "vehicle", "voltage").endswith("kl30=12300\n")
    at_home("release")
    assert json.loads(zelctl("info", "0012348", "--json"))["state"] == "free"
    boxes.send_signal(signal.SIGINT)
    assert boxes.wait(30) == 0
    assert len(json.loads(zelctl("find", "--json"))) == 1


def test_watch_tells_changes():
    watch = follow("watch", "--interval", "1")
    assert f"{BOX} ({DEVICE_ID}) is there, free" in watch.stdout.readline()
    error, handle = stage.reserve("somebody")
    assert "STATE 'free' -> 'reserved'" in watch.stdout.readline()
    assert "OWNER '' -> 'somebody'" in watch.stdout.readline()
    assert stage.release(handle) == "0"
    assert "'reserved' -> 'free'" in watch.stdout.readline()
    assert end(watch) == 0


def on_terminal(*arguments, awaited="", **environment):
    """What the tool, interrupted once it has shown that text, writes to a terminal."""
    main, other = os.openpty()
    process = subprocess.Popen(in_network("client", ZELCTL, *arguments), stdout=other,
                               env={**os.environ, **environment})
    output = ""
    while awaited and awaited not in output:
        output += os.read(main, 65536).decode()
    assert (end(process) if awaited else process.wait(20)) == 0
    output += os.read(main, 65536).decode()
    os.close(main), os.close(other)
    return output


def test_a_terminal_shows_colors_and_gets_nothing_else():
    subprocess.run(["mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "devpts", "/dev/pts"], check=True)
    os.symlink("pts/ptmx", "/dev/ptmx")
    with responders.other_boxes(f"(Serial=TAVO7),(Owner={HOSTILE}),(Color=#be1110)"):
        assert "\x1b" not in on_terminal("find", NO_COLOR="1")
        output = on_terminal("find")
        assert "\x1b[48;2;190;17;16m  \x1b[0m red" in output and "?" in output
        assert "\x1b" not in re.sub(r"\x1b\[[0-9;]*m", "", output)
        output = on_terminal("watch", "--interval", "1", awaited="TAVO7")
        assert output.endswith("\x1b[?25h\x1b[?7h\r\n")
        assert "\x1b" not in re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]", "", output)


def test_the_log_is_shown_and_followed():
    assert "SLP service started" in zelctl("log", BOX)
    log = follow("log", BOX, "--follow")
    with AGENT_LOG.open("a") as file:
        file.write("first \x1b[2J line\n")
    assert next(line for line in log.stdout if "first" in line) == "first ?[2J line\n"
    log.terminate()
    assert log.wait(20) == -signal.SIGTERM


def test_the_manual_knows_everything():
    manual = (TOOLS / "zelctl.1").read_text().replace("Fl -", "--").replace("Ic ", "")
    commands = re.findall(r"^  ([a-z]+) {2,}", zelctl("--help"), re.M)
    assert len(commands) == 15
    for command in commands:
        text = zelctl(command, "--help")
        assert "Examples:" in text
        for word in [command, *re.findall(r"--[a-z]+", text)]:
            assert re.search(rf"(^|[ \n]){word}\b", manual), f"{word} is in the manual page"
    for check in (["man", "--warnings", "-l"], ["mandoc", "-Tlint", "-Wwarning"]):
        if subprocess.run(["which", check[0]], capture_output=True).returncode == 0:
            done = subprocess.run([*check, str(TOOLS / "zelctl.1")], capture_output=True, text=True)
            assert done.returncode == 0 and done.stderr == ""

"""zelctl from a person's and a script's side: in the client's network, against the agent and other boxes."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import threading

import jsonschema
import pytest

import responders
import stage
from stage import AGENT_LOG, BOX, CLIENT, DEVICE_ID, MANAGER, ZELCTL, in_network, port_rules, rules

TOOLS = pathlib.Path(__file__).parents[2] / "tools"
SCHEMA = json.loads((TOOLS.parent / "docs/zelctl.schema.json").read_text())
HOSTILE = "\x1b]0;title\x07\x1b[2J\r\n\x9b31m\u202ea\"\\"

pytestmark = pytest.mark.usefixtures("agent")


def run(*arguments, status=0, **environment):
    """What the tool prints, and, on standard error, one line, or none when it succeeds, besides what it waits for."""
    done = subprocess.run(in_network("client", ZELCTL, *arguments), capture_output=True, timeout=120,
                          env={**os.environ, **environment})
    output, error = done.stdout.decode(), re.sub(r"^zelctl: .*\.\.\.\n", "", done.stderr.decode(), flags=re.M)
    stage.check_output(error)
    assert (done.returncode, error.count("\n")) == (status, status != 0), (arguments, output, error)
    assert "\x1b" not in output + error and "\r" not in output
    return output, error


def zelctl(*arguments, **options):
    return "".join(run(*arguments, **options))


def fits(name, line):
    """What a line tells a program."""
    value = json.loads(line)
    jsonschema.Draft202012Validator({**SCHEMA, "anyOf": [{"$ref": f"#/$defs/{name}"}]}).validate(value)
    return value


def told(command, *arguments, status=0, **environment):
    """What the tool tells a program on standard output, or why it fails."""
    output, error = run(command, "--json", *arguments, status=status, **environment)
    results = [fits(command, line) for line in output.splitlines()]
    if status:
        failure = fits("error", error)["error"]
        assert failure["exit"] == status
        return results, failure["message"]
    return results if command == "log" else results[0]


@pytest.fixture
def at_home(tmp_path):
    """The tool of somebody who keeps handles there."""
    return lambda *arguments, **options: zelctl(*arguments, XDG_STATE_HOME=str(tmp_path), **options)


def test_a_box_is_found():
    lines = zelctl("find", "--color", "white", "--state", "free").splitlines()
    assert lines[0].split() == "ADDRESS SERIAL NAME COLOR STATE OWNER VOLTAGE NETWORK".split()
    assert lines[1].split() == [BOX, DEVICE_ID, lines[1].split()[2], "white", "free", "12.3", "V", "cable"]
    found, = told("find", "--serial", "tavo0012345", "--color", "WHITE", "--state", "Free")
    assert found["attributes"]["VIN"] == "TESTVIN0123456789"
    for part in (["--owner", "nobody"], ["--serial", "12345"], ["--color", "whit"], ["--state", "reserved"]):
        assert told("find", *part, status=3)[0] == [[]]
    info = told("info")
    assert info["channels"][2] == {"name": "MOST", "type": 2, "address": BOX, "port": 6802, "active": False}
    assert info["network"]["address"] == info["address"] == BOX and info["network"]["address_mode"] == "dhcp"
    same = info.keys() & found.keys() - {"attributes", "network", "versions"}
    assert len(same) == 9 and {key: info[key] for key in same} == {key: found[key] for key in same}
    assert found["voltage_kl30_mv"] == 12310 and found["kl15_edge"] is False and found["owner"] is None
    assert re.search(rf"^id +{DEVICE_ID}$", zelctl("info", DEVICE_ID.lower()), re.M)


def test_a_reservation_from_beginning_to_end(at_home, tmp_path):
    kept = tmp_path / "zelctl" / DEVICE_ID
    assert "no handle" in at_home("lock", BOX, CLIENT, status=2)
    for host in ("192.168.68", "5", "0x7f.1", "0", "0.0.0.0", "localhost", "192.168.68.01", ""):
        assert "(zelctl" in (text := at_home("lock", BOX, host, status=2)) or "all four numbers" in text
        assert at_home("reserve", BOX, "--owner", "me", "--lock", host, status=2)
    for empty in (["info", ""], ["release", "--handle", ""], ["reserve", "--owner", ""], ["find", "--serial", ""]):
        assert "an empty" in told(*empty, status=2)[1]
    handle = at_home("reserve", BOX, "--owner", "<me & you>", "--lock", "192.168.68.9").strip()
    assert kept.read_text().strip() == handle and kept.stat().st_mode & 0o777 == 0o600
    assert rules() == port_rules("192.168.68.9")
    assert "reserved already by '<me & you>'" in at_home("reserve", BOX, "--owner", "you", status=1)
    assert "is reserved by '<me & you>'" in zelctl("stop", BOX, status=1)
    at_home("lock", BOX, CLIENT)
    assert rules() == port_rules(CLIENT)
    assert at_home("command", BOX, "vehicle", "voltage", "unit=mV") == "kl15=12040 kl30=12310\n"
    assert "cannot be started" in at_home("command", BOX, "--", "--vehicle", "-1", "-k=v", "[x]=1", status=1)
    assert "the command name '[a,b]'" in at_home("command", BOX, "vehicle", "[a,b]", status=1)
    assert at_home("mode", BOX, "DHCP") == f"{BOX}\n"
    for command in (["mode", BOX, "dhcp"], ["release", BOX], ["lock", BOX, "any"], ["command", BOX, "a", "b"]):
        assert "code 7: --handle is not" in at_home(*command, "--handle", "1", status=1) and kept.exists()
    assert "no handle of it is kept here" in zelctl("mode", BOX, "dhcp", status=1)
    at_home("release", BOX)
    assert not kept.exists() and rules() == []
    handle = at_home("reserve", BOX, "--owner", "--me").strip()
    assert stage.release(handle) == "0"
    assert "code 9: it is not reserved" in at_home("release", BOX, status=1) and not kept.exists()


def test_a_program_is_told_everything(tmp_path):
    home = {"XDG_STATE_HOME": str(tmp_path)}
    reserved = told("reserve", BOX, "--owner", "Ä\"\\", "--lock", "ANY", **home)
    assert reserved["lock"] == "any" and reserved["owner"] == "Ä\"\\" and reserved["handle_is_kept"]
    assert rules() == port_rules(None)
    assert told("find", "--owner", "ä\"\\")[0]["owner"] == told("info", BOX)["owner"] == "Ä\"\\"
    assert told("lock", BOX, CLIENT, **home)["lock"] == CLIENT
    assert told("command", BOX, "vehicle", "voltage", **home)["result"].endswith("kl30=12310")
    assert "cannot be started" in told("command", BOX, "vehicle", "nothing", **home, status=1)[1]
    assert told("mode", BOX, "dhcp", "--no-wait", **home)["mode"] == "dhcp"
    assert "reserved already" in told("reserve", BOX, "--owner", "you", status=1)[1]
    told("release", BOX, **home)
    assert any("iptables" in each["line"] for each in told("log", BOX))
    assert told("wsdl", BOX)["wsdl"].startswith("<?xml")
    assert told("metrics", **home)["metrics"].endswith("# EOF\n")
    assert told("metrics", "--output", str(tmp_path / "zel.prom"), **home)["boxes"] == 1
    assert "(zelctl info --help)" in told("info", "--bogus", status=2)[1]
    assert "Connection refused" in told("info", f"{BOX}:81", status=3)[1]
    assert fits("error", zelctl("x", "--json", status=2)) and fits("error", zelctl("--json", status=2))


def test_the_agent_service():
    assert "10-voltage: OK" in zelctl("selftest", BOX)
    assert told("stop", BOX) == {"address": BOX, "running": False}
    assert zelctl("status", BOX, status=1).startswith("service: stopped\nFan State: OK")
    (state,), why = told("status", BOX, status=1)
    assert state["running"] is False and "zelctl start" in why
    assert "its service is stopped already" in told("stop", BOX, status=1)[1]
    assert "its service is stopped (zelctl start)" in zelctl("reserve", BOX, "--owner", "me", status=1)
    told("start", BOX)
    assert told("start", BOX) == {"address": BOX, "running": True}
    assert "service: running" in zelctl("status", BOX) and told("status", BOX)["monitored"][0]["status"] == "OK"
    failing = pathlib.Path("/app/zel/selftest.d/99-fails")
    failing.write_text("#!/bin/sh\necho 'why; not'\nexit 1\n")
    failing.chmod(0o755)
    assert "99-fails: FAILED (why; not)\nzelctl: " in zelctl("selftest", BOX, status=1)
    (result,), why = told("selftest", BOX, status=1)
    assert result["tests"][-1] == {"name": "99-fails", "passed": False, "detail": "why; not"} and "99-fails" in why
    failing.unlink()
    assert told("selftest", BOX)["passed"]
    assert told("restart", BOX, "--no-wait") == {
        "address": BOX, "device_id": DEVICE_ID, "former_address": BOX, "restarted": False}
    stage.wait_until(stage.REBOOTS.exists, "it is told to")
    assert "goes on answering as before" in told("restart", BOX, "--timeout", "5", status=3)[1]
    assert 'name="ConnectorService"' in zelctl("wsdl", BOX)
    assert "restartDevice" in zelctl("wsdl", BOX, "--agent")


def test_who_is_not_there_or_is_no_box():
    assert "timed out" in zelctl("info", "192.168.68.99", "--timeout", "0.5", status=3)
    assert "refused" in zelctl("info", f"{BOX}:81", status=3)
    assert "no SOAP" in zelctl("info", f"{BOX}:80", status=4)
    for name in "nobody", "5", "192.168.68", "0x7f.1", "0.0.0.0", "[]":
        assert f"no box '{name}'" in zelctl("info", name, "--wait", "0.3", status=3)
    for wrong in (["--timeout", "nan"], ["--wait=-nan"], ["--json=false"], ["-x"], ["--", BOX, "--json"]):
        assert "(zelctl info --help)" in told("info", *wrong, status=2)[1]
    zelctl("x", status=2)
    with open("/dev/full", "w") as full:
        done = subprocess.run(in_network("client", ZELCTL, "wsdl", BOX), stdout=full, stderr=subprocess.PIPE, text=True)
    assert done.returncode == 5 and "cannot be written" in done.stderr


HTTP = b"HTTP/1.1 200 OK\r\n"


def test_answers_of_other_servers_are_read_and_limited():
    answer, held = b"", []
    with stage.namespace("manager"):
        listener = socket.create_server((MANAGER, 5302))

    def serve():
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                held[:] = [connection]  # and the one before is closed
                connection.recv(4096)
                with contextlib.suppress(OSError):
                    connection.sendall(answer.removesuffix(STAYS))
                if not answer.endswith(STAYS):
                    held.clear()
                del connection
    STAYS = b"(stays)"
    threading.Thread(target=serve, daemon=True).start()
    for answer, status, text in [
            (HTTP + b"content-length: 5\r\n\r\nhello", 0, "hello"),
            (HTTP + b"content-length: 5\r\n\r\nhello" + STAYS, 0, "hello"),
            (HTTP + b"TRANSFER-encoding: Chunked\r\n\r\n3\r\nhel\r\n2;x=y\r\nlo\r\n0\r\n\r\n" + STAYS, 0, "hello"),
            (b"HTTP/1.1 100 Continue\r\n\r\n" + HTTP + b"\r\nhello", 0, "hello"),
            (b"HTTP/1.0 302 Found\nlocation: http://%s:5302/\n\nhello" % BOX.encode(), 4, "answers 302"),
            (HTTP + b"content-length: 6\r\n\r\nhello", 4, "incomplete"),
            (HTTP + b"content-length: 6\r\n\r\nhello" + STAYS, 4, "incomplete"),
            (HTTP + b"content-length: 1048577\r\n\r\n" + bytes(1048577), 4, "too large"),
            (HTTP + b"\r\n" + bytes(2000000) + STAYS, 4, "too large"),
            (HTTP + b"x: y\r\n" * 20000 + STAYS, 4, "too large"),
            (HTTP + b"x" * 2000000 + STAYS, 4, "too large"),
            (b"SSH-2.0-x\r\n", 4, "no HTTP"), (b"", 3, "does not answer"), (STAYS, 3, "wait longer")]:
        assert text in zelctl("wsdl", MANAGER, "--timeout", "0.7", status=status, http_proxy="http://127.0.0.1:9")
    listener.close()


def test_several_boxes_some_hostile():
    one = "(Serial=TAVO7),(DevId=one),(State=5),(Owner=me),(State=4),(Color=#be1110),(NetworkType=1),(SignalStrength=7)"
    two = f"(Serial={HOSTILE}),(Owner={HOSTILE * 20}),({HOSTILE}=1),(Color=#zzzzzz)"
    with responders.other_boxes(one, two, "((((=),(Serial=TAVO9),("):
        addresses = [found["address"] for found in told("find")]
        assert addresses == [BOX, "192.168.128.1", "192.168.128.2", "192.168.128.3"]
        assert re.search(r"^192.168.128.1 +TAVO7 +one +red +reserved +me +WLAN 7$", zelctl("find"), re.M)
        hostile = told("find")[2]["attributes"]
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
    found = {each["name"]: each for each in told("find")}
    assert [(name, found[name]["color"], found[name]["state"], found[name]["owner"]) for name in sorted(found)[1:]] == [
        ("bay-1", "green", "free", None), ("bay-2", "blue", "reserved", "alice"),
        ("bay-3", "yellow", "free", None), ("bay-4", "grey", "reserved", "bob")]
    assert "name one" in at_home("release", status=2)
    at_home("reserve", "bay-3", "--owner", "me")
    assert "no handle" in at_home("release", "bay-2", status=2)
    assert at_home("command", "vehicle", "voltage").endswith("kl30=12300\n")
    at_home("release")
    assert told("info", "0012348")["state"] == "free"
    boxes.send_signal(signal.SIGINT)
    assert boxes.wait(30) == 0
    assert len(told("find")) == 1


def test_watch_tells_changes():
    watch, program = follow("watch", "--interval", "1"), follow("watch", "--interval", "1", "--json")
    assert f"{BOX} ({DEVICE_ID}) is there, free" in watch.stdout.readline()
    assert fits("watch", program.stdout.readline())["event"] == "there"
    error, handle = stage.reserve("somebody")
    assert "STATE 'free' -> 'reserved'" in watch.stdout.readline()
    assert "OWNER '' -> 'somebody'" in watch.stdout.readline()
    assert stage.release(handle) == "0"
    assert "'reserved' -> 'free'" in watch.stdout.readline()
    change = fits("watch", program.stdout.readline())
    assert (change["event"], change["changed"], change["box"]["owner"]) == ("changed", ["state", "owner"], "somebody")
    assert end(watch) == end(program) == 0


def terminal():
    if not os.path.lexists("/dev/ptmx"):
        subprocess.run(["mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "devpts", "/dev/pts"], check=True)
        os.symlink("pts/ptmx", "/dev/ptmx")
    return os.openpty()


def shown(main, awaited):
    """What comes out of a terminal until there is that text, or all of it."""
    output = b""
    with contextlib.suppress(OSError):  # nobody has it open any more
        while not awaited or awaited.encode() not in output:
            output += os.read(main, 65536)
    return output.decode()


def on_terminal(*arguments, awaited="", **environment):
    """What the tool, interrupted once it has shown that text, writes to a terminal."""
    main, other = terminal()
    process = subprocess.Popen(in_network("client", ZELCTL, *arguments), stdout=other,
                               env={**os.environ, **environment})
    os.close(other)
    output = shown(main, awaited)
    assert (end(process) if awaited else process.wait(20)) == 0
    output += shown(main, "")
    os.close(main)
    return output


def test_a_terminal_shows_colors_and_gets_nothing_else():
    with responders.other_boxes(f"(Serial=TAVO7),(Owner={HOSTILE}),(Color=#be1110)"):
        assert "\x1b" not in on_terminal("find", NO_COLOR="1")
        output = on_terminal("find")
        assert "\x1b[48;2;190;17;16m  \x1b[0m red" in output and "?" in output
        assert "\x1b" not in re.sub(r"\x1b\[[0-9;]*m", "", output)
        assert "\x1b" not in on_terminal("watch", "--interval", "1", awaited="TAVO7", TERM="dumb")
        output = on_terminal("watch", "--interval", "1", awaited="TAVO7")
        assert output.endswith("\x1b[?25h\x1b[?7h\r\n")
        assert "\x1b" not in re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]", "", output)


def test_the_log_is_shown_and_followed():
    assert "SLP service started" in zelctl("log", BOX)
    log, other = follow("log", BOX, "--follow"), follow("log", BOX, "--follow", "--json")
    for number in range(3):
        with AGENT_LOG.open("a") as file:
            file.write(f"{number} \x1b[2J line\n")
        lines = list(iter(log.stdout.readline, f"{number} ?[2J line\n"))
        assert lines == [] if number else not any("show.jsp" in line for line in lines), lines
    assert stage.log().count("' to FileDownload") >= 4
    assert end(log) == end(other) == 0


def test_a_box_is_followed_to_its_new_address(at_home, tmp_path):
    handle = at_home("reserve", BOX, "--owner", "me").strip()
    # Another one that says it is the same has its address all the time.
    with responders.other_boxes(f"(Serial={DEVICE_ID})"):
        address = at_home("mode", BOX, "linklocal").strip()
        assert address.startswith("169.254.")
        moved = told("mode", address, "dhcp", "--handle", handle)
    assert moved == {"address": BOX, "device_id": DEVICE_ID, "former_address": address, "mode": "dhcp"}
    at_home("release", DEVICE_ID)
    assert at_home("mode", BOX, "x", status=2) and not (tmp_path / "zelctl" / DEVICE_ID).exists()


def test_a_reserved_box_is_waited_for(tmp_path):
    home = {"XDG_STATE_HOME": str(tmp_path)}
    handle = stage.reserve("al ice")[1]
    assert "by 'al ice', first seen so just now" in zelctl("reserve", BOX, "--owner", "you", status=1, **home)
    memory = tmp_path / "zelctl/metrics.state"
    since = 1700000000
    memory.write_text(re.sub(r"\t\d+\t", f"\t{since}\t", memory.read_text()))
    zelctl("find", **home)
    for option in ([], ["--wait-free", "0.5"]):
        text = zelctl("reserve", BOX, "--owner", "you", *option, status=1, **home, TZ="UTC")
        assert "by 'al ice', seen so since 2023-11-14 22:13; wait" in text
    main, other = terminal()
    program = ["reserve", "--owner", "you", "--wait-free", BOX]
    interrupted = subprocess.Popen(in_network("client", ZELCTL, *program), stderr=other,
                                   env={**os.environ, "TERM": "xterm"})
    os.close(other)
    output = shown(main, "by 'al ice'")
    assert end(interrupted) == -signal.SIGINT
    output += shown(main, "")
    os.close(main)
    assert output.endswith("\r\x1b[K") and "\n" not in output
    waiting = subprocess.Popen(in_network("client", ZELCTL, *program), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               text=True)
    assert "zelctl: waiting for 192.168.68.42: reserved already by 'al ice'" in waiting.stderr.readline()
    assert stage.release(handle) == "0"
    assert stage.release(waiting.communicate(timeout=30)[0].strip()) == "0" and waiting.returncode == 0


def test_a_slow_command_is_waited_for(at_home):
    slow = pathlib.Path("/app/zel/commands/vehicle/slow")
    slow.write_text("#!/bin/sh\nsleep 2\necho done\n")
    slow.chmod(0o755)
    at_home("reserve", BOX, "--owner", "me")
    assert "may still be at work" in at_home("command", BOX, "vehicle", "slow", "--timeout", "0.5", status=3)
    assert at_home("command", BOX, "vehicle", "slow") == "done\n\n"
    at_home("release", BOX)


def test_the_manual_knows_everything():
    manual = (TOOLS / "zelctl.1").read_text().replace("Fl -", "--").replace("Ic ", "")
    commands = re.findall(r"^  ([a-z]+) {2,}", zelctl("--help"), re.M)
    assert len(commands) == 16
    for command in commands:
        text = zelctl(command, "--help")
        assert "Examples:" in text
        for word in [command, *re.findall(r"--[a-z-]+", text)]:
            assert re.search(rf"(^|[ \n]){word}\b", manual), f"{word} is in the manual page"
    for check in (["man", "--warnings", "-l"], ["mandoc", "-Tlint", "-Wwarning"]):
        if subprocess.run(["which", check[0]], capture_output=True).returncode == 0:
            done = subprocess.run([*check, str(TOOLS / "zelctl.1")], capture_output=True, text=True)
            assert done.returncode == 0 and done.stderr == ""

"""zelctl metrics, with the monitoring system that reads them."""

import contextlib
import json
import os
import pathlib
import re
import subprocess

import pytest

import responders
import stage
from stage import BOX, DEVICE_ID, ZELCTL, in_network, output_of, wait_until

COLLECTED = pathlib.Path("/var/lib/prometheus/node-exporter")
RULES = stage.PROJECT / "packaging/monitoring/zel.rules.yml"
HERE = f'{{serial="{DEVICE_ID}",address="{BOX}"}}'

pytestmark = pytest.mark.usefixtures("agent")


@pytest.fixture(autouse=True)
def at_home(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_STATE_HOME", str(tmp_path))


def metrics(*arguments, status=0, wait="0.7"):
    """The samples by their series, or what the tool complains of."""
    done = subprocess.run(in_network("client", ZELCTL, "metrics", "--wait", wait, *arguments), capture_output=True)
    stage.check_output(done.stderr.decode())
    assert done.returncode == status, done
    if status or "--output" in arguments:
        return done.stderr.decode()
    checked = subprocess.run(["promtool", "check", "metrics"], input=done.stdout, capture_output=True)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, b""), done.stdout
    lines = done.stdout.decode().split("\n")
    assert lines[-2:] == ["# EOF", ""]
    return dict(line.rsplit(" ", 1) for line in lines if line and not line.startswith("#"))


def test_what_a_box_says_and_when_it_said_it():
    error, handle = stage.reserve('me "and"\\you')
    first = metrics("--owner-label")
    assert first["zel_box_reserved" + HERE] == first['zel_boxes{state="reserved"}'] == "1"
    assert first["zel_box_voltage_kl15_volts" + HERE] == "12.040"
    assert first["zel_box_owner_info" + HERE.replace("}", r',owner="me \"and\"\\you"}')] == "1"
    assert "zel_box_signal_strength" + HERE not in first and first["zel_search_timestamp_seconds"].isdigit()
    since = first["zel_box_reserved_since_timestamp_seconds" + HERE]
    assert metrics(wait="1.1")["zel_box_reserved_since_timestamp_seconds" + HERE] == since
    assert stage.release(handle) == "0"
    with stage.without_address():
        gone = metrics()
    assert gone['zel_boxes{state="gone"}'] == "1" and 0 < int(gone["zel_box_last_seen_timestamp_seconds" + HERE])
    assert not any(series.startswith(("zel_box_info", "zel_box_reserved")) for series in gone)
    back = metrics()
    assert back["zel_box_reserved" + HERE] == "0" and not any("since" in series or "owner" in series for series in back)


def test_how_warm_boxes_are():
    file = pathlib.Path("/proc/sys/atmel/acttemp")
    before = file.read_text()
    try:
        with responders.other_boxes("(Serial=TAVO7)"):  # has no service that could be asked
            for line, critical, celsius in (("Temp:41,Status:02", "0", "41"), ("Temp:-5,Status:0x12", "1", "-5"),
                                            ("Temp:?,x: 10 C", "1", None), ("Temp:41,Status:", None, None),
                                            ("Temp:41", None, None), ("41,Status:10", None, None), ("", None, None)):
                file.write_text(line + "\n")
                found = metrics("--temperature", wait="0.3")
                assert [found.get(f"zel_box_temperature_{name}{HERE}") for name in ("critical", "celsius")] == \
                    [critical, celsius], line
                assert [name for name in found if "TAVO7" in name and "temperature" in name] == []
    finally:
        file.write_text(before)
    assert not any("temperature" in name for name in metrics())


def test_strangers():
    hostile = '\x1b]0;x\x07\r\n"} 1\n# EOF\nzel_boxes{state="free"} 99\n\\' + "ä" * 99
    with responders.other_boxes(
            f"(Serial={hostile}),(DevId={hostile}),(Owner={hostile}),(State=5),(Color={hostile}),(Kl15Voltage=NaN)",
            "(Serial=T1),(State=9),(Kl30Voltage=-1),(NetworkType=1),(SignalStrength=256)",
            "(Serial=T1),(State=4),(Kl30Voltage=1e9),(NetworkType=1),(SignalStrength=255)", ""):
        found = metrics("--owner-label")
        assert [found[f'zel_boxes{{state="{state}"}}'] for state in ("free", "reserved", "other", "gone")] == \
            ["2", "1", "2", "0"]
        assert found["zel_duplicate_serials"] == "1"
        assert [value for series, value in found.items() if "volts" in series] == ["12.040", "12.310"]
        assert [value for series, value in found.items() if "signal" in series] == ["255"]
        assert max(map(len, re.findall(r'="((?:[^"\\]|\\.)*)"', " ".join(found)))) <= 2 * 64
        again = metrics("--owner-label")
        assert again.keys() == found.keys()


def test_a_file_is_replaced_as_a_whole_or_stays(tmp_path):
    file = tmp_path / "out/zel.prom"
    file.parent.mkdir()
    assert metrics("--output", str(file)) == "" and file.stat().st_mode & 0o777 == 0o644
    before = file.read_text()
    state = tmp_path / "zelctl/metrics.state"
    assert "zel_box_info" in before and state.stat().st_mode & 0o777 == 0o600
    assert "no directory" in metrics("--output", "/nowhere/zel.prom", status=5)
    assert "no regular file" in metrics("--output", "/dev/null", status=5)
    assert "both" in metrics("--output", str(file), "--state", f"{file.parent}/./{file.name}", status=2)
    state.unlink()
    state.mkdir()
    assert "no regular file" in metrics("--output", str(file), status=5)
    state.rmdir()
    output_of("mount", "-t", "tmpfs", "-o", "size=4k", "full", str(file.parent))  # room for one page
    try:
        file.write_text("old\n")
        assert "No space left" in metrics("--output", str(file), status=5)
        assert os.listdir(file.parent) == [file.name] and file.read_text() == "old\n"
    finally:
        output_of("umount", str(file.parent))
    state.write_text("zelctl boxes 1\nx\n\n1\t1\n9\t0\t10.0.0.9\tT9\t\n99999999999\t0\t10.0.0.8\tT8\t\n" + "\xff" * 99)
    found = metrics()
    assert not any("T9" in series for series in found), "forgotten after a week"
    assert found['zel_box_last_seen_timestamp_seconds{serial="T8",address="10.0.0.8"}'] == \
        found["zel_search_timestamp_seconds"]


def test_the_rules():
    output_of("promtool", "check", "rules", RULES)
    output_of("promtool", "test", "rules", stage.PROJECT / "tests/zel.rules.test.yml")


SCRAPED = """
global: {scrape_interval: 1s, evaluation_interval: 1s}
rule_files: [zel.rules.yml]
scrape_configs: [{job_name: node, static_configs: [{targets: ["127.0.0.1:9100"]}]}]
"""


@contextlib.contextmanager
def monitoring(folder):
    """prometheus, node_exporter and what the timer does, all in the client's network; a minute lasts a second."""
    COLLECTED.mkdir(parents=True)
    rules = re.sub(r"\b(\d+)m\b", r"\1s", RULES.read_text()).replace("* 60", "* 1")
    (folder / "zel.rules.yml").write_text(rules)
    (folder / "prometheus.yml").write_text(SCRAPED)
    timer = f"while sleep 0.2; do {ZELCTL} metrics --wait 0.8 --output {COLLECTED}/zel.prom; done"
    programs = []
    try:
        for name, *command in (("timer", "sh", "-c", timer),
                               ("exporter", "prometheus-node-exporter", "--web.listen-address=127.0.0.1:9100",
                                f"--path.sysfs={folder}"),  # the box has none
                               ("prometheus", "prometheus", f"--config.file={folder}/prometheus.yml",
                                f"--storage.tsdb.path={folder}/data", "--web.listen-address=127.0.0.1:9090")):
            programs.append(stage.Program(in_network("client", *command), folder / f"{name}.out"))

        def alerts():
            done = subprocess.run(in_network("client", "curl", "-sf", "http://127.0.0.1:9090/api/v1/alerts"),
                                  capture_output=True)
            return {(alert["labels"]["alertname"], alert["labels"].get("serial"))
                    for alert in json.loads(done.stdout or '{"data": {"alerts": []}}')["data"]["alerts"]
                    if alert["state"] == "firing"}
        yield alerts
    finally:
        for program in programs:
            program.stop()


def test_an_alert_fires_for_a_box_that_is_taken_away(tmp_path):
    boxes = subprocess.Popen(["workshop/boxes"], stdout=subprocess.PIPE, text=True)
    assert any(line.startswith("Ctrl-C") for line in boxes.stdout)
    try:
        with monitoring(tmp_path) as alerts:
            at_rest = {("ZelBoxLowVoltage", "TAVO0012347"), ("ZelBoxReservedForLong", "TAVO0012347"),
                       ("ZelBoxReservedForLong", "TAVO0012349")}
            wait_until(lambda: alerts() == at_rest, "what is wrong with boxes that are there")
            output_of("ip", "link", "set", "bay-3", "down", network="switch")
            wait_until(lambda: alerts() == at_rest | {("ZelBoxGone", "TAVO0012348")}, "the box is gone")
            with responders.other_boxes("(Serial=TAVO0012346),(State=4)"):
                wait_until(lambda: ("ZelDuplicateSerial", "TAVO0012346") in alerts(), "a serial number twice")
            output_of("ip", "link", "set", "bay-3", "up", network="switch")
            wait_until(lambda: not any(name == "ZelBoxGone" and serial == "TAVO0012348" for name, serial in alerts()),
                       "the box is back")
    finally:
        boxes.terminate()
        assert boxes.wait(60) == 0

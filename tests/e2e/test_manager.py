"""The box and its manager: found, signed in, told what to be, updated; and whatever goes wrong."""

import contextlib
import functools
import os
import pathlib
import re
import stat
import subprocess
import sys
import time

import pytest

import box
import workshop
from workshop import (Manager, active_image, agent, ask, attribute_request, attributes, log, network, service_request,
                      settings, sign_in_ended, wait_for_log)

sys.path.append("workshop")
from manager_scenarios import SCENARIOS

CONFIG = pathlib.Path("/config")
REBOOTS = pathlib.Path("/tmp/reboot.log")
IMAGES = pathlib.Path("/app/zel/images")
SETTINGS = ("tavo.", "country.code", "wlan.conf.infra.", "network.config.discover.mode", workshop.ADDRESS_KEY)


@functools.cache
def undisturbed():
    """A box at rest that has never signed in: its descriptors and threads, kilobytes at the most."""
    with agent("opla.mode=OPLA-Next\n" + workshop.PLAIN) as running:
        running.wait_until_serving()
        return running.at_rest(), running.status("VmHWM")


def check_at_rest(running, searching=False):
    """After any sign-in: the box is free, nothing is left open, and clients find it."""
    box.wait_until(sign_in_ended, "the box is open to clients", 120)
    running.wait_until_serving()
    if not searching:
        box.wait_until(lambda: "OrsSignInServic" not in running.threads().values(), "the sign-in has ended")
    assert box.value(box.call("getDeviceInformation"), "state") == "4"
    assert box.rules() == []
    assert ask(service_request())[1] == 2 and "(State=4)" in attributes(ask(attribute_request()))
    children = pathlib.Path(f"/proc/{running.pid}/task").glob("*/children")
    assert "".join(path.read_text() for path in children) == ""
    if not searching:
        before, memory_before = undisturbed()
        assert running.at_rest() == before
        memory = running.status("VmHWM")
        # A sanitizer keeps what is freed, an emulator has a memory of its own.
        assert box.SANITIZED or memory - memory_before < 4096, f"{memory} kB after {memory_before} kB"


def check_left(processes_before):
    """After the end of agent and manager: whole settings, none that nobody may set, and no process."""
    assert all(key.startswith(SETTINGS) for key in settings()), settings()
    assert stat.S_IMODE(box.CONFIGURATION.stat().st_mode) == 0o600
    assert not pathlib.Path("/tmp/intruder").exists()
    assert not list(pathlib.Path("/tmp").glob("*.img")), "an image is not kept in memory"
    box.wait_until(lambda: processes() <= processes_before, "no process is left")


def processes():
    """Those of the box, without the DHCP client, which keeps the lease for the next start."""
    found = set()
    for path in pathlib.Path("/proc").glob("[0-9]*/comm"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
            if path.read_text() != "busybox\n":
                found.add(path.parent.name)
    return found


def sign_in(scenario, *options, configuration=workshop.PLAIN):
    """Runs one start of the box against a manager. Returns the manager and what was logged."""
    undisturbed()
    before = processes()
    with Manager(scenario, *options) as manager, agent(configuration) as running:
        check_at_rest(running, searching=scenario == "no-slp")
    check_left(before)
    return manager, log()


# What the log says, as regular expressions, and whether the box is signed in. Of the others only that it is.
NO_DOCUMENT = "Can't create doc of PreSignInResponse"
NO_IMAGE = "Checksum mismatch!"
EXPECTED = {
    "plain": (True, r"info    \d+ +\* PreSignIn succeed", r"info    \d+ +\* SignIn succeed",
              r"debug   \d+ +discover manager using unicast to 192\.168\.68\.2\n",
              r"debug   \d+ +Contained ClusterIP 192\.168\.68\.2\n",
              r"info    \d+ +ZEL master signals firmware is up-to-date!"),
    "wrong-checksum": (True, f"{NO_IMAGE} Expected '"), "image-missing": (True, NO_IMAGE),
    "image-cut": (True, NO_IMAGE), "image-wrong": (True, NO_IMAGE), "image-stall": (True, NO_IMAGE),
    "hostile": (False, "Response of PreSignIn not valid"),
    "no-slp": (False, "discover manager using multicast"),
    "not-xml": (False, NO_DOCUMENT), "entity-bomb": (False, NO_DOCUMENT), "external-entity": (False, NO_DOCUMENT),
    **dict.fromkeys(["huge-answer", "soap-fault", "missing-return", "no-length", "silent", "drop-in-body"], (False,)),
    "not-soap": (False, "OrsSignIn validate soap failed:\n", "Response of PreSignIn not valid"),
    "wrong-operation": (False, "OrsSignIn validate failed:\n"), "empty-answer": (False, "req data null"),
    "schema-invalid": (False, "OrsSignIn validate failed:\n", "Response of PreSignIn not valid"),
    "slow": (False, "No PreSignIn response within 60 s"), "chunked": (True, "Socket is closed by other side, reopen"),
    "slow-manager": (True, "answers are outstanding"), "late-port": (True, "Connection refused"),
    "slp-unusable": (True, *["ClusterIP '.*' of 192.168.68.2 is no address"] * 8),
}


@pytest.mark.parametrize("scenario", sorted(SCENARIOS, key="slow".__ne__))
def test_every_scenario(scenario):
    """Nothing that a manager does is more than the end of a sign-in."""
    succeeds, *lines = EXPECTED.get(scenario, (True,))
    update = SCENARIOS[scenario][1].get("update", {})
    kind = update.get("type", "Application").lower()
    updates = scenario in ("application-update", "firmware-update")
    REBOOTS.unlink(missing_ok=True)
    image = active_image(kind)
    manager, text = sign_in(scenario, f"fault.seconds={100 if scenario == 'slow' else 2}")
    assert manager.problems() == []
    for line in set(lines):
        assert len(re.findall(line, text)) == lines.count(line), line
    assert ("* SignIn succeed" in text) == succeeds
    assert ("PreSignIn failed" in text) == (not succeeds and scenario != "no-slp")
    assert (active_image(kind) != image, REBOOTS.exists()) == (updates, updates)
    if update and succeeds:
        assert len(manager.bodies("preSignInTavo")) == 1 + updates
    if succeeds:
        assert settings()[workshop.ADDRESS_KEY + ".tmp"] == workshop.MANAGER
    else:
        assert settings()["tavo.hostname"] in ("TAVO", "TAVO0012345"), "nothing was taken"
        assert "IMAGE" not in manager.output()


def test_found_by_multicast_then_remembered():
    """What is no address, in a file that somebody has edited, asks nobody and ends nothing."""
    manager, text = sign_in("plain", configuration=f"{workshop.ADDRESS_KEY}=300.1.1.1 %s%n$(reboot)\n")
    assert text.count("discover manager using unicast to 300.1.1.1") == 3
    assert "asks the group" in manager.output()
    assert settings()[workshop.ADDRESS_KEY] == "192.168.68.2"
    manager, text = sign_in("plain", configuration=None)
    assert "discover manager using unicast to 192.168.68.2\n" in text
    assert "asks directly" in manager.output()


@pytest.mark.parametrize("form", ["unqualified", "qualified", "bare", "typed", "nil", "newer"])
def test_new_name_and_color(form):
    """An update, too: all that the box reads, once."""
    manager, text = sign_in("application-update", f"form={form}", "hostname= Bühne & 7 ", "color=#be1110", "country=AT")
    assert manager.problems() == [] and "cannot be used" not in text
    assert len(manager.bodies("preSignInTavo")) == 2 and text.count("ZEL master signals") == (form != "nil")
    assert (settings()["tavo.hostname"], settings()["tavo.color"], settings()["country.code"]) == (
        "Bühne & 7", "red", "AT")
    (body,) = manager.bodies("signInTavo")
    assert "<ns2:hostname>Bühne &amp; 7</ns2:hostname>" in body, "known by its new name at once"


@pytest.mark.parametrize("scenario, level, access_point", [
    ("wlan-open", "104", ["open"]),
    ("wlan-wpa2-psk", "105", ["psk", "--passphrase", "correct horse"]),
    ("wlan-enterprise", "106", ["tls"])])
def test_the_wlan_that_the_manager_has_sent_is_joined(scenario, level, access_point, workshop_in_order):
    ssid = 'Bühne 7" #2'  # which quotes cannot hold
    manager, _ = sign_in(scenario, f"wlan.ssid={ssid}", "wlan.passphrase=correct horse")
    assert manager.problems() == []
    stored = settings()
    assert (stored["wlan.conf.infra.security.level"], stored["wlan.conf.infra.ssid"]) == (level, ssid)
    for arguments in (["cable", "out"], ["adapter", "ralink"], ["access-point", *access_point, "--ssid", ssid]):
        network(*arguments)
    with agent(None):
        wait_for_log("WLAN interface configured, IP: 192.168.68.43")
        status = subprocess.run(["wpa_cli", "-p", "/tmp/supplicant/ctrl", "-i", "ra0", "status"],
                                capture_output=True, text=True, check=True).stdout
    assert r'ssid=B\xc3\xbchne 7\" #2' in status.splitlines()


def test_enterprise_wlan_and_the_clock_at_the_next_start():
    (CONFIG / "keypass").write_text("x" * 10000)  # which others could read so far
    (CONFIG / "keypass").chmod(0o644)
    manager, _ = sign_in("wlan-enterprise", "wlan.ssid=work\"shop")
    assert manager.problems() == []
    stored = settings()
    assert stored["wlan.conf.infra.security.level"] == "106"
    assert stored["wlan.conf.infra.credentials"] == "/config"
    for name in ("cacert", "clientcert", "keypass", "wpa.conf"):
        assert stat.S_IMODE((CONFIG / name).stat().st_mode) == 0o600
    assert re.fullmatch(r"-+BEGIN .*PRIVATE KEY-+\n[\w+/=\n]+-+END .*-+\n*", (CONFIG / "keypass").read_text())
    assert (CONFIG / "wpa.conf").read_text() == (
        "ap_scan=1\nnetwork={\n  scan_ssid=1\n  proto=RSN WPA\n  key_mgmt=WPA-EAP\n"
        "  pairwise=CCMP TKIP\n  group=CCMP TKIP\n  eap=TLS\n  ssid=\"work\"shop\"\n"
        "  identity=\"host/TAVO0012345\"\n  ca_cert=\"/config/cacert\"\n"
        "  client_cert=\"/config/clientcert\"\n  private_key=\"/config/keypass\"\n}\n")

    before = (CONFIG / "cacert").read_text()
    manager, text = sign_in("wlan-unchanged", configuration=None)
    assert "Wlan enterprise configuration not new" in text
    assert (CONFIG / "cacert").read_text() == before

    box.CONFIGURATION.write_text(box.CONFIGURATION.read_text() + "opla.mode=OPLA-Next\n")
    with agent(None) as running:
        running.wait_until_serving()
    ends = [subprocess.run(["openssl", "x509", "-in", CONFIG / name, "-noout", "-enddate"],
                           capture_output=True, text=True, check=True).stdout
            for name in ("cacert", "clientcert")]
    earliest = min(time.mktime(time.strptime(end.strip(), "notAfter=%b %d %H:%M:%S %Y GMT"))
                   for end in ends)
    assert f"Timestamp to set: {int(earliest) - 86400}\n" in log()
    # The box may not touch the clock of the machine that it is simulated on.
    assert "settimeofday failed Operation not permitted" in log()
    assert log().index("settimeofday failed") < log().index("* SetDateTime done.") < log().index(
        "* SLP service started.")


@pytest.mark.parametrize("kind, version, recorded, orders", [
    ("application", "01.07.09", "10709", 1), ("firmware", "01.07.09", "10709", 1),
    ("application", "9.9 & more", "9.9 &amp; more", 0)])
def test_update(kind, version, recorded, orders):
    """Once, even when every PreSignIn orders it."""
    REBOOTS.unlink(missing_ok=True)
    manager, text = sign_in(f"{kind}-update", f"image.content=software {version}\n",
                            f"update.version={version}", f"update.times={orders}")
    assert manager.problems() == []
    assert active_image(kind).decode() == f"software {version}\n"
    assert (IMAGES / kind / "state").read_text() == "clean\n"
    first, second = manager.bodies("preSignInTavo")
    tag = "appVersion" if kind == "application" else "firmwareVersion"
    assert f"<ns2:{tag}>{recorded}</" in second and f"<ns2:{tag}>{recorded}</" not in first
    box.wait_until(REBOOTS.exists, "the reboot is on record")
    assert len(REBOOTS.read_text().splitlines()) == 1
    steps = [" is installed, slot ", "need another preSignIn because of update", "Rebooting after update",
             "* PreSignIn succeed", "* SignIn succeed"]
    assert sorted(steps, key=text.index) == steps
    assert not list(pathlib.Path("/tmp").glob("*.img")), "the image is not kept in memory"


def test_a_full_disk_keeps_the_software():
    def resize(size):
        subprocess.run(["mount", "-o", f"remount,size={size}", "/"], check=True)

    before = active_image("application")
    root = os.statvfs("/")
    used = (root.f_blocks - root.f_bfree) * root.f_frsize // 1024
    resize(f"{used + 4096}k")
    try:
        _, text = sign_in("application-update", "image.size=4000000")
        assert "The update file is larger than the " in text and "No space left" not in text
        assert "Checksum mismatch!" in text and "* SignIn succeed" in text
        assert active_image("application") == before
    finally:
        resize("50%")


def test_a_manager_that_dies_in_a_download():
    before = active_image("application")
    with agent() as running:
        with Manager("image-stall") as manager:
            box.wait_until(lambda: "IMAGE" in manager.output(), "the download has begun")
        check_at_rest(running)
    assert "Checksum mismatch!" in log() and "SignIn failed" in log()
    assert active_image("application") == before


def test_a_broken_sign_in_is_told_apart():
    _, text = sign_in("not-soap", "fault.operation=signInTavo")
    assert "Response of SignIn not soap valid" in text and "SignIn failed" in text
    _, text = sign_in("drop-in-head", "fault.times=0")
    assert text.count("Initialize socket PreSignIn") == 2 and "PreSignIn failed" in text


def test_hostile_values_stay_values():
    """All at once is refused as a whole ("hostile"); a part that the schemas let pass is judged by itself."""
    nasty = '"x\\ny=$(touch /tmp/intruder)`"'
    for scenario, options, line in [
            ("rename", [f"hostname={nasty}"], "the host name cannot be used"),
            ("rename", [f"country={nasty}"], "the country code cannot be used"),
            ("wlan-wpa2-psk", [f"wlan.ssid={nasty}"], "the WLAN configuration cannot be used"),
            ("wlan-wpa2-psk", [f"wlan.credentials={nasty}"], "the WLAN configuration cannot"),
            ("wlan-enterprise", [f"wlan.ssid={nasty}"], "the WLAN configuration cannot be used"),
            ("application-update", [f"update.ip={nasty}"], "address supplied is not valid")]:
        manager, text = sign_in(scenario, *options)
        assert line in text and "* SignIn succeed" in text, (scenario, options)
        assert "IMAGE" not in manager.output()


def test_a_client_that_came_first_is_waited_for():
    with agent("tavo.hostname=TAVO\n") as running:
        wait_for_log("go to receive")
        box.wait_until(lambda: ask(service_request(), patience=1), "it is open to clients")
        running.wait_until_serving()
        code, handle = box.reserve()
        assert code == "0"
        with Manager("plain") as manager:
            wait_for_log("Start PreSignInSignIn")
            time.sleep(2.2)
            assert "preSignInTavo" not in manager.output()
            assert box.release(handle) == "0"
            check_at_rest(running)
            assert "signInTavo" in manager.output()

"""The box and its manager: found, signed in, told what to be, updated; and whatever goes wrong."""

import functools
import pathlib
import re
import stat
import time

import pytest

import raw_http
import stage
from manager_scenarios import SCENARIOS
from stage import (ADDRESS_KEY, CONFIGURATION, IMAGES, MANAGER, REBOOTS, SIGNING_IN, Manager, active_image, agent, ask,
                   log, network, output_of, settings, sign_in_ended, wait_for_log, wait_until)
from zel import slp

CONFIG = CONFIGURATION.parent
SETTINGS = ("tavo.", "country.code", "wlan.conf.infra.", "network.config.discover.mode", ADDRESS_KEY)


@functools.cache
def undisturbed():
    """A box at rest that has never signed in: its descriptors and threads, kilobytes at the most."""
    with agent("opla.mode=OPLA-Next\n" + SIGNING_IN) as running:
        running.wait_until_serving()
        return running.at_rest(), running.status("VmHWM")


def check_at_rest(running, searching=False):
    """After any sign-in: the box is free, nothing is left open, and clients find it."""
    wait_until(sign_in_ended, "the box is open to clients", 120)
    running.wait_until_serving()
    wait_until(lambda: searching or "OrsSignInServic" not in running.threads().values(), "the sign-in has ended")
    assert raw_http.value(stage.call("getDeviceInformation"), "state") == "4" and stage.rules() == []
    assert slp.read_reply(ask(slp.service_request()), slp.SRV_RPLY)
    assert "(State=4)" in slp.read_attributes(ask(slp.attribute_request()))
    children = pathlib.Path(f"/proc/{running.pid}/task").glob("*/children")
    assert "".join(path.read_text() for path in children) == ""
    if not searching:
        before, memory_before = undisturbed()
        assert running.at_rest() == before
        # A sanitizer keeps what is freed, an emulator has a memory of its own.
        assert stage.SANITIZED or running.status("VmHWM") < memory_before + 4096


def processes():
    """Those of the box, without the DHCP client, which keeps the lease for the next start."""
    return {pid for pid, name in stage.names().items() if name != "busybox"}


def sign_in(scenario, *options, configuration=SIGNING_IN):
    """Runs one start of the box against a manager. Returns the manager and what was logged.

    What is left are whole settings, none that nobody may set, and no process."""
    undisturbed()
    before = processes()
    with Manager(scenario, *options) as manager, agent(configuration) as running:
        check_at_rest(running, searching=scenario == "no-slp")
    assert all(key.startswith(SETTINGS) for key in settings()), settings()
    assert stat.S_IMODE(CONFIGURATION.stat().st_mode) == 0o600
    assert not pathlib.Path("/tmp/intruder").exists()
    assert not list(pathlib.Path("/tmp").glob("*.img")), "an image is not kept in memory"
    wait_until(lambda: processes() <= before, "no process is left")
    assert manager.problems() == []
    return manager, log()


# What the log says, as regular expressions, and whether the box is signed in. Of the others only that it is.
NO_DOCUMENT = "Can't create doc of PreSignInResponse"
NO_IMAGE = "Checksum mismatch!"
EXPECTED = {
    **dict.fromkeys(["application-update", "firmware-update"], (
        True, " is installed, slot ", "need another preSignIn because of update", "Rebooting after update",
        r"\* PreSignIn succeed", r"\* SignIn succeed")),
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
    # An update is made once, even when every PreSignIn orders it.
    manager, text = sign_in(scenario, f"fault.seconds={100 if scenario == 'slow' else 2}",
                            f"update.times={0 if scenario == 'application-update' else 1}")
    places = [[match.start() for match in re.finditer(line, text)] for line in dict.fromkeys(lines)]
    assert [len(found) for found in places] == [lines.count(line) for line in dict.fromkeys(lines)], lines
    assert ("* SignIn succeed" in text) == succeeds
    assert ("PreSignIn failed" in text) == (not succeeds and scenario != "no-slp")
    assert (active_image(kind) != image, REBOOTS.exists()) == (updates, updates)
    if updates:
        assert sorted(places) == places and (IMAGES / kind / "state").read_text() == "clean\n"
        assert REBOOTS.read_text().count("\n") == 1
    if succeeds:
        assert not update or len(manager.bodies("preSignInTavo")) == 1 + updates
        assert settings()[ADDRESS_KEY + ".tmp"] == MANAGER
    else:
        assert settings()["tavo.hostname"] in ("TAVO", "TAVO0012345"), "nothing was taken"
        assert "IMAGE" not in manager.output()


def test_found_by_multicast_then_remembered():
    """What is no address, in a file that somebody has edited, asks nobody and ends nothing."""
    manager, text = sign_in("plain", configuration=f"{ADDRESS_KEY}=300.1.1.1 %s%n$(reboot)\ntavo.color=red\n")
    assert text.count("discover manager using unicast to 300.1.1.1") == 3 and "asks the group" in manager.output()
    assert settings()[ADDRESS_KEY] == MANAGER
    manager, text = sign_in("plain", configuration=None)
    assert f"discover manager using unicast to {MANAGER}\n" in text and "asks directly" in manager.output()


@pytest.mark.parametrize("form", ["unqualified", "qualified", "bare", "typed", "nil", "newer"])
def test_new_name_and_color(form):
    """An update, too: all that the box reads, once."""
    manager, text = sign_in("application-update", f"form={form}", "hostname= Bühne & 7 ", "color=#be1110", "country=AT",
                            "update.version=01.07.09")
    assert "cannot be used" not in text and text.count("ZEL master signals") == (form != "nil")
    first, second = manager.bodies("preSignInTavo")
    assert "<ns2:appVersion>10709</" in second and "<ns2:appVersion>10709</" not in first
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
    sign_in(scenario, f"wlan.ssid={ssid}", "wlan.passphrase=correct horse")
    assert (settings()["wlan.conf.infra.security.level"], settings()["wlan.conf.infra.ssid"]) == (level, ssid)
    for arguments in (["cable", "out"], ["adapter", "ralink"], ["access-point", *access_point, "--ssid", ssid]):
        network(*arguments)
    with agent(None):
        wait_for_log(f"WLAN interface configured, IP: {stage.WLAN_BOX}")
        status = output_of("wpa_cli", "-p", "/tmp/supplicant/ctrl", "-i", "ra0", "status")
    assert r'ssid=B\xc3\xbchne 7\" #2' in status.splitlines()


def test_enterprise_wlan_and_the_clock_at_the_next_start():
    (CONFIG / "keypass").write_text("x" * 10000)  # which others could read so far
    (CONFIG / "keypass").chmod(0o644)
    sign_in("wlan-enterprise", "wlan.ssid=work\"shop")
    for name in ("cacert", "clientcert", "keypass", "wpa.conf"):
        assert stat.S_IMODE((CONFIG / name).stat().st_mode) == 0o600
    assert re.fullmatch(r"-+BEGIN .*PRIVATE KEY-+\n[\w+/=\n]+-+END .*-+\n*", (CONFIG / "keypass").read_text())
    assert (CONFIG / "wpa.conf").read_text() == (
        "ap_scan=1\nnetwork={\n  scan_ssid=1\n  proto=RSN WPA\n  key_mgmt=WPA-EAP\n"
        "  pairwise=CCMP TKIP\n  group=CCMP TKIP\n  eap=TLS\n  ssid=\"work\"shop\"\n"
        "  identity=\"host/TAVO0012345\"\n  ca_cert=\"/config/cacert\"\n"
        "  client_cert=\"/config/clientcert\"\n  private_key=\"/config/keypass\"\n}\n")

    before = (CONFIG / "cacert").read_text()
    _, text = sign_in("wlan-unchanged", configuration=None)
    assert "Wlan enterprise configuration not new" in text and (CONFIG / "cacert").read_text() == before

    CONFIGURATION.write_text(CONFIGURATION.read_text() + "opla.mode=OPLA-Next\n")
    with agent(None) as running:
        running.wait_until_serving()
    # The box may not touch the clock of the machine that it is simulated on.
    steps = ["Timestamp to set: ", "settimeofday failed Operation not permitted", "* SetDateTime done.",
             "* SLP service started."]
    assert sorted(steps, key=log().index) == steps


def test_a_full_disk_keeps_the_software():
    before, used = active_image(), int(output_of("df", "--output=used", "/").split()[1])
    with stage.changed(f"mount -o remount,size={used + 4096}k /", "mount -o remount,size=50% /"):
        _, text = sign_in("application-update", "image.size=4000000")
    assert "The update file is larger than the " in text and "No space left" not in text
    assert "Checksum mismatch!" in text and "* SignIn succeed" in text and active_image() == before


def test_a_manager_that_dies_in_a_download():
    before = active_image()
    with agent() as running:
        with Manager("image-stall") as manager:
            wait_until(lambda: "IMAGE" in manager.output(), "the download has begun")
        check_at_rest(running)
    assert "Checksum mismatch!" in log() and "SignIn failed" in log()
    assert active_image() == before


def test_a_broken_sign_in_is_told_apart():
    _, text = sign_in("not-soap", "fault.operation=signInTavo", "hostname=bay-7")
    assert "Response of SignIn not soap valid" in text and "SignIn failed" in text
    assert settings()["tavo.hostname"] == "bay-7", "the PreSignIn counts all the same"
    _, text = sign_in("drop-in-head", "fault.times=0")
    assert text.count("Initialize socket PreSignIn") == 2 and "PreSignIn failed" in text


def test_a_client_that_came_first_is_waited_for():
    with agent("tavo.hostname=TAVO\n") as running:
        wait_for_log("go to receive")
        running.wait_until_serving()
        code, handle = stage.reserve()
        assert code == "0"
        with Manager("plain") as manager:
            wait_for_log("Start PreSignInSignIn")
            time.sleep(2.2)
            assert "preSignInTavo" not in manager.output()
            assert stage.release(handle) == "0"
            check_at_rest(running)
            assert "signInTavo" in manager.output()

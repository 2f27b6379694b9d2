"""The box and its manager: found, signed in, told what to be, updated; and whatever goes wrong."""

import os
import pathlib
import re
import stat
import subprocess
import time

import pytest

import box
import workshop
from workshop import (Manager, active_image, agent, ask, log, network, service_request, settings,
                      sign_in_ended, wait_for_log)

CONFIG = pathlib.Path("/config")
REBOOTS = pathlib.Path("/tmp/reboot.log")
IMAGES = pathlib.Path("/app/zel/images")


def check_at_rest(running):
    """After any sign-in: the box is free, nothing is left open, and clients find it."""
    box.wait_until(sign_in_ended, "the sign-in has ended", 120)
    running.wait_until_serving()
    assert box.value(box.call("getDeviceInformation"), "state") == "4"
    assert box.rules() == []
    assert ask(service_request())[1] == 2
    box.wait_until(lambda: "OrsSignInServic" not in running.threads().values(), "its thread ended")
    sockets = [os.readlink(f"/proc/{running.pid}/fd/{fd}") for fd in
               os.listdir(f"/proc/{running.pid}/fd")]
    # A pending connection apart: two listeners and the SLP socket.
    box.wait_until(lambda: not running.connections(), "nobody is served")
    assert len([link for link in sockets if link.startswith("socket:")]) <= 4
    children = pathlib.Path(f"/proc/{running.pid}/task/{running.pid}/children")
    assert children.read_text() == ""


def sign_in(scenario, *options, configuration=workshop.PLAIN):
    """Runs one start of the box against a manager. Returns the manager and what was logged."""
    with Manager(scenario, *options) as manager, agent(configuration) as running:
        check_at_rest(running)
    return manager, log()


def test_plain_sign_in_and_what_is_sent():
    manager, text = sign_in("plain")
    assert manager.problems() == []
    for line in ("info    ID * PreSignIn succeed", "info    ID * SignIn succeed",
                 "debug   ID discover manager using unicast to 192.168.68.2",
                 "debug   ID Contained ClusterIP 192.168.68.2",
                 "info    ID ZEL master signals firmware is up-to-date!"):
        assert re.search(line.replace("ID", r"\d+ +").replace("*", r"\*").replace("  +", " +"), text)
    assert settings()[workshop.ADDRESS_KEY + ".tmp"] == "192.168.68.2"
    assert stat.S_IMODE(box.CONFIGURATION.stat().st_mode) == 0o600


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


@pytest.mark.parametrize("scenario, line", [
    ("wrong-checksum", "Checksum mismatch! Expected '"), ("image-missing", "Checksum mismatch!"),
    ("image-cut", "Checksum mismatch!"), ("image-wrong", "Checksum mismatch!")])
def test_an_update_that_fails_keeps_the_software(scenario, line):
    REBOOTS.unlink(missing_ok=True)
    before = active_image("application")
    manager, text = sign_in(scenario)
    assert line in text and "* SignIn succeed" in text
    assert active_image("application") == before and not REBOOTS.exists()
    assert len(manager.bodies("preSignInTavo")) == 1


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


@pytest.mark.parametrize("scenario, lines", [
    ("not-xml", ["Can't create doc of PreSignInResponse"]),
    ("entity-bomb", ["Can't create doc of PreSignInResponse"]),
    ("external-entity", ["Can't create doc of PreSignInResponse"]),
    ("huge-answer", ["PreSignIn failed"]),
    ("not-soap", ["OrsSignIn validate soap failed:\n", "Response of PreSignIn not valid"]),
    ("wrong-operation", ["OrsSignIn validate failed:\n"]),
    ("missing-return", ["PreSignIn failed"]),
    ("schema-invalid", ["OrsSignIn validate failed:\n", "Response of PreSignIn not valid"]),
    ("empty-answer", ["req data null"]),
    ("soap-fault", ["PreSignIn failed"]),
    ("silent", ["PreSignIn failed"]),
    ("slow", ["No PreSignIn response within 60 s"]),
])
def test_an_answer_that_is_none_ends_the_sign_in(scenario, lines):
    manager, text = sign_in(scenario, f"fault.seconds={100 if scenario == 'slow' else 7}")
    for line in [*lines, "PreSignIn failed"]:
        assert line in text
    assert "SignIn succeed" not in text and "IMAGE" not in manager.output()
    assert settings()["tavo.hostname"] in ("TAVO", "TAVO0012345"), "nothing was taken"


@pytest.mark.parametrize("scenario, lines", [
    *((scenario, 0) for scenario in ("drop-before-answer", "reset", "drop-in-head", "slp-foreign")),
    *((scenario, 1) for scenario in ("drop-between", "chunked", "slow-manager", "late-port")),
    ("slp-unusable", 8)])
def test_what_the_manager_does_wrong_does_not_keep_the_box_out(scenario, lines):
    manager, text = sign_in(scenario)
    assert "* SignIn succeed" in text and manager.process.returncode == 0
    assert len(re.findall("Socket is closed by other side, reopen|answers are outstanding|Connection refused|"
                          "ClusterIP '.*' of 192.168.68.2 is no address", text)) == lines


def test_a_broken_sign_in_is_told_apart():
    _, text = sign_in("not-soap", "fault.operation=signInTavo")
    assert "Response of SignIn not soap valid" in text and "SignIn failed" in text
    _, text = sign_in("drop-in-head", "fault.times=0")
    assert text.count("Initialize socket PreSignIn") == 2 and "PreSignIn failed" in text


def test_hostile_values_stay_values():
    """All at once is refused as a whole; a part that the schemas let pass is judged by itself."""
    known = ("tavo.", "country.code", "wlan.conf.infra.", "network.config.discover.mode",
             workshop.ADDRESS_KEY)
    nasty = '"x\\ny=$(touch /tmp/intruder)`"'
    for scenario, options, line in [
            ("hostile", [], "Response of PreSignIn not valid"),
            ("rename", [f"hostname={nasty}"], "the host name cannot be used"),
            ("rename", [f"country={nasty}"], "the country code cannot be used"),
            ("wlan-wpa2-psk", [f"wlan.ssid={nasty}"], "the WLAN configuration cannot be used"),
            ("wlan-wpa2-psk", [f"wlan.credentials={nasty}"], "the WLAN configuration cannot"),
            ("wlan-enterprise", [f"wlan.ssid={nasty}"], "the WLAN configuration cannot be used"),
            ("application-update", [f"update.ip={nasty}"], "address supplied is not valid")]:
        manager, text = sign_in(scenario, *options)
        assert line in text, (scenario, options)
        assert ("* SignIn succeed" in text) == (scenario != "hostile")
        assert all(key.startswith(known) for key in settings()), settings()
        assert not pathlib.Path("/tmp/intruder").exists() and "IMAGE" not in manager.output()


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

"""The box on its way onto the network, as the kernel, the tools and a client see it."""

import contextlib
import os
import pathlib
import subprocess
import sys
import time

import pytest

import box
import workshop
from workshop import network

pytestmark = pytest.mark.usefixtures("workshop_in_order", "real_port")

SWITCHES = int(os.environ.get("ZEL_SWITCHES", "30"))
WLAN_BOX = "192.168.68.43"
ALONE = "opla.mode=OPLA-Next\ncountry.code=DE\nnetwork.config.discover.mode="
STATIC = (ALONE + "202\nnetwork.config.static.ip=192.168.70.7\n"
          "network.config.static.netmask=255.255.0.0\nnetwork.config.static.gateway=192.168.68.1\n")
# Takes an address at once, where the real one probes for seconds.
FAST_ZCIP = """#!/bin/sh
export interface=$2 ip=169.254.9.9
$3 init; $3 config
"""


@pytest.fixture(scope="module")
def real_port():
    """The box's card takes its time until it has a link."""
    network("port", "--delay", "2000")
    yield
    network("port", "--delay", "0")


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def addresses(device="eth0"):
    lines = run("ip", "-4", "-o", "address", "show", "dev", device).splitlines()
    return [line.split()[3] for line in lines]


def routes():
    return sorted(line.strip() for line in run("ip", "route").splitlines())


def processes():
    """Names of the programs of the box, without those that ask."""
    names = []
    for path in pathlib.Path("/proc").glob("[0-9]*/comm"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
            names.append(path.read_text().strip())
    return sorted(name for name in names if name not in ("tini", "python3", "bash", "sleep"))


def set_up():
    return "* Network setup done." in workshop.log()


def start_switch(mode, host=box.BOX, handle="", device=box.DEVICE_ID):
    return subprocess.Popen(
        ["nsenter", "--net=/run/netns/client", sys.executable, "workshop/client.py", "--quiet", "--host",
         host, "raw", box.fields("switchMode", deviceId=device, mode=mode, handle=handle)],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def end_switch(client):
    """The error code that the client is told."""
    _, complaint = client.communicate()
    assert complaint == ""
    return client.returncode


def switch(*arguments, **options):
    return end_switch(start_switch(*arguments, **options))


def insert_card():
    run("ip", "link", "add", "eth0", "address", "02:00:00:12:34:56", "type", "veth", "peer", "name", "box",
        "netns", "/run/netns/switch")
    run("nsenter", "--net=/run/netns/switch", "ip", "link", "set", "box", "master", "bridge")


def test_a_restart_finds_its_own_address_in_place():
    for _ in range(2):
        with workshop.agent(STATIC):
            box.wait_until(set_up, "the box is on the network")
            assert addresses() == ["192.168.70.7/16"]
            assert "default via 192.168.68.1 dev eth0" in routes()


def test_a_link_local_address_is_defended_against_another_box():
    run("ip", "link", "add", "second", "type", "veth", "peer", "name", "second", "netns", "/run/netns/switch")
    run("nsenter", "--net=/run/netns/switch", "ip", "link", "set", "second", "master", "bridge", "up")
    run("ip", "link", "set", "second", "netns", "/run/netns/manager")
    run("nsenter", "--net=/run/netns/manager", "ip", "link", "set", "second", "up")
    with workshop.agent(ALONE + "201\n"):
        box.wait_until(set_up, "the box is on the network")
        own, = [address.removesuffix("/16") for address in addresses()]
        assert own.startswith("169.254.")
        said = pathlib.Path("/tmp/second.out")
        with said.open("w") as output:
            other = subprocess.Popen(
                ["nsenter", "--net=/run/netns/manager", "avahi-autoipd", "--no-drop-root", "--no-chroot",
                 f"--start={own}", "--script=/bin/true", "second"], stderr=output)
        try:
            box.wait_until(lambda: "Callout BIND" in said.read_text(), "the other box has an address", 60)
        finally:
            other.kill()
            other.wait()
        refused, taken = said.read_text().split("Callout BIND")
        assert "Received conflicting" in refused
        assert own not in taken, "the other box takes another address"
        assert addresses() == [f"{own}/16"], "and this one keeps its own"


def test_refused_switches_change_nothing():
    with workshop.agent(ALONE + "3\n") as agent:
        agent.wait_until_serving()
        before = addresses(), routes()
        assert switch("2", device="another") == 20
        assert switch("0") == 17 and switch("4") == 17
        error, handle = box.reserve()
        assert error == "0"
        assert switch("2", handle="1") == 7
        assert (addresses(), routes()) == before
        assert box.release(handle) == "0"
        assert box.rules() == []


@pytest.mark.timeout(600 + 10 * SWITCHES)
def test_many_switches_leave_nothing_behind():
    with workshop.replaced("/sbin/zcip", FAST_ZCIP), workshop.agent(ALONE + "3\n") as agent:
        agent.wait_until_serving()
        for _ in range(2):  # what is there once, stays
            assert switch("2") == 0 and switch("3", "169.254.9.9") == 0
        # The answer is there before the connection is closed and the lent address taken back.
        box.wait_until(lambda: len(addresses()) == 1 and not agent.connections(), "the switch is over")
        before = processes(), routes(), addresses(), agent.descriptors()
        for _ in range(SWITCHES // 2):
            assert switch("2") == 0
            assert switch("3", "169.254.9.9") == 0
        box.wait_until(lambda: len(addresses()) == 1 and not agent.connections(), "the switch is over")
        assert (processes(), routes(), addresses(), agent.descriptors()) == before
        assert box.rules() == []


def test_a_switch_without_cable_returns_to_the_wlan():
    network("cable", "out")
    network("adapter", "ralink")
    network("access-point", "open")
    with workshop.agent(ALONE + "3\nwlan.conf.infra.band=0\nwlan.conf.infra.ssid=a\"b # c\n"
                        "wlan.conf.infra.security.level=104\n"):
        box.wait_until(set_up, "the box is on the WLAN", 60)
        assert addresses() == [] and addresses("ra0") == [f"{WLAN_BOX}/16"]
        file = pathlib.Path("/tmp/supplicant/wpa.conf")
        assert file.read_text() == "network={\n\tssid=61226220232063\n\tkey_mgmt=NONE\n}\n"
        assert file.stat().st_mode & 0o777 == 0o600
        log = pathlib.Path("/tmp/log/wpa_supplicant")
        with log.open("a") as file:
            file.write("filler\n" * 300_000)
        box.wait_until(lambda: log.stat().st_size < 1 << 20, "the supplicant's log is cut")
        assert 'ssid=a\\"b # c\n' in run("wpa_cli", "-p", "/tmp/supplicant/ctrl", "-i", "ra0", "status")
        kept, _, new = log.read_text().rpartition("filler\n")
        assert set(kept.splitlines()[1:]) == {"filler"} and new.startswith("1"), "and written on behind its end"
        assert switch("3", WLAN_BOX) == 19
        assert addresses() == [] and addresses("ra0") == [f"{WLAN_BOX}/16"]
    assert not list(pathlib.Path("/tmp").glob("wpa_ctrl_*"))


def test_a_box_that_is_moved_to_dhcp_finds_its_manager():
    run("ip", "address", "flush", "dev", "eth0")
    with workshop.replaced("/sbin/zcip", FAST_ZCIP), workshop.Manager("plain"), \
            workshop.agent(workshop.PLAIN.replace(workshop.MANAGER, "")):
        with workshop.replaced("/sbin/udhcpc", None):  # ends without a lease, and without a word of it
            workshop.wait_for_log("go to receive")
            assert addresses() == ["169.254.9.9/16"]
        assert switch("3", "169.254.9.9") == 0
        workshop.wait_for_log("* SignIn succeed")


def test_a_loose_cable_leaves_nothing_behind():
    network("cable", "out")
    with workshop.agent(ALONE + "3\n") as agent:
        box.wait_until(lambda: "Lan is not link" in workshop.log(), "the first pass")
        before = processes(), agent.descriptors()
        for _ in range(10):
            network("cable", "in")
            network("cable", "out")
            time.sleep(0.1)
        # It may have been in at the right moment, and then the box has asked for a lease.
        box.wait_until(lambda: set_up() or workshop.log().count("No WLAN interface found") >= 2,
                       "the WLAN is tried", 60)
        if not set_up():
            assert (processes(), agent.descriptors()) == before
            network("cable", "in")
            box.wait_until(set_up, "the box is on the network")
            assert addresses() == [f"{box.BOX}/16"]
            assert workshop.attributes(workshop.ask(workshop.attribute_request()))
        assert len(addresses()) == 1


@pytest.mark.parametrize("mode, tool", [("3", "busybox"), ("201", "avahi-autoipd")])
def test_a_card_that_disappears_is_reported_and_waited_for(mode, tool):
    network("dhcp", "stop")
    with workshop.agent(ALONE + mode + "\n") as agent:
        box.wait_until(lambda: tool in processes(), "it asks for an address")
        run("ip", "link", "delete", "eth0")
        box.wait_until(lambda: "errno: ERR_NO_SUCH_DEVICE" in workshop.log(), "it says what is wrong", 60)
        assert not set_up()
        assert agent.stop() == 0, "it can be stopped without a network"
    insert_card()
    network("dhcp", "start")
    with workshop.agent(ALONE + "3\n"):
        box.wait_until(set_up, "the box is on the network")
        assert addresses() == [f"{box.BOX}/16"]


def test_a_card_that_disappears_during_a_switch_fails_it():
    # An address of an earlier run is taken back with STOP.
    zcip = '#!/bin/sh\n[ "$1" = STOP ] || ip link delete eth0\n'
    with workshop.replaced("/sbin/zcip", zcip), workshop.agent(ALONE + "3\n") as agent:
        agent.wait_until_serving()
        client = start_switch("2")
        box.wait_until(lambda: "Change back to state free" in workshop.log(), "the switch is over")
        insert_card()
        run("ip", "address", "add", f"{box.BOX}/16", "dev", "eth0")
        run("ip", "link", "set", "eth0", "up")
        assert end_switch(client) == 17
        assert switch("3") == 0 and addresses() == [f"{box.BOX}/16"]
        assert box.rules() == []

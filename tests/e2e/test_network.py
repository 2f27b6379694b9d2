"""The box on its way onto the network, as the kernel, the tools and a client see it."""

import contextlib
import os
import pathlib
import subprocess
import sys
import time

import pytest

import stage
from stage import ALONE, BOX, DEVICE_ID, MANAGER, WLAN_BOX, network, output_of, rules, wait_until
from zel import slp, soap

pytestmark = pytest.mark.usefixtures("workshop_in_order", "real_port")

SWITCHES = int(os.environ.get("ZEL_SWITCHES", "30"))
DHCP = ALONE + stage.DHCP
STATIC = ALONE + stage.static("192.168.70.7")
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


def addresses(device="eth0"):
    return [line.split()[3] for line in output_of("ip", "-4", "-o", "address", "show", "dev", device).splitlines()]


def routes():
    return sorted(line.strip() for line in output_of("ip", "route").splitlines())


def processes():
    """Names of the programs of the box, without those that ask."""
    return sorted(name for name in stage.names().values() if name not in ("tini", "python3", "bash", "sleep"))


def set_up():
    return "* Network setup done." in stage.log()


@contextlib.contextmanager
def on_network(configuration):
    with stage.agent(configuration) as agent:
        wait_until(set_up, "the box is on the network")
        yield agent


def start_switch(mode, host=BOX, handle="", device=DEVICE_ID):
    return subprocess.Popen(stage.in_network(
        "client", sys.executable, "workshop/client.py", "--quiet", "--host", host, "raw",
        soap.operation("switchMode", deviceId=device, mode=mode, handle=handle)),
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def end_switch(client):
    """The error code that the client is told."""
    assert client.communicate()[1] == ""
    return client.returncode


def switch(*arguments, **options):
    return end_switch(start_switch(*arguments, **options))


def insert_card():
    output_of("ip", "link", "add", "eth0", "address", "02:00:00:12:34:56", "type", "veth", "peer", "name", "box",
              "netns", "/run/netns/switch")
    output_of("ip", "link", "set", "box", "master", "bridge", network="switch")


def test_a_restart_finds_its_own_address_in_place():
    for _ in range(2):
        with on_network(STATIC):
            assert addresses() == ["192.168.70.7/16"] and "default via 192.168.68.1 dev eth0" in routes()


def test_a_link_local_address_is_defended_against_another_box():
    output_of("ip", "link", "add", "second", "type", "veth", "peer", "name", "second", "netns", "/run/netns/switch")
    output_of("ip", "link", "set", "second", "master", "bridge", "up", network="switch")
    output_of("ip", "link", "set", "second", "netns", "/run/netns/manager")
    output_of("ip", "link", "set", "second", "up", network="manager")
    with on_network(ALONE + "network.config.discover.mode=201\n"):
        own, = [address.removesuffix("/16") for address in addresses()]
        assert own.startswith("169.254.")
        said = pathlib.Path("/tmp/second.out")
        with said.open("w") as output:
            other = subprocess.Popen(stage.in_network(
                "manager", "avahi-autoipd", "--no-drop-root", "--no-chroot", f"--start={own}", "--script=/bin/true",
                "second"), stderr=output)
        try:
            wait_until(lambda: "Callout BIND" in said.read_text(), "the other box has an address", 60)
        finally:
            other.kill()
            other.wait()
        refused, taken = said.read_text().split("Callout BIND")
        assert "Received conflicting" in refused
        assert own not in taken, "the other box takes another address"
        assert addresses() == [f"{own}/16"], "and this one keeps its own"


@pytest.mark.timeout(600 + 10 * SWITCHES)
def test_many_switches_leave_nothing_behind():
    with stage.replaced("/sbin/zcip", FAST_ZCIP), stage.serving(DHCP) as agent:
        def there_and_back(times):
            for _ in range(times):
                assert switch("2") == 0 and switch("3", "169.254.9.9") == 0
            # The answer is there before the connection is closed and the lent address taken back.
            wait_until(lambda: len(addresses()) == 1 and not agent.connections(), "the switch is over")
            return processes(), routes(), addresses(), agent.descriptors(), rules()

        before = there_and_back(2)  # what is there once, stays
        assert [switch("2", device="another"), switch("0"), switch("4")] == [20, 17, 17]
        assert there_and_back(SWITCHES // 2) == before and before[-1] == []


def test_a_switch_without_cable_returns_to_the_wlan():
    for arguments in (("cable", "out"), ("adapter", "ralink"), ("access-point", "open")):
        network(*arguments)
    with on_network(DHCP + "wlan.conf.infra.band=0\nwlan.conf.infra.ssid=a\"b # c\n"
                    "wlan.conf.infra.security.level=104\n"):
        assert addresses() == [] and addresses("ra0") == [f"{WLAN_BOX}/16"]
        file = pathlib.Path("/tmp/supplicant/wpa.conf")
        assert file.read_text() == "network={\n\tssid=61226220232063\n\tkey_mgmt=NONE\n}\n"
        assert file.stat().st_mode & 0o777 == 0o600
        log = pathlib.Path("/tmp/log/wpa_supplicant")
        with log.open("a") as file:
            file.write("filler\n" * 300_000)
        wait_until(lambda: log.stat().st_size < 1 << 20, "the supplicant's log is cut")
        assert 'ssid=a\\"b # c\n' in output_of("wpa_cli", "-p", "/tmp/supplicant/ctrl", "-i", "ra0", "status")
        kept, _, new = log.read_text().rpartition("filler\n")
        assert set(kept.splitlines()[1:]) == {"filler"} and new.startswith("1"), "and written on behind its end"
        assert switch("3", WLAN_BOX) == 19
        assert addresses() == [] and addresses("ra0") == [f"{WLAN_BOX}/16"]
    assert not list(pathlib.Path("/tmp").glob("wpa_ctrl_*"))


def test_a_box_that_is_moved_to_dhcp_finds_its_manager():
    output_of("ip", "address", "flush", "dev", "eth0")
    with stage.replaced("/sbin/zcip", FAST_ZCIP), stage.Manager("plain"), \
            stage.agent(stage.SIGNING_IN.replace(MANAGER, "")):
        with stage.replaced("/sbin/udhcpc", None):  # ends without a lease, and without a word of it
            stage.wait_for_log("go to receive")
            assert addresses() == ["169.254.9.9/16"]
        assert switch("3", "169.254.9.9") == 0
        stage.wait_for_log("* SignIn succeed")


def test_a_loose_cable_leaves_nothing_behind():
    network("cable", "out")
    with stage.agent(DHCP) as agent:
        stage.wait_for_log("Lan is not link")
        before = processes(), agent.descriptors()
        for _ in range(10):
            network("cable", "in")
            network("cable", "out")
            time.sleep(0.1)
        # It may have been in at the right moment, and then the box has asked for a lease.
        wait_until(lambda: set_up() or stage.log().count("No WLAN interface found") >= 2, "the WLAN is tried")
        if not set_up():
            assert (processes(), agent.descriptors()) == before
            network("cable", "in")
            wait_until(set_up, "the box is on the network")
            assert addresses() == [f"{BOX}/16"] and slp.read_attributes(stage.ask(slp.attribute_request()))
        assert len(addresses()) == 1


@pytest.mark.parametrize("mode, tool", [("3", "busybox"), ("201", "avahi-autoipd")])
def test_a_card_that_disappears_is_reported_and_waited_for(mode, tool):
    network("dhcp", "stop")
    with stage.agent(ALONE + f"network.config.discover.mode={mode}\n") as agent:
        wait_until(lambda: tool in processes(), "it asks for an address")
        output_of("ip", "link", "delete", "eth0")
        stage.wait_for_log("errno: ERR_NO_SUCH_DEVICE")
        assert not set_up()
        assert agent.stop() == 0, "it can be stopped without a network"
    insert_card()
    network("dhcp", "start")
    with on_network(DHCP):
        assert addresses() == [f"{BOX}/16"]


def test_a_card_that_disappears_during_a_switch_fails_it():
    # An address of an earlier run is taken back with STOP.
    zcip = '#!/bin/sh\n[ "$1" = STOP ] || ip link delete eth0\n'
    with stage.replaced("/sbin/zcip", zcip), stage.serving(DHCP):
        client = start_switch("2")
        stage.wait_for_log("Change back to state free")
        insert_card()
        output_of("ip", "address", "add", f"{BOX}/16", "dev", "eth0")
        output_of("ip", "link", "set", "eth0", "up")
        assert end_switch(client) == 17
        assert switch("3") == 0 and addresses() == [f"{BOX}/16"]
        assert rules() == []

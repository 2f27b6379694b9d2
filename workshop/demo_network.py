"""The demo's scenarios: the ways in which a box comes onto the network. Each is a story of its own."""

import re
import shlex
import subprocess

import stage
from stage import (ALONE, BASE, BOX, CONFIGURATION, DEVICE_ID, DHCP, MANAGER_OUTPUT, WLAN_BOX, Manager, log,
                   output_of, settings, wait_for_log, wait_until)
from story import REFUSED, check, log_of_this_start, show, start_agent, stop, title, zelctl

LINK_LOCAL = re.compile(r"169\.254\.\d+\.\d+")
SSID = "Bay 7"
PASS_PHRASE = "correct horse battery"


def network(*arguments):
    show(f"workshop/network {shlex.join(arguments)}", "")
    stage.network(*arguments)


def configure(text):
    """The settings of the box when it is switched on."""
    CONFIGURATION.write_text(text)
    shown = [line for line in text.splitlines() if line.startswith(("network.", "wlan."))]
    print("".join(f"  {line}\n" for line in shown), end="")


def address(device="eth0"):
    """The IPv4 address of the box, and how many it has."""
    found = re.findall(r"inet ([\d.]+)/", output_of("ip", "-4", "-o", "address", "show", "dev", device))
    return found[0] if len(found) == 1 else ", ".join(found)


def in_box(*command):
    """Runs a command there, shows it with what it prints, and returns that."""
    output = output_of(*command)
    show(shlex.join(command), output)
    return output


def say():
    """Shows what the agent has said of its network in this start."""
    said = re.compile(r"(Network mode|.*(lease|[Ll]ink|configured|try wlan|not correct|wlan card)).*")
    last = ""
    for line in log_of_this_start().splitlines():
        entry = re.fullmatch(r"[\d-]{10} [\d:.]+ +(info|debug|error) +\d+ +(.*)", line)
        text = entry[2] if entry else ""
        if text != last and said.fullmatch(text) and "devices:" not in text:
            print(f"  the box says: {text}")
        last = text


def wait_for_network(seconds=90):
    wait_until(lambda: "* Network setup done." in log_of_this_start(), "the box is on the network",
               seconds)
    say()


def check_lease():
    title("The box is switched on: the cable is in, and it asks for an address")
    wait_for_network()
    in_box("ip", "-4", "address", "show", "dev", "eth0")
    routes = in_box("ip", "route")
    check(address() == BOX, f"it has leased {BOX}")
    check("default via 192.168.68.1" in routes, "its default route leads to the router")
    check("239.255.255.253 dev eth0" in routes, "the groups of SLP are routed to its card")


def start(configuration):
    configure(configuration)
    return start_agent()


def find_box(expected):
    """The client finds the box by multicast and reads its information at that address."""
    found = zelctl("find", "--serial", DEVICE_ID)
    check(expected in found.split(), f"it is found at {expected}")
    zelctl("info", expected, only="gateway|ip4Address|lanDiscoverMode|netmask")


def dhcp():
    """the cable is in and a DHCP server answers"""
    agent = start(ALONE + DHCP)
    check_lease()
    title("A client finds it there")
    agent.wait_until_serving()
    find_box(BOX)
    stop(agent)


def link_local():
    """no DHCP server: a link-local address, remembered for the next start"""
    title("No DHCP server answers in the workshop; the box is switched on")
    network("dhcp", "stop")
    agent = start(BASE + DHCP)
    wait_for_network()
    own = address()
    in_box("ip", "-4", "address", "show", "dev", "eth0")
    check(LINK_LOCAL.fullmatch(own), f"it has given itself the link-local address {own}")

    title("A client finds it there and talks to it")
    agent.wait_until_serving(own)
    find_box(own)
    wait_until(lambda: settings()["network.config.discover.mode"] == "2", "the mode is remembered")
    check(True, "the box was found: link-local addressing is its mode from now on")
    stop(agent)

    title("The DHCP server is back, the box is switched on again")
    network("dhcp", "start")
    agent = start_agent()
    wait_for_network()
    check(LINK_LOCAL.fullmatch(address()), "it does not ask for a lease: it has a link-local address")
    agent.wait_until_serving(address())
    stop(agent)


def static():
    """a static address"""
    title("The box has a static address")
    agent = start(ALONE + stage.static("192.168.70.7"))
    wait_for_network()
    in_box("ip", "-4", "address", "show", "dev", "eth0")
    routes = in_box("ip", "route")
    check(address() == "192.168.70.7", "it has the configured address")
    check("default via 192.168.68.1" in routes, "and the configured default route")
    agent.wait_until_serving("192.168.70.7")
    find_box("192.168.70.7")
    stop(agent)


def bad_static():
    """bad static values: DHCP from the next start on"""
    title("Somebody has mistyped the static address")
    agent = start(BASE + "network.config.discover.mode=202\n"
                  "network.config.static.ip=192.168.70.700\n")
    wait_for_log("No network configured")
    say()
    wait_until(lambda: settings()["network.config.discover.mode"] == "3", "the mode is written")
    check(True, "the box has no address now, but DHCP is its mode from the next start on")
    stop(agent)

    title("It is switched on again")
    agent = start_agent()
    wait_for_network()
    check(address() == BOX, f"it has leased {BOX}")
    agent.wait_until_serving()
    stop(agent)


def pull_cable():
    network("cable", "out")
    network("adapter", "ralink")


def check_wlan():
    """Waits until a box without cable is on the WLAN."""
    wait_for_network()
    in_box("ip", "-4", "address", "show", "dev", "ra0")
    status = in_box("wpa_cli", "-p", "/tmp/supplicant/ctrl", "-i", "ra0", "status")
    check("wpa_state=COMPLETED" in status, "the supplicant is associated")
    check(address("ra0") == WLAN_BOX, f"the box has leased {WLAN_BOX} over the air")


def start_with_pass_phrase():
    pull_cable()
    network("access-point", "psk", "--ssid", SSID, "--passphrase", PASS_PHRASE)
    agent = start(ALONE + DHCP + "wlan.conf.infra.band=0\n"
                  f"wlan.conf.infra.ssid={SSID}\nwlan.conf.infra.security.level=103\n"
                  f"wlan.conf.infra.encryption.type=AES\nwlan.conf.infra.psk={PASS_PHRASE}\n")
    check_wlan()
    agent.wait_until_serving(WLAN_BOX)
    return agent


def wlan_psk():
    """no cable: after three tries the WLAN, with a pass phrase"""
    title("No cable; an access point with a pass phrase")
    agent = start_with_pass_phrase()
    check(log().count("Lan is not link") == 4, "after it had waited three times for the cable")
    in_box("cat", "/tmp/supplicant/wpa.conf")

    title("A client finds it there")
    find_box(WLAN_BOX)
    stop(agent)


def wlan_tls():
    """no cable: the WLAN, with the certificates that the manager has sent"""
    title("The box, on its cable, signs in; the manager sends it the workshop's WLAN")
    manager = Manager("wlan-enterprise", f"wlan.ssid={SSID}")
    agent = start(BASE + DHCP)
    wait_for_log("* SignIn succeed")
    stop(agent)
    manager.stop()
    in_box("cat", "/config/wpa.conf")
    in_box("openssl", "x509", "-in", "/config/clientcert", "-noout", "-subject", "-issuer", "-enddate")

    title("Without its cable it is switched on again; the access point wants a certificate")
    pull_cable()
    network("access-point", "tls")
    agent = start_agent()
    check_wlan()
    stop(agent)


def cable_back():
    """a box on the WLAN gets its cable back, and a client switches it over"""
    title("No cable: the box comes onto the WLAN")
    agent = start_with_pass_phrase()

    title("The cable is plugged back; the client has the box move to it")
    network("cable", "in")
    zelctl("mode", WLAN_BOX, "dhcp")
    wait_until(lambda: address() == BOX, "the box has the wired address only", 10)
    in_box("ip", "-4", "-o", "address")
    check(address("ra0") == "", "its WLAN card has no address any more")
    check(not wlan_processes(), "and the supplicant is gone")
    find_box(BOX)
    stop(agent)


def wlan_processes():
    return subprocess.run(["pgrep", "wpa_supplicant"], capture_output=True, text=True).stdout


def mode_switch():
    """a client switches the box from DHCP to link-local addressing and back"""
    agent = start(ALONE + DHCP)
    check_lease()
    agent.wait_until_serving()

    title("A client reserves the box and has it take a link-local address")
    zelctl("reserve", DEVICE_ID, "--owner", "demo client")
    zelctl("mode", DEVICE_ID, "linklocal")
    own = wait_until(lambda: LINK_LOCAL.fullmatch(address()), "only the new address is left", 10)[0]
    check(True, f"the answer has reached the client; the box has only {own} now")
    find_box(own)

    title("It switches the box back to DHCP")
    zelctl("mode", own, "dhcp")
    wait_until(lambda: address() == BOX, "the box has the leased address only", 10)
    find_box(BOX)
    zelctl("release", DEVICE_ID)

    title("A switch to DHCP that cannot be: there is no server")
    network("dhcp", "stop")
    refusal = zelctl("mode", DEVICE_ID, "dhcp", status=REFUSED)
    check("code 17" in refusal, "the client is told")
    own = wait_until(lambda: LINK_LOCAL.fullmatch(address()), "only the new address is left", 10)[0]
    check(True, f"and the box stays within reach at {own}")
    find_box(own)
    stop(agent)


def late_cable():
    """a port that takes 2.5 s for a link, and a cable that is plugged in late"""
    title("No cable; the switch's port takes 2.5 s for a link, as a real one. The box has a WLAN card, but no settings")
    network("port", "--delay", "2500")
    pull_cable()
    agent = start(ALONE + DHCP)
    wait_until(lambda: "try wlan" in log_of_this_start(), "the box has tried its WLAN")
    say()

    title("The cable is plugged in: the next pass sets the card up anew, and waits for the link")
    network("cable", "in")
    wait_until(lambda: "LAN interface configured" in log_of_this_start(), "it has come by cable")
    check(address() == BOX, f"it has come by cable, and has leased {BOX}")
    agent.wait_until_serving()
    find_box(BOX)
    stop(agent)


def sign_in_with(scenario, *notable):
    """Starts manager and box, and shows what both have to say of the sign-in."""
    manager = Manager(scenario)
    agent = start(BASE + DHCP)
    wait_until(lambda: re.search(r"\* SignIn succeed|SignIn failed", log_of_this_start()), "the sign-in has ended")
    told = [line[:13] + line.split()[1] + " " + line.split()[3].rstrip(":")
            for line in MANAGER_OUTPUT.read_text().splitlines() if "signInTavo" in line or "SignInTavo" in line]
    print("".join(f"  the manager has seen: {line}\n" for line in told), end="")
    said = [line[:26] + " " + line[42:] for line in log_of_this_start().splitlines()
            if any(each in line for each in (*notable, "SignIn succeed"))]
    print("".join(f"  the box says: {line}\n" for line in said), end="")
    check("* SignIn succeed" in log_of_this_start(), "the box is signed in")
    agent.wait_until_serving()
    find_box(BOX)
    stop(agent)
    manager.stop()


def slow_manager():
    """a manager that takes six seconds for an answer, and one whose SOAP port opens late"""
    title("The manager takes six seconds for an answer; the box asks again after five")
    sign_in_with("slow-manager", "Send ", "outstanding", "Received")
    title("Another one takes connections only 0.7 s after it was found")
    sign_in_with("late-port", "Can't connect")


SCENARIOS = {
    "dhcp": dhcp,
    "link-local": link_local,
    "static": static,
    "bad-static": bad_static,
    "wlan-psk": wlan_psk,
    "wlan-tls": wlan_tls,
    "cable-back": cable_back,
    "mode-switch": mode_switch,
    "late-cable": late_cable,
    "slow-manager": slow_manager,
}

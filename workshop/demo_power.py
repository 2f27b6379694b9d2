"""The demo's power cut: what becomes of twelve boxes that start before all that they need."""

import datetime
import re
import subprocess
import time

import stage
from bays import Bay
from demo_network import LINK_LOCAL, network
from stage import AGENT, BASE, CONFIGURATION, PROJECT, ZELCTL, Manager, in_network, output_of, wait_until
from story import check, title, zelctl

SWITCH_BLOCKS = 4  # seconds; a switch that looks for loops (IEEE 802.1D) needs 30
DHCP_AFTER = 8
MANAGER_AFTER = 15
SECONDS_FOR_A_REQUEST = 0.1
LIMIT = 120
SIGNED_IN = r"\* SignIn succeed"

DYNAMIC = BASE + stage.DHCP
REMEMBERED = f"{BASE}network.config.discover.mode=2\n"


def static(number):
    return BASE + stage.static(f"192.168.70.{number}")


# What kind of box, its settings, and how long its port takes for a link, in milliseconds.
KINDS = [*[("DHCP", DYNAMIC, 0)] * 3, *[("DHCP", DYNAMIC, 1500)] * 3, *[("DHCP", DYNAMIC, 2800)] * 3,
         ("static", static(7), 1500), ("static", static(8), 1500), ("link-local since then", REMEMBERED, 1500)]


class Story:
    """What a box says of itself in its log."""

    def __init__(self, bay, kind, began):
        self.bay, self.kind, self.began = bay, kind, began

    def find(self, pattern):
        """The match of the first line with that, and its seconds since the power came back."""
        for line in self.bay.log().splitlines():
            if match := re.search(pattern, line):
                stamp = datetime.datetime.fromisoformat(line[:26])
                return match, stamp.timestamp() - self.began
        return None, None

    def address(self):
        match, _ = self.find(r"configured, IP: ([\d.]+)")
        return match[1] if match else ""

    def way(self):
        if LINK_LOCAL.fullmatch(self.address()):
            return "link-local" if self.find("Network mode is apipa")[0] else "link-local, no lease"
        return "static" if self.find("Network mode is static")[0] else "DHCP"

    def is_signed_in(self):
        return self.find(SIGNED_IN)[0] is not None

    def end_of_sign_in(self):
        """When it has signed in, or why not."""
        for pattern, text in ((SIGNED_IN, "after {:.1f} s"), ("SignIn failed", "no: SignIn failed"),
                              ("PreSignIn failed", "no: PreSignIn failed")):
            match, seconds = self.find(pattern)
            if match:
                return text.format(seconds)
        if LINK_LOCAL.fullmatch(self.address()):
            return "no: the manager is not on the link-local network"
        return ""


def show_table(stories):
    print(f"  {'box':<8} {'set to':<22} {'came by':<21} {'address':<16} {'after':<8} signed in")
    for story in stories:
        print(f"  {story.bay.name:<8} {story.kind:<22} {story.way():<21} {story.address():<16} "
              f"{story.find('configured, IP')[1]:>4.1f} s   {story.end_of_sign_in()}", flush=True)


def sleep_until(moment):
    time.sleep(max(0.0, moment - time.time()))


def power_cut():
    """twelve boxes start before switch, DHCP server and manager do; who comes back, and who does not"""
    CONFIGURATION.unlink(missing_ok=True)  # the box that they run in takes no part
    bays = []
    try:
        tell(bays)
    finally:
        for bay in bays:
            network("port", "--box", bay.name, "--delay", "0")
            bay.remove()
        output_of("ip", "link", "set", "bridge", "type", "bridge", "stp_state", "0", network="switch")
        network("dhcp", "start")


def tell(bays):
    title("The power has been cut; it comes back, and twelve boxes start at the same moment")
    network("dhcp", "stop")
    for number, (_, settings, delay) in enumerate(KINDS, 1):
        bays.append(Bay(number, settings))
        if delay:
            network("port", "--box", bays[-1].name, "--delay", f"{delay}")
    print(f"  The switch forwards {SWITCH_BLOCKS} s after a port has its link, the DHCP server is there after "
          f"{DHCP_AFTER} s,\n  the manager after {MANAGER_AFTER} s, and it takes one request at a time.")
    output_of("ip", "link", "set", "bridge", "type", "bridge", "stp_state", "1", "forward_delay",
              SWITCH_BLOCKS * 100 // 2, network="switch")
    began = time.time()
    for bay in bays:
        bay.switch_on(AGENT)
    stories = [Story(bay, kind, began) for bay, (kind, _, _) in zip(bays, KINDS)]
    sleep_until(began + DHCP_AFTER)
    network("dhcp", "start")
    sleep_until(began + MANAGER_AFTER)
    Manager("plain", "soap.one_at_a_time=true", f"soap.delays=[{SECONDS_FOR_A_REQUEST}]")

    title("Every box comes onto the network")
    wait_until(lambda: all(story.address() for story in stories), "all boxes have an address", LIMIT)
    wait_until(lambda: all(story.end_of_sign_in() for story in stories), "no box waits for anything more", LIMIT)
    show_table(stories)
    check(len({story.address() for story in stories}) == len(stories), "every box has an address, each its own")
    left = [story for story in stories if not story.is_signed_in()]
    check(all(LINK_LOCAL.fullmatch(story.address()) for story in left),
          "all are signed in but those that had to take a link-local address")

    title("A client finds all of them, and none is reserved")
    found = wait_until(lambda: find(stories), "all are found and free", LIMIT)
    print("".join(f"  {line}\n" for line in found), end="")
    check(True, "all twelve are found")

    title("A box that came too early asks for no lease until it is told to, or starts again")
    for story in [story for story in left if story.kind == "DHCP"][:1]:
        zelctl("mode", story.bay.serial, "dhcp")
        text = zelctl("find", "--serial", story.bay.serial)
        check("192.168.68." in text, f"{story.bay.name} has a lease now")
        wait_until(story.is_signed_in, "it finds its manager and signs in", LIMIT)
        check(True, f"it has found its manager, and is signed in {story.end_of_sign_in()}")

    title("The boxes are switched off")
    check(not any([bay.switch_off() for bay in bays]), "every agent ends with status 0")


def find(stories):
    """The lines of zelctl when it has found every box free."""
    done = subprocess.run(in_network("client", ZELCTL, "find"), capture_output=True, text=True, cwd=PROJECT)
    lines = done.stdout.splitlines()
    free = {line.split()[1] for line in lines[1:] if " free " in line}
    return lines if free == {f"TAVO{story.bay.serial}" for story in stories} else None

"""Further boxes in the bays of the simulated workshop. Each has an agent, settings, values and a network card of its
own, and shares the rest with the box that they run in."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess

from stage import PROJECT, in_network, output_of

ROOT_FILES = PROJECT / "simbox/rootfs"
TIMEOUT = 20  # seconds


class Bay:
    """A box; its settings and the voltage of its battery in millivolts are those it is switched on with. What it
    was and said stays readable until it is removed."""

    def __init__(self, number, settings, voltage=12310):
        self.name = f"bay-{number}"
        self.serial = f"{12345 + number:07}"
        self.folder = pathlib.Path(f"/run/{self.name}")
        self.agent = None
        output_of("ip", "netns", "add", self.name)
        output_of("ip", "link", "add", "eth0", "address", f"02:00:00:12:35:{number:02x}", "netns",
                  f"/run/netns/{self.name}", "type", "veth", "peer", "name", self.name, "netns", "/run/netns/switch")
        output_of("ip", "link", "set", self.name, "master", "bridge", "up", network="switch")
        (self.folder / "run").mkdir(parents=True)
        for part in ("config", "proc", "tmp"):
            shutil.copytree(ROOT_FILES / part, self.folder / part, symlinks=True)
        (self.folder / "proc/sys/sysinfo/sernum").write_text(f"{self.serial}\n")
        (self.folder / "proc/sys/kl30").write_text(f"{voltage}\n")
        (self.folder / "config/agent.configuration").write_text(f"{settings}tavo.hostname={self.name}\n")

    def switch_on(self, agent):
        self.agent = subprocess.Popen(in_network(self.name, "unshare", "--mount", "--uts", PROJECT / "workshop/bay",
                                                 self.folder, agent), stdin=subprocess.DEVNULL)

    def log(self):
        path = self.folder / "tmp/log/nativezel.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def switch_off(self):
        """Returns the agent's exit status."""
        self.agent.send_signal(signal.SIGTERM)
        try:
            return self.agent.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            self.agent.kill()
            return self.agent.wait()

    def remove(self):
        if self.agent is not None and self.agent.poll() is None:
            self.switch_off()
        for file in self.folder.glob("run/*.pid"):  # of the tools that keep its address
            with contextlib.suppress(ProcessLookupError, ValueError):
                os.kill(int(file.read_text()), signal.SIGTERM)
        subprocess.run(in_network("switch", "ip", "link", "delete", self.name))
        subprocess.run(["ip", "netns", "delete", self.name])
        shutil.rmtree(self.folder, ignore_errors=True)

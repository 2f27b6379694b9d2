"""The stories that script/demo tells come to their end; they check every step themselves."""

import os
import pathlib
import re
import subprocess
import sys

import pytest

import stage

pytestmark = pytest.mark.usefixtures("workshop_in_order")
SCENARIOS = ("power-cut", "dhcp", "link-local", "static", "bad-static", "wlan-psk", "wlan-tls", "cable-back",
             "mode-switch", "late-cable", "slow-manager")


@pytest.mark.parametrize("options", [[], *(["--scenario", name] for name in SCENARIOS)])
def test_story(options):
    stage.AGENT_LOG.unlink(missing_ok=True)
    stage.AGENT_OUTPUT.write_text("")  # in one story other boxes only are at work, whose ends it checks itself
    done = subprocess.run([sys.executable, "workshop/demo", *options], capture_output=True, text=True,
                          env={**os.environ, "ZEL_AGENT": stage.AGENT})
    assert done.returncode == 0, done.stdout[-4000:] + done.stderr
    assert "The demo is complete." in done.stdout
    if not options:
        # What README shows of it comes in this order; three dots in a line are anything.
        recorded = re.search(r"```console\n\$ script/demo\n(.*?)```", pathlib.Path("README.md").read_text(), re.S)[1]
        told = iter(done.stdout.splitlines())
        for line in recorded.splitlines():
            pattern = re.escape(line).replace(r"\.\.\.", ".*")
            assert any(re.fullmatch(pattern, one) for one in told), line
    stage.check_output(stage.AGENT_OUTPUT.read_text(errors="replace"))

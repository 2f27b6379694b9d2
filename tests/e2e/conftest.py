import subprocess

import pytest

import workshop
from box import Agent


@pytest.fixture(scope="module")
def agent():
    """An agent that serves at once; when the module is done it must stop cleanly."""
    running = Agent().wait_until_serving()
    yield running
    status = running.stop()
    running.check_output()
    assert status == 0


@pytest.fixture
def workshop_in_order():
    """A test ends with the cable in, the DHCP server there, no adapter and no agent."""
    yield
    subprocess.run(["pkill", "-KILL", "-x", "Zel::main"])
    for arguments in (("cable", "in"), ("dhcp", "start"), ("adapter", "none")):
        workshop.network(*arguments)

import os
import subprocess

import pytest

import workshop
from box import Agent


def pytest_collection_modifyitems(config, items):
    """ZEL_PART=N/M, N from 0 on: every M-th test only, so that the parts of a file run beside each other."""
    part, parts = map(int, os.environ.get("ZEL_PART", "0/1").split("/"))
    mine = items[part::parts]
    config.hook.pytest_deselected(items=[item for item in items if item not in mine])
    items[:] = mine


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

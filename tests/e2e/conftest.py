import os
import pathlib
import subprocess
import sys

import pytest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "workshop"))
import stage


def pytest_collection_modifyitems(config, items):
    """ZEL_PART=N/M, N from 0 on: every M-th test only, so that the parts of a file run beside each other."""
    part, parts = map(int, os.environ.get("ZEL_PART", "0/1").split("/"))
    mine = items[part::parts]
    config.hook.pytest_deselected(items=[item for item in items if item not in mine])
    items[:] = mine


@pytest.fixture(scope="module")
def agent():
    """An agent that serves at once; when the module is done it must stop cleanly."""
    with stage.serving("opla.mode=OPLA-Next\nnetwork.config.discover.mode=3\ntavo.color=white\n") as running:
        yield running


@pytest.fixture
def workshop_in_order():
    """A test ends with the cable in, the DHCP server there, no adapter and no agent."""
    yield
    subprocess.run(["pkill", "-KILL", "-x", "Zel::main"])
    for arguments in (("cable", "in"), ("dhcp", "start"), ("adapter", "none")):
        stage.network(*arguments)

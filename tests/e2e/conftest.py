import pytest

from box import Agent


@pytest.fixture(scope="module")
def agent():
    """An agent that serves at once; when the module is done it must stop cleanly."""
    running = Agent().wait_until_serving()
    yield running
    status = running.stop()
    running.check_output()
    assert status == 0

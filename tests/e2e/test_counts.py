"""What one request costs the agent, counted, which a busy machine does not change."""

import sys

import pytest

import stage

sys.path.append(str(stage.PROJECT / "bench"))
import counts


@pytest.mark.skipif(stage.SANITIZED or stage.EMULATED, reason="other instructions than those of the release")
def test_no_request_costs_more_than_a_tenth_above_what_was_reached():
    found = counts.count(stage.AGENT)
    for name, reached in counts.REACHED.items():
        for what, number in reached.items():
            assert found[name][what] <= 1.1 * number, f"{what} of {name}, {number} reached: {found[name]}"

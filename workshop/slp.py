"""As zel.slp, under the name that it had."""

from zel.slp import *  # noqa: F401, F403

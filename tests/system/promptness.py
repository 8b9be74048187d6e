# SPDX-License-Identifier: MIT
"""Time limits for the service of one client while others keep the daemon busy."""

import statistics
import time

from installation import SANITIZED

TRIES = 50
MEDIAN_SECONDS = 0.020
WORST_SECONDS = 0.250

# The factor for a daemon with a sanitizer.
SLOWNESS = 5 if SANITIZED else 1

# The factor to the times without other clients, which a sanitizer or a busy machine can make long.
SLOWED = 3


def times(function):
    """The duration of each try."""
    seconds = []
    for _ in range(TRIES):
        began = time.monotonic()
        function()
        seconds.append(time.monotonic() - began)
    return seconds


def expect_prompt(seconds, undisturbed, what):
    for measure, limit in ((statistics.median, MEDIAN_SECONDS), (max, WORST_SECONDS)):
        allowed = max(SLOWNESS * limit, SLOWED * measure(undisturbed))
        assert measure(seconds) <= allowed, f"{what}: {sorted(seconds)}, undisturbed {sorted(undisturbed)}"

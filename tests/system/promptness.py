"""How long the daemon may take for one client while another keeps it busy."""

import statistics
import time

from installation import SANITIZED

TRIES = 50
MEDIAN_SECONDS = 0.020
WORST_SECONDS = 0.250

# A daemon with a sanitizer may take so many times as long.
SLOWNESS = 5 if SANITIZED else 1

# How many times as long as without what keeps the daemon busy, where a sanitizer or a busy machine makes that long by
# itself.
SLOWED = 3


def times(function):
    """How long each of the tries takes."""
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

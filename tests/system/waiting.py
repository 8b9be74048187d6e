# SPDX-License-Identifier: MIT
"""Waits for conditions, always with a time limit; and suspends other processes."""

import contextlib
import signal
import threading
import time

import pytest

# Far longer than each wait takes on a slow machine with a sanitizer.
BOUND_SECONDS = 20

# The interval between two checks of a condition.
LOOK_SECONDS = 0.01

_never = threading.Event()


def wait_until(condition, what, seconds=BOUND_SECONDS):
    """Returns the first true value of condition(); fails the test if there is none in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            pytest.fail(f"not within {seconds} s: {what}")
        _never.wait(LOOK_SECONDS)


def wait_until_settled(measure, what, seconds=1, within=BOUND_SECONDS):
    """Waits until measure() has kept its value for this time, and returns the value."""
    seen = [measure(), time.monotonic()]

    def settled():
        value = measure()
        if value != seen[0]:
            seen[:] = [value, time.monotonic()]
        return time.monotonic() - seen[1] >= seconds

    wait_until(settled, what, within)
    return seen[0]


@contextlib.contextmanager
def suspended(process):
    """Suspends the process."""
    process.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)

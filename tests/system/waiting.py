"""Waiting for conditions, always with a bound; and keeping others waiting."""

import contextlib
import signal
import threading
import time

import pytest

# Far more than anything takes on a slow machine with a sanitizer; reached only by something that never happens.
BOUND_SECONDS = 20

# How often a condition that nothing announces is looked at.
LOOK_SECONDS = 0.01

_never = threading.Event()


def wait_until(condition, what, seconds=BOUND_SECONDS):
    """Returns the first true value of condition(); fails the test when none came in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            pytest.fail(f"not within {seconds} s: {what}")
        _never.wait(LOOK_SECONDS)


def wait_until_settled(measure, what, seconds=1, within=BOUND_SECONDS):
    """Waits until measure() has kept its value for so long, and returns the value."""
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
    """While this lasts, the process keeps everything that it has and does nothing."""
    process.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)

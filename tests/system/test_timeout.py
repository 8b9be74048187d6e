# SPDX-License-Identifier: MIT
"""Time-outs of requests, of the platform's replies, and of tessardctl's calls. All of them start in earlier tests."""

from overdue import CALL_SECONDS, CHANGE_SECONDS, PATIENCE_SECONDS, TIMEOUT_SECONDS, TOLERANCE_SECONDS, OverdueCalls
from tessardctl import NO_CONNECTION
from tessardctl import TIMED_OUT as TIMED_OUT_STATUS

import pytest

TIMED_OUT = f"Request not complete within {TIMEOUT_SECONDS * 1000:.0f} ms"


@pytest.mark.parametrize("kind, beginning", [
    ("silent", "FAIL\nCould not read request from client socket: "),
    ("trickling", "FAIL\nCould not read request header from socket: "),
])
def test_request_that_takes_too_long(overdue_requests, kind, beginning):
    request = getattr(overdue_requests, kind)
    request.wait()

    assert request.reply == beginning + TIMED_OUT
    assert TIMEOUT_SECONDS <= request.seconds <= TIMEOUT_SECONDS + TOLERANCE_SECONDS


def test_other_clients_are_served_after_overdue_requests(overdue_requests):
    overdue_requests.silent.wait()
    overdue_requests.trickling.wait()

    overdue_requests.daemon.expect_stream()


def test_coordinator_that_never_replies(overdue_start):
    assert PATIENCE_SECONDS <= overdue_start.wait() <= PATIENCE_SECONDS + TOLERANCE_SECONDS


def expect_call_given_up(call, status, seconds, message):
    assert call.wait() == (status, b"", f"tessardctl: {message}\n".encode())
    assert seconds <= call.seconds <= seconds + TOLERANCE_SECONDS


@pytest.mark.parametrize("command, changes", [("producers", 0), ("monitor", 0), ("enable", 1), ("disable", 1),
                                              ("apply", OverdueCalls.CHANGES)])
def test_daemon_that_never_replies_over_the_bus(overdue_calls, command, changes):
    seconds = CALL_SECONDS + changes * CHANGE_SECONDS

    expect_call_given_up(overdue_calls.calls[command], TIMED_OUT_STATUS, seconds,
                         f"No reply within {seconds} seconds.")


def test_silent_bus(overdue_calls):
    expect_call_given_up(overdue_calls.calls["connecting"], NO_CONNECTION, CALL_SECONDS,
                         "Could not connect to the bus: No reply in time.")

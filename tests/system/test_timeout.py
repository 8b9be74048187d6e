"""The time that a client may take for its request, and the platform for its answer. Both began in earlier tests."""

from overdue import PATIENCE_SECONDS, TIMEOUT_SECONDS, TOLERANCE_SECONDS

import pytest

TIMED_OUT = f"Request not complete within {TIMEOUT_SECONDS * 1000:.0f} ms"


@pytest.mark.parametrize("kind, beginning", [
    ("silent", "FAIL\nCould not read request from client socket: "),
    ("trickling", "FAIL\nCould not read request header from socket: "),
])
def test_request_that_takes_too_long(overdue_requests, kind, beginning):
    request = getattr(overdue_requests, kind)
    request.wait()

    assert request.answer == beginning + TIMED_OUT
    assert TIMEOUT_SECONDS <= request.seconds <= TIMEOUT_SECONDS + TOLERANCE_SECONDS


def test_others_are_served_once_overdue_requests_are_answered(overdue_requests):
    overdue_requests.silent.wait()
    overdue_requests.trickling.wait()

    with overdue_requests.daemon.client() as client:
        client.start().next_document()


def test_coordinator_that_never_answers(overdue_start):
    assert PATIENCE_SECONDS <= overdue_start.wait() <= PATIENCE_SECONDS + TOLERANCE_SECONDS

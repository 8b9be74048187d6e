# SPDX-License-Identifier: MIT
"""Crowds of clients: slow and silent ones do not delay others, and streaming ones leave places for others."""

import contextlib
import re
import time

import pytest

from client import header
from crowd import Crowd
from daemon import NOTHING_REQUESTED, WARNING
from installation import documented_limit, run_by_root
from promptness import expect_prompt, times
from waiting import wait_until

MAX_WAITING = documented_limit("server.h", "SERVER_MAX_WAITING_REQUESTS") + 1
MAX_UNFINISHED = documented_limit("server.h", "SERVER_MAX_UNFINISHED_REQUESTS")
PLACES = documented_limit("clientplaces.h", "CLIENT_PLACES")
KEPT_PLACES = documented_limit("clientplaces.h", "CLIENT_PLACES_KEPT")
SHARED_PLACES = PLACES - KEPT_PLACES

DROPPED = (WARNING, "Too many unprocessed metadata requests, dropping one.")
NO_PLACE = "Too many metadata clients, refused a metadata request."
NO_PLACE_LINE = re.compile(rf"{re.escape(NO_PLACE)}( \((?P<more>\d+) more since the last such line\))?")
WARNING_SECONDS = documented_limit("server.h", "SERVER_SHORTAGE_WARNING_INTERVAL_MS") / 1000
NOT_CREATED = "FAIL\nCould not create metadata, Internal server error."

# Ids of users that need not exist and that no other process has.
STRANGERS = range(61000, 61000 + KEPT_PLACES + 1)

needs_root = pytest.mark.skipif(not run_by_root(), reason="only root can be several users")


# Silent and slow clients


def times_to_ok(daemon):
    """The times until "OK" of several clients, one after the other."""
    def start():
        daemon.expect_reply("event=1\n", "OK")

    return times(start)


def expect_prompt_service(daemon, alone):
    expect_prompt(times_to_ok(daemon), alone, "OK")


WAYS_TO_WAIT = {
    "silent": {},
    "half a request": {"beginning": "OPEN\nevent"},
    "dripping": {"beginning": "OPEN\na=", "drip": "x"},
}


@pytest.mark.parametrize("way", WAYS_TO_WAIT)
def test_slow_clients_delay_no_others_of_the_same_user(daemon, way):
    count = 60
    alone = times_to_ok(daemon)
    daemon.wait_until_idle()
    with Crowd(daemon, count, **WAYS_TO_WAIT[way]):
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + count, "all are accepted")
        expect_prompt_service(daemon, alone)


@needs_root
@pytest.mark.parametrize("way", WAYS_TO_WAIT)
def test_slow_clients_of_another_user_delay_no_others(daemon, way):
    count = 100
    alone = times_to_ok(daemon)
    daemon.wait_until_idle()
    with Crowd(daemon, count, user=STRANGERS[0], **WAYS_TO_WAIT[way]):
        assert daemon.log.take(count - MAX_UNFINISHED) == [DROPPED] * (count - MAX_UNFINISHED)
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + MAX_UNFINISHED, "they are closed")
        expect_prompt_service(daemon, alone)


def test_newest_of_a_users_slow_clients_is_dropped(daemon):
    with Crowd(daemon, MAX_UNFINISHED - 1), daemon.client() as last:
        last.send(b"OPEN\n")
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + MAX_UNFINISHED, "all are accepted")
        for _ in range(3):
            with daemon.client() as dropped:
                assert dropped.read_to_end() == b""
        assert daemon.log.take() == [DROPPED] * 3

        # A complete request makes room for another client.
        last.send(b"\n")
        assert last.read_reply().decode() == NOTHING_REQUESTED
        daemon.expect_reply()


@needs_root
def test_newest_of_all_users_slow_clients_is_dropped(daemon):
    with Crowd(daemon, MAX_UNFINISHED, user=STRANGERS[0]) as first, \
            Crowd(daemon, MAX_WAITING - MAX_UNFINISHED, user=STRANGERS[1]):
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + MAX_WAITING, "all are accepted")
        for _ in range(3):
            with daemon.client() as dropped:
                assert dropped.read_to_end() == b""
        assert daemon.log.take() == [DROPPED] * 3

        first.close()
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + MAX_WAITING - MAX_UNFINISHED,
                   "the connections of the closed clients are closed")
        daemon.expect_reply()


# Streaming clients

EVENT_REQUEST = f"OPEN\n{header(event=1)}\n"

# Enough for that many clients of events, with five each, and the reserve.
ENOUGH_DESCRIPTORS = 2048


def expect_streams(daemon, count):
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + 5 * count, f"{count} clients stream")


def expect_refusal(daemon):
    with daemon.client() as client:
        assert client.request(header(event=1)) == NOT_CREATED
        assert client.read_to_end() == b""


def logged_refusals(daemon):
    """The number of refusals in the lines that have not been taken."""
    counts = [NO_PLACE_LINE.fullmatch(text) for priority, text in daemon.log.lines if priority == WARNING]
    return sum(1 + int(match["more"] or 0) for match in counts if match)


def expect_few_warnings(daemon, refusals, began):
    """Expects one line at once, and one line with the count of the others at the end of an interval."""
    wait_until(lambda: logged_refusals(daemon) == refusals, "all refusals are logged")
    (first, *others) = daemon.log.take()
    assert first == (WARNING, NO_PLACE)
    assert len(others) <= (time.monotonic() - began) / WARNING_SECONDS
    assert all(NO_PLACE_LINE.fullmatch(text) for _, text in others)


def stream_in_all_shared_places(stack, daemon):
    """Opens streams for clients of the testing user, until all shared places are used."""
    daemon.limit_descriptors(ENOUGH_DESCRIPTORS)
    clients = []
    while len(clients) < SHARED_PLACES:
        clients.append(stack.enter_context(daemon.client()))
        assert clients[-1].request(header(event=1)) == "OK"
    expect_streams(daemon, SHARED_PLACES)
    return clients


def test_one_user_gets_all_places_but_the_kept_ones(daemon):
    with contextlib.ExitStack() as stack:
        first, *_ = stream_in_all_shared_places(stack, daemon)
        began = time.monotonic()
        for _ in range(3):
            expect_refusal(daemon)
        expect_few_warnings(daemon, 3, began)

        first.close()
        expect_streams(daemon, SHARED_PLACES - 1)
        daemon.expect_stream()
        expect_streams(daemon, SHARED_PLACES - 1)


@needs_root
def test_kept_places_serve_users_without_a_place(daemon):
    with contextlib.ExitStack() as stack:
        stream_in_all_shared_places(stack, daemon)
        for stranger in STRANGERS[:KEPT_PLACES]:
            crowd = stack.enter_context(Crowd(daemon, 1, user=stranger, beginning=EVENT_REQUEST))
            assert crowd.next_reply() == "OK"
        expect_streams(daemon, PLACES)
        assert daemon.log.take() == []

        # No place is left for any user.
        began = time.monotonic()
        for user in (None, STRANGERS[0], STRANGERS[-1]):
            with Crowd(daemon, 1, user=user, beginning=EVENT_REQUEST) as refused:
                assert refused.next_reply() == NOT_CREATED
        expect_few_warnings(daemon, 3, began)
        crowd.close()
        expect_streams(daemon, PLACES - 1)
        with Crowd(daemon, 1, user=STRANGERS[-1], beginning=EVENT_REQUEST) as served:
            assert served.next_reply() == "OK"

    daemon.wait_until_idle()

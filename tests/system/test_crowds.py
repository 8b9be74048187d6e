"""Crowds of clients: those who are slow or silent keep nobody waiting."""

import statistics
import time

import pytest

from crowd import Crowd
from daemon import NOTHING_ASKED, WARNING
from installation import documented_limit, run_by_root
from waiting import wait_until

MAX_WAITING = documented_limit("server.h", "SERVER_MAX_WAITING_REQUESTS") + 1
MAX_UNFINISHED = documented_limit("server.h", "SERVER_MAX_UNFINISHED_REQUESTS")

DROPPED = (WARNING, "Too many unprocessed metadata requests, dropping one.")

# How long a client may have to wait for its "OK": half of the tries and each of them.
TRIES = 50
MEDIAN_SECONDS = 0.020
WORST_SECONDS = 0.250

# How much longer it may be than without the crowd, where a sanitizer or a busy machine makes that long by itself.
SLOWED = 3

# Users that need not exist; nobody else is one of them.
STRANGERS = range(61000, 61002)

needs_root = pytest.mark.skipif(not run_by_root(), reason="only root can be several users")


# Those who say nothing, or not all


def times_to_ok(daemon):
    """How long each of some clients waited, one after the other."""
    seconds = []
    for _ in range(TRIES):
        with daemon.client() as client:
            began = time.monotonic()
            assert client.ask("event=1\n") == "OK"
            seconds.append(time.monotonic() - began)
    return sorted(seconds)


def expect_prompt_service(daemon, alone):
    seconds = times_to_ok(daemon)
    assert statistics.median(seconds) <= max(MEDIAN_SECONDS, SLOWED * statistics.median(alone)), (seconds, alone)
    assert max(seconds) <= max(WORST_SECONDS, SLOWED * max(alone)), (seconds, alone)


WAYS_TO_WAIT = {
    "silent": {},
    "half a request": {"beginning": "OPEN\nevent"},
    "dripping": {"beginning": "OPEN\na=", "drip": "x"},
}


@pytest.mark.parametrize("way", WAYS_TO_WAIT)
def test_slow_clients_of_the_same_user_keep_nobody_waiting(daemon, way):
    count = 60
    alone = times_to_ok(daemon)
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors, "all have gone")
    with Crowd(daemon, count, **WAYS_TO_WAIT[way]):
        wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors + count, "all are accepted")
        expect_prompt_service(daemon, alone)


@needs_root
@pytest.mark.parametrize("way", WAYS_TO_WAIT)
def test_slow_clients_of_another_user_keep_nobody_waiting(daemon, way):
    count = 100
    alone = times_to_ok(daemon)
    wait_until(lambda: daemon.descriptors() == daemon.idle_descriptors, "all have gone")
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

        # Whoever sends all of it makes room for one.
        last.send(b"\n")
        assert last.read_reply().decode() == NOTHING_ASKED
        with daemon.client() as client:
            assert client.ask("") == NOTHING_ASKED


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
                   "those who left are closed")
        with daemon.client() as client:
            assert client.ask("") == NOTHING_ASKED

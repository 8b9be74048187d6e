# SPDX-License-Identifier: MIT
"""Platform elements that fail: the reply to the client of such an element, and the release of all resources."""

import concurrent.futures

import pytest

from client import header
from daemon import ERROR, NOT_PRODUCED, SPARE_THREADS
from installation import DOCUMENT_PLUGIN, EVENT_PLUGIN, PTZ_PLUGIN
from waiting import wait_until

PLUGINS = (EVENT_PLUGIN, PTZ_PLUGIN, DOCUMENT_PLUGIN)

STARTS = ("NULL->READY", "READY->PAUSED", "PAUSED->PLAYING")
STOPS = ("PLAYING->PAUSED", "PAUSED->READY", "READY->NULL")

NOT_STOPPED_LINE = (ERROR, "Could not stop connection manager pipeline.")

ONE_BY_ONE = 40
AT_ONCE = 10

# More often than there are clients.
FOR_EVER = 1000


@pytest.fixture
def start_failing(installation, start_daemon):
    """Starts a daemon whose event sources each fail this many times in a state change."""

    def start(fails, works=False, times=FOR_EVER):
        _, environment = installation.new_plugin_folder(PLUGINS, failing=True)
        faults = {"TESTPLUGIN_FAILS": fails, "TESTPLUGIN_WORKS": str(int(works)), "TESTPLUGIN_TIMES": str(times)}
        return start_daemon(plugins=PLUGINS, environment=environment | faults)

    return start


def come_and_go(daemon, visit):
    """Runs clients in sequence, and some at once. Returns their number."""
    for _ in range(ONE_BY_ONE):
        visit(daemon)
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as clients:
        list(clients.map(visit, [daemon] * AT_ONCE))
    return ONE_BY_ONE + AT_ONCE


def expect_nothing_left(daemon, threads):
    daemon.wait_until_idle()
    wait_until(lambda: daemon.threads() <= threads + SPARE_THREADS, "the clients' threads have ended")


def expect_service(daemon):
    """Expects that requests for another kind are served."""
    with daemon.client() as client:
        assert client.start(header(ptz=3)).next_document().ptz


def be_refused(daemon):
    with daemon.client() as client:
        assert client.request(header(event=1)) == NOT_PRODUCED
        assert client.read_to_end() == b""


def stream_and_leave(daemon):
    daemon.expect_stream()


def stream_to_the_end(daemon):
    with daemon.client() as client:
        stream = client.start_reading()
        client.close_writing()
        stream.read_to_end()


@pytest.mark.parametrize("works", [False, True], ids=["undone", "done"])
@pytest.mark.parametrize("change", STARTS)
def test_source_that_does_not_start(start_failing, change, works):
    daemon = start_failing(change, works)
    threads = daemon.threads()

    come_and_go(daemon, be_refused)

    expect_nothing_left(daemon, threads)
    expect_service(daemon)


@pytest.mark.parametrize("leave", [stream_and_leave, stream_to_the_end])
@pytest.mark.parametrize("times", [1, FOR_EVER], ids=["once", "always"])
@pytest.mark.parametrize("works", [False, True], ids=["undone", "done"])
@pytest.mark.parametrize("change", STOPS)
def test_source_that_does_not_stop(start_failing, change, works, times, leave):
    daemon = start_failing(change, works, times)
    threads = daemon.threads()

    count = come_and_go(daemon, leave)

    assert daemon.log.take(count) == [NOT_STOPPED_LINE] * count
    # A source that always refuses may keep its own thread, unless it has stopped it.
    stopped = change == "READY->NULL" or (change == "PAUSED->READY" and works)
    expect_nothing_left(daemon, threads + (count if times == FOR_EVER and not stopped else 0))
    expect_service(daemon)


ROUNDS = 200


def test_stream_that_fails_at_once_is_granted(start_failing):
    daemon = start_failing("STREAM")
    for _ in range(ROUNDS):
        with daemon.client() as client:
            assert client.request(header(event=1)) == "OK"
            client.open_stream().read_to_end()

    line = (ERROR, "Error in metadata connection manager pipeline: No events.")
    assert daemon.log.take(ROUNDS) == [line] * ROUNDS
    expect_nothing_left(daemon, daemon.threads())
    expect_service(daemon)


def test_stream_of_a_half_closed_client_is_granted(daemon):
    for _ in range(ROUNDS):
        with daemon.client() as client:
            client.send_request(header(event=1))
            client.close_writing()
            assert client.read_reply() == b"OK"
            client.open_stream().read_to_end()

    expect_nothing_left(daemon, daemon.threads())

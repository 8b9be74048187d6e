# SPDX-License-Identifier: MIT
"""Many clients, and clients that violate the protocol: all others are served, and no resource leaks."""

import concurrent.futures
import contextlib
import itertools
import threading
import time

import pytest

from client import stuck_client
from daemon import NOTHING_REQUESTED, SPARE_THREADS
from documents import INITIALIZED
from waiting import BOUND_SECONDS, suspended, wait_until, wait_until_settled

MIB = 1024 * 1024

# The time limit for a first document while other clients violate the protocol.
OTHERS_SECONDS = 2

# The time limit for the release of a client's resources after its end.
FREED_SECONDS = 2


def expect_service(daemon):
    began = time.monotonic()
    with daemon.client() as client:
        document = client.start().next_document()
    assert document.events[0].operation == INITIALIZED
    assert time.monotonic() - began <= OTHERS_SECONDS


@pytest.fixture
def frugal_daemon(start_daemon):
    """A daemon that reuses freed memory soon, which AddressSanitizer would keep in quarantine for long."""
    return start_daemon(sanitizer_options="quarantine_size_mb=1")


# Crowds


def test_thirty_clients_at_once(fast_daemon):
    together = threading.Barrier(30)

    def receive(_):
        with fast_daemon.client() as client:
            stream = client.start()
            together.wait(BOUND_SECONDS)
            return list(itertools.islice(stream.documents(), 10))

    with concurrent.futures.ThreadPoolExecutor(30) as clients:
        for documents in clients.map(receive, range(30)):
            assert documents[0].events[0].operation == INITIALIZED

    fast_daemon.wait_until_idle()


def connect_only(client):
    pass


def send_half_a_request(client):
    client.send(b"OPEN\nevent")


def request_nothing(client):
    assert client.request("") == NOTHING_REQUESTED


def send_malformed_request(client):
    client.send(b"wrong\n")
    client.read_to_end()


def leave_before_the_reply(client):
    client.send(b"OPEN\nevent=1\n\n")


def leave_without_reading(client):
    assert client.request("event=1\n") == "OK"


def leave_while_reading(client):
    client.start().next_document()


def leave_after_a_sync(client):
    client.start().next_document()
    client.sync()


def close_the_writing_half(client):
    stream = client.start_reading()
    client.close_writing()
    stream.read_to_end()


def send_what_is_no_text(client):
    stream = client.start()
    client.send(b"\xff")
    stream.read_to_end()


WAYS_TO_GO = [connect_only, send_half_a_request, request_nothing, send_malformed_request, leave_before_the_reply,
              leave_without_reading, leave_while_reading, leave_after_a_sync, close_the_writing_half,
              send_what_is_no_text]


def come_and_go(daemon, count):
    """Runs `count` clients, a few of them at a time, which end in different ways."""

    def visit(go):
        with daemon.client() as client:
            go(client)

    with concurrent.futures.ThreadPoolExecutor(6) as clients:
        list(clients.map(visit, itertools.islice(itertools.cycle(WAYS_TO_GO), count)))


# Memory that the allocators, above all AddressSanitizer's, do not release at once.
RESIDENT_TOLERANCE = 6 * MIB


def test_two_hundred_clients_leave_nothing_behind(frugal_daemon):
    threads = frugal_daemon.threads()
    come_and_go(frugal_daemon, 200)
    frugal_daemon.wait_until_idle()
    resident = frugal_daemon.resident_bytes()

    come_and_go(frugal_daemon, 200)

    frugal_daemon.wait_until_idle()
    wait_until(lambda: frugal_daemon.threads() <= threads + SPARE_THREADS, "the clients' threads have ended")
    wait_until(lambda: frugal_daemon.resident_bytes() <= resident + RESIDENT_TOLERANCE, "the clients' memory is free")
    assert frugal_daemon.log.take() == []


# The number of clients that end at once, nearly the limit of one user, the limit of descriptors for them, and the least
# number of replies to other clients between their ends.
ENDING = 220
ENDING_LIMIT = 2048
REPLIES_BETWEEN = 5


def test_clients_that_end_at_once_delay_no_others(start_daemon, control):
    daemon = start_daemon()
    daemon.limit_descriptors(ENDING_LIMIT)
    with contextlib.ExitStack() as stack:
        clients = []
        for _ in range(ENDING):
            clients.append(stack.enter_context(daemon.client()))
            clients[-1].start()
        with suspended(daemon.process):
            for client in clients:
                client.close_writing()
        replies = 0
        deadline = time.monotonic() + BOUND_SECONDS
        while daemon.descriptors() > daemon.idle_descriptors and time.monotonic() < deadline:
            control.objects()
            replies += 1
        for client in clients:
            client.read_to_end()
    daemon.wait_until_idle()
    assert replies > REPLIES_BETWEEN


# Clients that do not read


def test_client_that_does_not_read_delays_no_others(fast_daemon):
    with stuck_client(fast_daemon):
        expect_service(fast_daemon)
        expect_service(fast_daemon)

    began = time.monotonic()
    fast_daemon.wait_until_idle()
    assert time.monotonic() - began <= FREED_SECONDS
    assert fast_daemon.log.take() == []


def test_client_that_reads_late_gets_whole_documents(start_daemon):
    with stuck_client(start_daemon(speed=100)) as client:
        stream = client.open_stream()

        # More than were queued.
        assert len(list(itertools.islice(stream.documents(), 500))) == 500


def test_signal_ends_the_daemon_while_clients_do_not_read(fast_daemon):
    with stuck_client(fast_daemon):
        began = time.monotonic()
        fast_daemon.end()

    assert time.monotonic() - began <= FREED_SECONDS


# A packet of the GStreamer data protocol begins with a header of this size, which holds the length of what follows.
GDP_HEADER_BYTES = 62
GDP_LENGTH = slice(6, 10)

# More than a socket holds, so that a write of it waits for the client.
LARGE_BYTES = 256 * 1024


# After this delay the source sends all pending events in one large document; after a longer delay it would send the
# current state instead.
HELD_SECONDS = 7


def read_up_to_a_large_packet(client):
    """Reads whole packets, and only the header of the first large one."""
    deadline = time.monotonic() + BOUND_SECONDS
    while time.monotonic() < deadline:
        header = client.read_exactly(GDP_HEADER_BYTES)
        length = int.from_bytes(header[GDP_LENGTH], "big")
        if length >= LARGE_BYTES:
            return
        client.read_exactly(length)
    pytest.fail("no large packet arrived")


def test_client_that_stops_reading_within_a_large_document_delays_no_others(fast_daemon):
    with stuck_client(fast_daemon, seconds=HELD_SECONDS) as client:
        read_up_to_a_large_packet(client)
        wait_until_settled(lambda: client.unread(), "the client's socket is full again")
        client.close_writing()

        # Ending this client's stream must not wait for the client.
        expect_service(fast_daemon)
        expect_service(fast_daemon)

    fast_daemon.expect_idle_and_no_log()


# Clients that send too much

# The allowed growth of the daemon's memory during a flood; the client sends much more.
FLOOD_TOLERANCE = 8 * MIB


def flood(daemon, client, piece):
    """Sends the piece many times, which must not delay others, and waits until the daemon has read all."""
    for _ in range(64):
        client.send(piece)
    expect_service(daemon)
    wait_until(lambda: client.unsent() == 0, "the daemon has read all")
    return daemon.resident_bytes()


@pytest.mark.parametrize("piece", [pytest.param(b"x" * MIB, id="endless line"),
                                   pytest.param(b"SYNC\n" * 10000, id="sync points")])
def test_flood_takes_no_memory_and_delays_no_others(frugal_daemon, piece):
    with frugal_daemon.client() as client:
        stream = client.start()
        resident = flood(frugal_daemon, client, piece)

        assert flood(frugal_daemon, client, piece) <= resident + FLOOD_TOLERANCE
        client.close_writing()
        stream.read_to_end()

    frugal_daemon.wait_until_idle()


def test_flood_of_sync_points_without_reading(frugal_daemon):
    with frugal_daemon.client() as client:
        assert client.request("event=1\n") == "OK"
        resident = flood(frugal_daemon, client, b"SYNC\n" * 10000)

        assert flood(frugal_daemon, client, b"SYNC\n" * 10000) <= resident + FLOOD_TOLERANCE

    frugal_daemon.wait_until_idle()

# SPDX-License-Identifier: MIT
"""The daemon's memory for producers' messages: its limits, its time-out and its release."""

import contextlib
import itertools
import json
import os
import threading

import pytest
from gi.repository import GLib

from daemon import ERROR, producers_enabled
from external import ANALYTICS, COUNTER, DETECTOR, GATE, expect_converter_warning, expect_frames, numbered
from installation import documented_limit, needs_allocator
from promptness import expect_prompt, times
from receiverclient import LENGTH
from waiting import BOUND_SECONDS, wait_until, wait_until_settled

MIB = 1024 * 1024

CLIENT_LIMIT = documented_limit("messageaccount.h", "MESSAGE_ACCOUNT_CLIENT_LIMIT")
TOTAL_LIMIT = documented_limit("messageaccount.h", "MESSAGE_ACCOUNT_TOTAL_LIMIT")
TIMEOUT_SECONDS = documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS") / 1000

TIMED_OUT = (ERROR, "Could not read request data from client socket: Connection timed out: Connection timed out")
NO_MEMORY = (ERROR, "Could not read request data from client socket: Cannot allocate memory: Cannot allocate memory")

# Producers that send long messages without an end, and the number of their clients.
HOGS = ("Hog1", "Hog2", "Hog3", "Hog4")
HOG_BYTES = 40_000_000
CLIENTS = 10
WITH_HOGS = producers_enabled({(name, 1): name for name in (*HOGS, COUNTER)})

# The daemon's memory besides the messages: pipelines, and data that each stream has read ahead.
BESIDE_BYTES = 32 * MIB

# Rounds of clients, AT_ONCE at a time, each with one long message; and the memory that they may leave in addition to
# the first round, which also loads and allocates what stays.
ROUNDS, AT_ONCE, LONG_BYTES = 10, 10, 900_000
LEFT_BYTES = MIB

# Longer than the daemon's interval for the release of memory.
SETTLED_SECONDS = 3

# Clients of a producer that always has long messages.
LONG_READERS, FILE_BYTES, FILE_MESSAGES = 2, 60 * MIB, 2000


def begin_long_message(stream):
    """Writes a long message except its last byte, or as much as is read before the stream is closed."""
    with contextlib.suppress(BrokenPipeError):
        stream.write((LENGTH.pack(HOG_BYTES) + bytes(HOG_BYTES))[:-1], TIMEOUT_SECONDS + BOUND_SECONDS)


@needs_allocator
def test_unfinished_messages_use_bounded_memory_and_time(receiver, start_listing_daemon):
    hogs = [receiver.add(name) for name in HOGS]
    counter = receiver.add(COUNTER)
    daemon = start_listing_daemon(producers=WITH_HOGS)
    idle = daemon.private_bytes()
    with contextlib.ExitStack() as running:
        streams = [running.enter_context(daemon.client()).start(ANALYTICS) for _ in range(CLIENTS)]
        counter.wait_for_stream(CLIENTS)
        for hog in hogs:
            hog.wait_for_stream(CLIENTS)
        writers = [threading.Thread(target=begin_long_message, args=(stream,))
                   for hog in hogs for stream in hog.streams]
        for writer in writers:
            writer.start()

        count = itertools.count()

        def have_ended():
            # The counter's streams continue.
            number = next(count)
            for feed, stream in zip(counter.streams, streams):
                feed.send(numbered(number))
                expect_frames(stream, (COUNTER, number))
            assert daemon.private_bytes() - idle < TOTAL_LIMIT + CLIENT_LIMIT + BESIDE_BYTES
            return all(stream.is_closed() for hog in hogs for stream in hog.streams)

        wait_until(have_ended, "the streams of unfinished messages are closed", TIMEOUT_SECONDS + BOUND_SECONDS)
        for writer in writers:
            writer.join(BOUND_SECONDS)

        lines = daemon.log.take(len(writers))
        assert len(lines) == len(writers)
        assert set(lines) == {TIMED_OUT, NO_MEMORY}
        # Messages within the limit end by the time-out.
        assert lines.count(TIMED_OUT) == TOTAL_LIMIT // HOG_BYTES
        wait_until(lambda: daemon.private_bytes() - idle < BESIDE_BYTES, "the messages' memory is free")

        for feed, stream in zip(counter.streams, streams):
            feed.send(numbered(1))
            expect_frames(stream, (COUNTER, 1))

    daemon.expect_idle_and_no_log()


def come_and_go(daemon, producer):
    """Runs one round of clients, each of which receives a long message."""
    known = len(producer.streams)
    long_message = json.dumps({"Deleted": [1], "Filling": "x" * LONG_BYTES})
    with contextlib.ExitStack() as running:
        streams = [running.enter_context(daemon.client()).start(ANALYTICS) for _ in range(AT_ONCE)]
        producer.wait_for_stream(known + AT_ONCE)
        for feed, stream in zip(producer.streams[known:], streams):
            feed.send(long_message, numbered(2))
            expect_frames(stream, (GATE, 1), (GATE, 2))
    daemon.wait_until_idle()


@needs_allocator
def test_memory_of_clients_is_released(receiver, start_listing_daemon):
    detector = receiver.add(DETECTOR)
    receiver.add(COUNTER)
    daemon = start_listing_daemon()

    come_and_go(daemon, detector)
    idle = wait_until_settled(daemon.private_bytes, "no more memory is released", SETTLED_SECONDS)
    for _ in range(ROUNDS):
        come_and_go(daemon, detector)
    wait_until(lambda: daemon.private_bytes() - idle <= LEFT_BYTES, "the memory is released")
    assert daemon.log.take() == []


def reply_with_long_messages(call):
    """Replies with a sparse file of many long messages."""
    fd = os.memfd_create("messages")
    for number in range(FILE_MESSAGES):
        os.pwrite(fd, LENGTH.pack(FILE_BYTES), number * (LENGTH.size + FILE_BYTES))
    os.ftruncate(fd, FILE_MESSAGES * (LENGTH.size + FILE_BYTES))
    call.reply(GLib.Variant("(h)", (0,)), [fd])
    os.close(fd)


def test_reading_long_messages_delays_no_others(receiver, start_listing_daemon, control):
    detector, counter = receiver.add(DETECTOR), receiver.add(COUNTER)
    detector.on_stream = reply_with_long_messages
    daemon = start_listing_daemon()
    undisturbed = times(control.objects)
    with contextlib.ExitStack() as running:
        for _ in range(LONG_READERS):
            running.enter_context(daemon.client()).start(ANALYTICS)
        disturbed = times(control.objects)
        # They are still being read.
        assert daemon.descriptors() > daemon.idle_descriptors + LONG_READERS
        counter.wait_for_stream(LONG_READERS)
        expect_prompt(disturbed, undisturbed, "objects")

    daemon.wait_until_idle()
    # The zeros of a sparse file are not JSON.
    expect_converter_warning(daemon)

# SPDX-License-Identifier: MIT
"""Faulty applications, and a lack of descriptors: the metadata receiver continues for all others."""

import contextlib
import os
import subprocess
import sys
import threading
import time

import pytest
from gi.repository import GLib

from installation import SANITIZED, unprivileged
from receiverprocess import LIMITS, ended, message, not_read, refusal, remote_refusal
from waiting import BOUND_SECONDS, wait_until

MAX_MESSAGE = LIMITS["RECEIVER_MAX_MESSAGE_BYTES"]

MINE = "Mine"


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


INVALID = [
    ((MAX_MESSAGE + 1).to_bytes(4, sys.byteorder), "a message is longer than 1 MiB"),
    (b"\xff" * 100, "a message is longer than 1 MiB"),
    (b'{"Objects":[]}\n', "a message is longer than 1 MiB"),
    (message(b"\xff\xfe{}"), "a message is not UTF-8 text"),
    (message(b"{\0}"), "a message is not UTF-8 text"),
]


@pytest.mark.parametrize("data, reason", INVALID, ids=["long", "bytes", "lines", "not UTF-8", "NUL"])
def test_invalid_data_ends_only_its_channel(receiver, application, receiver_client, data, reason):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    writer.send("first")
    writer.write(data)

    assert stream.message() == b"first"
    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 1", reason)]
    writer.wait_until_ended()
    application.open_channel(MINE).send("again")
    assert stream.message() == b"again"


def test_incomplete_message_is_dropped(receiver, application, receiver_client):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    writer.write(message("whole") + message("cut short")[:-1])
    writer.close()

    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 1", "the application closed it within a message")]
    application.open_channel(MINE).send("next")
    assert stream.messages(2) == [b"whole", b"next"]


def test_time_for_an_incomplete_message_is_limited(receiver, application, receiver_client):
    """The time begins with the first byte of each message."""
    application.register(MINE)
    slow, cut = application.open_channel(MINE, 1), application.open_channel(MINE, 2)
    streams = receiver_client.open(MINE, 1), receiver_client.open(MINE, 2)
    began = time.monotonic()
    cut.write(message("never complete")[:2])
    for _ in range(4):
        slow.write(message("slow")[:5])
        # Not to synchronise: four messages of 3 s take longer together than one may take.
        time.sleep(3)
        slow.write(message("slow")[5:])

    assert receiver.take_warnings(1) == [ended(f"{MINE}, channel 2", "a message is not complete after 10 s")]
    assert 10 <= time.monotonic() - began < 10 + BOUND_SECONDS
    cut.wait_until_ended()
    assert streams[0].messages(4) == [b"slow"] * 4
    application.open_channel(MINE, 2).send("again")
    assert streams[1].message() == b"again"


def limit_descriptors(receiver, limit):
    subprocess.run(["prlimit", f"--pid={receiver.process.pid}", f"--nofile={limit}:"], check=True, cwd="/",
                   **unprivileged())


@pytest.mark.skipif(SANITIZED, reason="a sanitizer's runtime needs descriptors to check an address")
def test_without_descriptors_calls_fail_and_streams_continue(receiver, application, receiver_client):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    taken = set(map(int, os.listdir(f"/proc/{receiver.process.pid}/fd")))
    limit_descriptors(receiver, max(taken) + 1)
    free = max(taken) + 1 - len(taken)
    for _ in range(free):
        with contextlib.suppress(GLib.Error):
            receiver_client.open(MINE)

    assert remote_refusal(receiver_client.request_stream, MINE) == "NoDescriptor"
    assert refusal(application.open_channel, MINE, 2)[0] == "NoDescriptor"
    writer.send("still")
    assert stream.message() == b"still"
    limit_descriptors(receiver, 1024)
    application.open_channel(MINE, 2)
    receiver_client.open(MINE, 2)


def test_faulty_applications_affect_no_other(receiver, start_application, receiver_client):
    """A hundred applications, each with a stream, and among them one of each kind of fault."""
    applications = [start_application().register(f"P{number}") for number in range(100)]
    writers = [application.open_channel(f"P{number}") for number, application in enumerate(applications)]
    streams = [receiver_client.open(f"P{number}") for number in range(100)]
    garbage, too_long, not_text, cut, slow, closed, closed_within, silent, fast, leaving = range(10)
    writers[garbage].write(os.urandom(3) + b"\xff" * 100)
    writers[too_long].write((MAX_MESSAGE + 1).to_bytes(4, sys.byteorder))
    writers[not_text].send(b"\xff")
    writers[cut].write(message("cut")[:-1])
    writers[cut].close()
    writers[slow].write(b"\x01")
    applications[closed].close()
    writers[closed_within].write(message("cut")[:5])
    applications[closed_within].close()
    assert silent
    stopped = threading.Event()

    def write_without_pause():
        data = message(b"x" * 60000)
        while not stopped.is_set():
            writers[fast].write(data)

    writing = threading.Thread(target=write_without_pause)
    writing.start()
    applications[leaving].unregister(f"P{leaving}")
    try:
        quiet = range(10, 100)
        for round_number in range(20):
            for number in quiet:
                writers[number].send(b'{"Number":%d}' % (1000 * number + round_number))
            for number in quiet:
                assert streams[number].item() == {"Number": 1000 * number + round_number}
    finally:
        stopped.set()
        writing.join(BOUND_SECONDS)

    expected = {ended(f"P{number}, channel 1", reason) for number, reason in (
        (garbage, "a message is longer than 1 MiB"), (too_long, "a message is longer than 1 MiB"),
        (not_text, "a message is not UTF-8 text"), (cut, "the application closed it within a message"),
        (closed_within, "the application closed it within a message"),
        (slow, "a message is not complete after 10 s"))} | {not_read(f"P{fast}", 1)}
    wait_until(lambda: expected <= set(receiver.warnings()), "each faulty application is logged")
    streams[fast].close()
    assert set(receiver.take_warnings(len(expected) + 1)) >= expected
    assert receiver_client.names() == {f"P{number}" for number in range(100) if number != leaving}
    for number in (closed, closed_within, silent, slow, garbage):
        assert not streams[number].has_something()

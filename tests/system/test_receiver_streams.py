# SPDX-License-Identifier: MIT
"""The metadata receiver's channels and streams: the messages of applications on their way to readers."""

import os
import threading
import time

import pytest
from gi.repository import GLib

from daemon import WARNING
from installation import needs_allocator
from receiverclient import LENGTH
from receiverprocess import LIMITS, enough_descriptors, message, not_read, numbers, read_numbers, remote_refusal
from waiting import BOUND_SECONDS, wait_until

MIB = 1024 * 1024
MAX_MESSAGE = LIMITS["RECEIVER_MAX_MESSAGE_BYTES"]
QUEUE_SECONDS = LIMITS["RECEIVER_QUEUE_MAX_AGE_MS"] / 1000
MAX_CHANNEL_STREAMS = LIMITS["RECEIVER_MAX_CHANNEL_STREAMS"]

MINE = "Mine"

# The number of paced messages, and their rate per second.
PACED_MESSAGES = int(os.environ.get("TESSARD_PACED_MESSAGES", "20000"))
PACED_RATE = 4000

# The messages of 10,000 bytes that the reader of a stream may be behind: far fewer than its queue holds.
MOST_BEHIND = 20


@pytest.fixture
def receiver(receiver_process):
    return receiver_process


def test_stream_needs_no_open_channel(receiver, application, receiver_client):
    application.register(MINE)
    stream = receiver_client.open(MINE)
    assert stream.is_blocking()
    assert os.readlink(f"/proc/self/fd/{stream.fd}").startswith("pipe:")
    writer = application.open_channel(MINE)
    writer.send("{}")

    assert stream.message() == b"{}"


def test_each_message_is_sent_to_all_streams_of_its_channel(receiver, application, receiver_client):
    application.register(MINE)
    writer, other_writer = application.open_channel(MINE, 1), application.open_channel(MINE, 2)
    streams, other = [receiver_client.open(MINE, 1) for _ in range(3)], receiver_client.open(MINE, 2)
    texts = [b"{}", b" " * 4093, b"x" * 4092, b"y" * 70000, "{\"Größe\":1}".encode(), b"z" * MAX_MESSAGE]
    found = {stream: [] for stream in streams}

    def read(stream):
        for _ in texts:
            found[stream].append(stream.message())

    readers = [threading.Thread(target=read, args=(stream,)) for stream in streams]
    for thread in readers:
        thread.start()
    writer.send(*texts[:-1])
    # While a message of this length is in a queue, the queue has no room for others.
    wait_until(lambda: all(len(messages) == len(texts) - 1 for messages in found.values()), "the others are read")
    writer.send(texts[-1])
    for thread in readers:
        thread.join(BOUND_SECONDS)
    other_writer.send("other")

    assert list(found.values()) == [texts] * 3
    assert other.message() == b"other"


def test_messages_can_be_written_in_any_pieces(receiver, application, receiver_client):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    data = b"".join(map(message, [b"{}", b"", b"second"]))
    for place in range(len(data)):
        writer.write(data[place:place + 1])

    assert stream.messages(2) == [b"{}", b"second"]


def test_stream_gets_no_message_from_before_it_was_opened(receiver, application, receiver_client):
    application.register(MINE)
    writer = application.open_channel(MINE)
    for text in numbers(20000):
        writer.send(text)
    writer.send(*numbers(1000, 20000))
    # OpenChannel succeeds again when the receiver has read the closed channel to its end.
    writer.close()
    writer = application.open_channel(MINE)
    stream = receiver_client.open(MINE)
    assert not stream.has_something()

    writer.send(b'{"Number":-1}')
    assert stream.item() == {"Number": -1}


def test_closed_channel_can_be_opened_immediately_without_a_loss(receiver, application, receiver_client):
    application.register(MINE)
    stream = receiver_client.open(MINE)
    for number in range(200):
        writer = application.open_channel(MINE)
        writer.send(*numbers(3, 3 * number))
        writer.close()

    assert read_numbers(stream, 599) == list(range(600))


# Streams that are not read


def test_only_an_unread_stream_loses_messages(receiver, application, receiver_client):
    """The application never waits. The stream that is read gets all messages; the other one gets whole messages in
    order, the newest last."""
    application.register(MINE)
    writer, unread, read = application.open_channel(MINE), receiver_client.open(MINE), receiver_client.open(MINE)
    filling = b'"' + b"x" * 10000 + b'"}'
    count = 1000
    found = []

    def read_all():
        while len(found) < count:
            found.append(read.item()["Number"])

    thread = threading.Thread(target=read_all)
    thread.start()
    for number in range(count):
        writer.send(b'{"Number":%d,"Filling":%s' % (number, filling))
        wait_until(lambda sent=number: len(found) > sent - MOST_BEHIND, "the reader is close behind")
    thread.join(BOUND_SECONDS)

    assert found == list(range(count))
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    left = read_numbers(unread, count - 1)
    assert left == sorted(set(left))
    assert left[0] == 0
    assert 50 < len(left) <= MIB // 10000 + 5
    assert receiver.take_warnings(1) == [
        (WARNING, f"A stream of {MINE}, channel 1: is read again, {count - len(left)} messages were dropped")]
    writer.send(b'{"Number":-1}')
    assert unread.item()["Number"] == -1


def test_age_of_the_queue_of_an_unread_stream_is_limited(receiver, application, receiver_client):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    # Fills the pipe, so that all other messages are queued.
    writer.send(b"{" + b" " * 5000 + b'"Number":0}')
    began = time.monotonic()
    sent = {}
    number = 1
    while time.monotonic() - began < QUEUE_SECONDS * 2:
        sent[number] = time.monotonic()
        writer.send(b'{"Number":%d}' % number)
        number += 1
        time.sleep(0.01)
    now = time.monotonic()
    received = read_numbers(stream, number - 1)

    assert received[0] == 0
    assert received[1:] == list(range(received[1], number))
    assert now - sent[received[1]] <= QUEUE_SECONDS + 0.5
    assert now - sent[received[1]] >= QUEUE_SECONDS / 2
    assert len(receiver.take_warnings(2)) == 2


def test_newest_message_is_never_dropped(receiver, application, receiver_client):
    """At any length and any age."""
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    first, last = b"a" * MAX_MESSAGE, b"b" * MAX_MESSAGE
    writer.send(first, last)
    time.sleep(QUEUE_SECONDS + 0.2)

    assert stream.messages(2) == [first, last]
    assert receiver.take_warnings() == []


def test_messages_dropped_for_an_ended_stream_are_counted(receiver, application, receiver_client):
    application.register(MINE)
    writer, stream = application.open_channel(MINE), receiver_client.open(MINE)
    writer.send(*[b"x" * MAX_MESSAGE] * 5)
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    writer.wait_until_read()
    stream.close()

    assert receiver.take_warnings(1) == [
        (WARNING, f"A stream of {MINE}, channel 1: has ended, 3 messages were dropped")]


class NumbersReader(threading.Thread):
    """Reads the numbers of a stream's messages in large pieces, up to a last number."""

    def __init__(self, stream, last):
        super().__init__()
        self.stream = stream
        self.last = last
        self.numbers = []
        self.start()

    def run(self):
        data = b""
        while not self.numbers or self.numbers[-1] != self.last:
            data += self.stream.read_some(65536)
            begin = 0
            while len(data) - begin >= LENGTH.size:
                end = begin + LENGTH.size + LENGTH.unpack_from(data, begin)[0]
                if end > len(data):
                    break
                self.numbers.append(int(data[begin + LENGTH.size + len('{"Number":'):end - 1]))
                begin = end
            data = data[begin:]


def test_paced_messages(receiver, application, receiver_client):
    """Two streams get each message once and in order, while a third one is not read."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    readers = [NumbersReader(receiver_client.open(MINE), PACED_MESSAGES - 1) for _ in range(2)]
    unread = receiver_client.open(MINE)
    began = time.monotonic()
    for number, text in enumerate(numbers(PACED_MESSAGES)):
        ahead = began + number / PACED_RATE - time.monotonic()
        if ahead > 0.002:
            time.sleep(ahead)
        writer.send(text)
    for thread in readers:
        thread.join(BOUND_SECONDS)

    for thread in readers:
        assert thread.numbers == list(range(PACED_MESSAGES))
    assert receiver.take_warnings(1) == [not_read(MINE, 1)]
    unread.close()
    assert len(receiver.take_warnings(1)) == 1


# Limits


@needs_allocator
def test_channel_without_a_stream_takes_no_memory(receiver, application):
    """The receiver reads a hundred times what a pipe holds, and keeps none of it."""
    application.register(MINE)
    writer = application.open_channel(MINE)
    before = receiver.memory()
    for _ in range(100):
        writer.send(b"x" * 65536)
    writer.wait_until_read()

    assert receiver.memory() - before < 4 * MIB


@needs_allocator
def test_queues_of_unread_streams_share_their_messages(receiver, application, receiver_client):
    application.register(MINE)
    writer = application.open_channel(MINE)
    for _ in range(100):
        receiver_client.open(MINE)
    before = receiver.memory()
    for _ in range(300):
        writer.send(b"x" * 100000)
    writer.wait_until_read()

    assert receiver.memory() - before < 30 * MIB
    assert receiver.take_warnings(100) == [not_read(MINE, 1)] * 100
    for stream in receiver_client.streams:
        stream.close()
    assert len(receiver.take_warnings(100)) == 100


def test_streams_of_a_channel_are_bounded(receiver, application, receiver_client, bus):
    """A channel has twice as many streams as the daemon has clients."""
    application.register(MINE)
    enough_descriptors(MAX_CHANNEL_STREAMS + 200)
    for _ in range(MAX_CHANNEL_STREAMS):
        receiver_client.open(MINE)

    assert remote_refusal(receiver_client.request_stream, MINE) == "LimitExceeded"
    receiver_client.open(MINE, 2)
    receiver_client.streams[0].close()
    wait_until(lambda: can_open(receiver_client), "a place is free")


def can_open(receiver_client):
    try:
        receiver_client.open(MINE)
    except GLib.Error:
        return False
    return True

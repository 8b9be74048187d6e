# SPDX-License-Identifier: MIT
"""The streams of external producers: their requests, the arrival of messages, and bad streams, which do not affect
others."""

import itertools
import json
import os
import re
import threading

import pytest
from gi.repository import GLib

from daemon import ERROR, INFO, WARNING
from external import (ANALYTICS, ANALYTICS_AND_EVENTS, COUNTER, DETECTOR, EXTERNAL_PLUGINS, GATE, YARD, expect_alive,
                      expect_converter_warning, expect_frames, numbered, producer_frames, read_numbers)
from fakereceiver import Stream, message
from installation import EVENT_PLUGIN, SANITIZED, documented_limit
from receiverclient import LENGTH
from waiting import BOUND_SECONDS, wait_until

MAX_PAYLOAD_BYTES = documented_limit("externalsourcesocket.h", "EXTERNAL_SOURCE_MAX_PAYLOAD")

NO_DESCRIPTOR = (WARNING, "Failed to parse fd from variant: the reply holds no such descriptor\n")
NEGATIVE_DESCRIPTOR = "assertion 'consumer_fd > -1' failed"
NO_OBJECT = (WARNING, "tried to find a dbus object for producer which did not exist")
TOO_LONG = (ERROR, "Could not read request data from client socket: Message too long: Message too long")

# More than twice the capacity of all buffers from a producer to a client: the number of messages, their length, and the
# count of numbers in each.
FLOOD_MESSAGES, FLOOD_BYTES, FLOOD_NUMBERS = 1500, 25_000, 20

# The length of messages that a pipe and a socket accept in one piece, the count of numbers in each, and the number of
# pauses of the client. A socket splits data beyond some 36 KB, and the daemon may read between the parts. With a
# sanitizer a pause takes three times as long.
BURST_BYTES, BURST_NUMBERS, BURST_ROUNDS = 30_000, 300, 3 if SANITIZED else 8

# A stream that has accepted nothing for this time is full.
STUCK_SECONDS = 1

# The time for which an idle daemon is observed, and the share of a core that it may use meanwhile.
IDLE_SECONDS = 0.5
IDLE_SHARE = 0.5

# The daemon's memory for a client that does not read: its queue, data in conversion, and memory that allocators do not
# release.
RESIDENT_GROWTH_BYTES = 24 * 1024 * 1024


def stream_failed(text):
    return (INFO, f"handle_get_stream_fd failed: GDBus.Error:org.freedesktop.DBus.Error.Failed: {text}")


@pytest.fixture
def daemon(detector, counter, start_listing_daemon):
    return start_listing_daemon()


@pytest.fixture(params=["pipe", "socket"])
def kind_of_stream(request, detector):
    if request.param == "socket":
        detector.use_sockets()


def read_all_numbers(stream, count):
    """The numbers of `count` documents of a producer, which are too many to be parsed."""
    numbers = []
    while count > 0:
        found = [int(number) for number in re.findall(rb'<tt:Delete ObjectId="(\d+)"', stream.next_data())]
        numbers += found
        count -= bool(found)
    return numbers


# Requests for a stream


@pytest.mark.parametrize("text", ["No stream.", "", "100 %s%n"])
def test_failed_stream_affects_its_producer_alone(detector, counter, daemon, text):
    detector.on_stream = lambda call: call.fail(text)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))
        assert daemon.log.take(1) == [stream_failed(text)]

    daemon.wait_until_idle()


def test_failure_of_the_only_producer_leaves_an_empty_stream(detector, start_listing_daemon):
    detector.on_stream = lambda call: call.fail("No stream.")
    daemon = start_listing_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS))
    with daemon.client() as client:
        stream = client.start(ANALYTICS_AND_EVENTS)
        assert daemon.log.take(1) == [stream_failed("No stream.")]
        expect_alive(client, stream)

    daemon.wait_until_idle()


def reply_without_list(call):
    call.reply(GLib.Variant("(h)", (0,)))


def reply_with_wrong_index(index):
    def reply(call):
        read_fd, write_fd = os.pipe()
        call.reply(GLib.Variant("(h)", (index,)), [read_fd])
        os.close(read_fd)
        os.close(write_fd)

    return reply


def reply_with_wrong_type(body):
    def reply(call):
        with open("/dev/null", "rb") as file:
            call.reply(body, [file.fileno()])

    return reply


@pytest.mark.parametrize("answer", [
    pytest.param(reply_without_list, id="no list"),
    *[pytest.param(reply_with_wrong_index(index), id=f"index {index}") for index in (1, 2147483647, -1, -2147483648)],
    *[pytest.param(reply_with_wrong_type(body), id=str(body))
      for body in (None, GLib.Variant("(i)", (0,)), GLib.Variant("(hh)", (0, 0)), GLib.Variant("(s)", ("0",)))],
])
def test_reply_without_a_descriptor_affects_its_producer_alone(detector, counter, daemon, answer):
    detector.on_stream = answer
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))
        assert daemon.log.take(1) == [NO_DESCRIPTOR]
        wait_until(lambda: NEGATIVE_DESCRIPTOR in daemon.take_stderr(), "the warning is on standard error")

    daemon.wait_until_idle()


def reply_with_file(path, flags):
    def reply(call):
        fd = os.open(path, flags)
        call.reply(GLib.Variant("(h)", (0,)), [fd])
        os.close(fd)

    return reply


def reply_with_write_end(call):
    read_fd, write_fd = os.pipe()
    call.reply(GLib.Variant("(h)", (0,)), [write_fd])
    os.close(read_fd)
    os.close(write_fd)


def reply_with_event_counter(call):
    # Each read decrements the counter.
    fd = os.eventfd(2**32 - 1, os.EFD_SEMAPHORE)
    call.reply(GLib.Variant("(h)", (0,)), [fd])
    os.close(fd)


@pytest.mark.parametrize("answer, reason", [
    pytest.param(reply_with_file("/dev/zero", os.O_RDONLY), "it is a device", id="endless device"),
    pytest.param(reply_with_file("/dev/null", os.O_RDONLY), "it is a device", id="empty device"),
    pytest.param(reply_with_file("/dev/null", os.O_WRONLY), "it is not open for reading", id="write-only device"),
    pytest.param(reply_with_file("/", os.O_PATH), "it is not open for reading", id="path"),
    pytest.param(reply_with_write_end, "it is not open for reading", id="write end"),
    pytest.param(reply_with_event_counter, "it is neither a pipe nor a socket nor a file", id="event counter"),
])
def test_descriptor_that_is_no_stream_affects_its_producer_alone(detector, counter, daemon, answer, reason):
    detector.on_stream = answer
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))
        assert daemon.log.take(1) == [(WARNING, f'closed the stream of producer "{GATE}": {reason}')]
        assert daemon.processor_share(IDLE_SECONDS) < IDLE_SHARE
        counter.wait_for_stream().send(numbered(2))
        expect_frames(stream, (YARD, 2))

    daemon.wait_until_idle()


def test_folder_fails_when_it_is_read(detector, counter, daemon):
    detector.on_stream = reply_with_file("/", os.O_RDONLY)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))
        assert daemon.log.take(1) == [
            (ERROR, "Could not read request length from client socket: Is a directory: Is a directory"),
        ]

    daemon.wait_until_idle()


def test_file_is_read_to_its_end(detector, counter, daemon, tmp_path):
    path = tmp_path / "messages"
    path.write_bytes(message(numbered(1)) + message(numbered(2)))
    detector.on_stream = reply_with_file(path, os.O_RDONLY)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        expect_frames(stream, (GATE, 1), (GATE, 2))
        counter.wait_for_stream().send(numbered(3))
        expect_frames(stream, (YARD, 3))
        assert daemon.processor_share(IDLE_SECONDS) < IDLE_SHARE

    daemon.expect_idle_and_no_log()


def test_reply_selects_one_of_several_descriptors(detector, daemon):
    def reply(call):
        first_read, first_write = os.pipe()
        second_read, second_write = os.pipe()
        os.write(second_write, message(numbered(2)))
        call.reply(GLib.Variant("(h)", (1,)), [first_read, second_read])
        for fd in (first_read, first_write, second_read, second_write):
            os.close(fd)

    detector.on_stream = reply
    with daemon.client() as client:
        expect_frames(client.start(ANALYTICS), (GATE, 2))

    daemon.wait_until_idle()


def test_late_stream_joins_while_the_others_go_on(detector, counter, daemon):
    detector.on_stream = detector.keep
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))
        daemon.expect_reply()

        detector.give_stream(detector.kept.pop())
        detector.wait_for_stream().send(numbered(2))
        expect_frames(stream, (GATE, 2))

    daemon.expect_idle_and_no_log()


def test_descriptor_that_arrives_after_the_client_left_is_closed(detector, daemon):
    detector.on_stream = detector.keep
    with daemon.client() as client:
        client.start(ANALYTICS).next_document()
        wait_until(lambda: detector.kept, "a stream is requested")
    daemon.wait_until_idle()

    detector.give_stream(detector.kept.pop())
    wait_until(detector.wait_for_stream().is_closed, "the descriptor is closed")
    daemon.expect_idle_and_no_log()


def test_producer_whose_object_has_another_name_is_not_found(receiver, start_listing_daemon):
    odd = receiver.add(DETECTOR, element="odd")
    counter = receiver.add(COUNTER)
    daemon = start_listing_daemon()
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        assert daemon.log.take(1) == [NO_OBJECT]
        counter.wait_for_stream().send(numbered(1))
        expect_frames(stream, (YARD, 1))

    daemon.wait_until_idle()
    assert odd.streams == []


# Messages


def test_messages_in_pieces_are_delivered_whole(kind_of_stream, detector, counter, daemon):
    data = message(numbered(1, 2, 3)) + message(numbered(4))
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        pieces = detector.wait_for_stream()
        for number, byte in enumerate(data):
            pieces.write(bytes([byte]))
            pieces.wait_until_taken()
            if number % 4 == 0:
                # The daemon does not wait for the rest.
                daemon.expect_reply()
                counter.wait_for_stream().send(numbered(number))
        expected = [(GATE, [1, 2, 3]), (GATE, [4])]
        frames = list(itertools.islice(producer_frames(stream), len(expected) + len(range(0, len(data), 4))))

    assert [frame for frame in frames if frame[0] == GATE] == expected
    assert [numbers for source, numbers in frames if source == YARD] == [[n] for n in range(0, len(data), 4)]
    daemon.expect_idle_and_no_log()


@pytest.mark.parametrize("size", [65535, 65536, 200_000, 1_000_000])
def test_long_message_is_delivered_whole(kind_of_stream, detector, daemon, size):
    # Ids that show missing, repeated and misplaced parts over the whole length.
    items = [numbered(*range(start, start + 1000)) for start in range(10**15, 10**15 + size // 17000 * 1000, 1000)]
    payload = ",".join(items).ljust(size)
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        detector.wait_for_stream().send(payload, numbered(1))
        numbers = read_numbers(stream, GATE, 1000 * len(items) + 1)

    assert numbers == [*range(10**15, 10**15 + 1000 * len(items)), 1]
    daemon.wait_until_idle()


def test_empty_messages_are_ignored(kind_of_stream, detector, daemon):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        detector.wait_for_stream().send("", numbered(1), "", "", numbered(2))
        expect_frames(stream, (GATE, 1), (GATE, 2))

    assert daemon.log.take() == []


def test_nonblocking_descriptor_needs_whole_messages(kind_of_stream, detector, daemon):
    detector.nonblocking = True
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        feed = detector.wait_for_stream()
        feed.send(numbered(1), numbered(2, 3))
        expect_frames(stream, (GATE, 1), (GATE, 2, 3))

        # A message that is incomplete when its header is read is discarded.
        feed.write(LENGTH.pack(100) + b'{"Deleted":[666]}')
        feed.wait_until_taken()
        daemon.expect_reply()
        feed.send(numbered(4))
        expect_frames(stream, (GATE, 4))

    daemon.expect_idle_and_no_log()


def test_read_end_that_is_sent_again_is_read_in_the_same_mode(kind_of_stream, detector, daemon):
    read_fd, write_fd = detector.make_pair()
    detector.on_stream = lambda call: call.reply(GLib.Variant("(h)", (0,)), [read_fd])
    feed = Stream(write_fd, 1)
    for number in range(3):
        with daemon.client() as client:
            stream = client.start(ANALYTICS)
            data = message(numbered(number))
            feed.write(data[:10])
            feed.wait_until_taken()
            daemon.expect_reply()
            feed.write(data[10:])
            expect_frames(stream, (GATE, number))
            assert os.get_blocking(read_fd)
        daemon.wait_until_idle()
    os.close(read_fd)
    feed.close()
    assert daemon.log.take() == []


def test_stream_that_ends_in_a_message_drops_it(kind_of_stream, detector, counter, daemon):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        feed, other = detector.wait_for_stream(), counter.wait_for_stream()
        other.send(numbered(1))
        expect_frames(stream, (YARD, 1))
        feed.write(message(numbered(1)) + message(numbered(666))[:-1])
        expect_frames(stream, (GATE, 1))
        with_both = daemon.descriptors()
        feed.close()
        wait_until(lambda: daemon.descriptors() == with_both - 1, "the stream is closed")
        other.send(numbered(2))
        expect_frames(stream, (YARD, 2))

    daemon.expect_idle_and_no_log()


@pytest.mark.parametrize("length", [MAX_PAYLOAD_BYTES + 1, 2**31, 2**32 - 1])
def test_endless_message_ends_its_producer_alone(kind_of_stream, detector, counter, daemon, length):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        feed = detector.wait_for_stream()
        feed.write(message(numbered(1)) + LENGTH.pack(length) + b"{" * 1000)
        expect_frames(stream, (GATE, 1))
        assert daemon.log.take(1) == [TOO_LONG]
        wait_until(feed.is_closed, "the stream is closed")
        counter.wait_for_stream().send(numbered(2))
        expect_frames(stream, (YARD, 2))

    daemon.wait_until_idle()


def test_announced_length_takes_no_memory_of_its_own(detector, daemon):
    with daemon.client() as client:
        client.start(ANALYTICS).next_document()
        before = daemon.resident_bytes()
        detector.wait_for_stream().write(LENGTH.pack(MAX_PAYLOAD_BYTES))
        detector.wait_for_stream().wait_until_taken()
        daemon.expect_reply()
        assert daemon.resident_bytes() < before + MAX_PAYLOAD_BYTES / 4

    daemon.wait_until_idle()


# Ends of streams


def test_stream_that_ends_does_not_affect_others(kind_of_stream, detector, counter, daemon):
    with daemon.client() as client, daemon.client() as other:
        stream = client.start(ANALYTICS)
        first = detector.wait_for_stream()
        counter.wait_for_stream()
        others = other.start(ANALYTICS)
        second = detector.wait_for_stream(2)
        first.send(numbered(1))
        second.send(numbered(1))
        expect_frames(stream, (GATE, 1))
        expect_frames(others, (GATE, 1))
        counter.wait_for_stream(2)
        for each, its_client in zip(counter.streams, (stream, others)):
            each.send(numbered(2))
            expect_frames(its_client, (YARD, 2))
        with_all = daemon.descriptors()
        first.close()
        wait_until(lambda: daemon.descriptors() == with_all - 1, "the one stream is closed")

        second.send(numbered(2))
        expect_frames(others, (GATE, 2))
        for each, its_client in zip(counter.streams, (stream, others)):
            each.send(numbered(3))
            expect_frames(its_client, (YARD, 3))

    daemon.expect_idle_and_no_log()


def test_end_of_the_last_producers_stream_does_not_end_the_clients(kind_of_stream, detector, start_listing_daemon):
    daemon = start_listing_daemon(plugins=(EVENT_PLUGIN, *EXTERNAL_PLUGINS))
    with daemon.client() as client:
        stream = client.start(ANALYTICS_AND_EVENTS)
        detector.wait_for_stream().send(numbered(1))
        expect_frames(stream, (GATE, 1))
        with_it = daemon.descriptors()
        detector.streams[0].close()
        wait_until(lambda: daemon.descriptors() == with_it - 1, "the stream is closed")
        expect_alive(client, stream)

    daemon.expect_idle_and_no_log()


def test_client_that_leaves_closes_its_streams(kind_of_stream, detector, counter, daemon):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        detector.wait_for_stream().send(numbered(1))
        expect_frames(stream, (GATE, 1))

    wait_until(detector.streams[0].is_closed, "the detector's stream is closed")
    wait_until(counter.wait_for_stream().is_closed, "the counter's stream is closed")
    daemon.wait_until_idle()


# Hostile messages

BOX = {"Left": -0.5, "Top": 0.5, "Right": 0.5, "Bottom": -0.5}


def of_type(text, **options):
    """An item with one object of that type."""
    return json.dumps({"Objects": [{"Id": 1, "BoundingBox": BOX, "Type": text, "Likelihood": 1}]}, **options)


@pytest.mark.parametrize("payload", [
    b"no JSON",
    b"{",
    b"}" * 100,
    b"]}}",
    b'{"Deleted":[666]}]}}{"Source":"x","Data":{"Item":[{"Deleted":[666]}',
    b'{"Deleted":[666]}]},"Source":"x"},{"Data":{"Item":[{}',
    b"\xff\xfe\x00\x80",
    b'{"Deleted":["\xff"]}',
    b"\0" * 1000,
    b"[" * 100_000,
    b'{"a":' * 10_000,
    b'"' + b"\\" * 1001,
    pytest.param(b" " * 2_000_000, id="too long"),
    pytest.param(",".join(["{}"] * 65).encode(), id="many items"),
    numbered(*range(1025)).encode(),
], ids=lambda payload: repr(payload[:40]))
def test_malformed_message_is_left_out(detector, counter, daemon, payload):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        feed = detector.wait_for_stream()
        for number in range(3):
            feed.send(payload, numbered(number))
            expect_frames(stream, (GATE, number))
        counter.wait_for_stream().send(numbered(3))
        expect_frames(stream, (YARD, 3))

    daemon.wait_until_idle()
    expect_converter_warning(daemon)


@pytest.mark.parametrize("text", ["<a href='x'>&amp;</a>", "</tt:Type></tt:Class>", "]]>", "<!-- --", "&#0;&lol;",
                                  "%s%n", "\u202e\ufffe", "\U0001f4f7"], ids=repr)
def test_markup_arrives_as_text(detector, daemon, text):
    with daemon.client() as client:
        stream = client.start_reading(ANALYTICS)
        detector.wait_for_stream().send(of_type(text, ensure_ascii=False))
        (frame,) = stream.next_document().frames

    assert frame.objects["1"].type == text.replace("\ufffe", "\ufffd")


@pytest.mark.parametrize("character, is_malformed", [("\0", True), ("\x01", True), ("\x1f", True), ("\ud800", True),
                                                     ("\uffff", False)])
def test_characters_outside_xml_break_no_document(detector, daemon, character, is_malformed):
    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        # As a JSON escape.
        detector.wait_for_stream().send(of_type(f"a{character}b"), numbered(1))
        for frame in stream.frames():
            if frame.deleted == ["1"]:
                break

    if is_malformed:
        expect_converter_warning(daemon)


# Clients that do not read


@pytest.fixture(scope="module")
def flood():
    return b"".join(message(numbered(*range(FLOOD_NUMBERS * number, FLOOD_NUMBERS * (number + 1))).ljust(FLOOD_BYTES))
                    for number in range(FLOOD_MESSAGES))


def test_client_that_does_not_read_slows_down_its_own_streams_alone(kind_of_stream, detector, start_listing_daemon,
                                                                        flood):
    daemon = start_listing_daemon(sanitizer_options="quarantine_size_mb=1")
    with daemon.client() as stuck, daemon.client() as reader:
        assert stuck.request(ANALYTICS) == "OK"
        slow = detector.wait_for_stream()
        before = daemon.resident_bytes()
        taken = slow.write_until_full(flood, STUCK_SECONDS)
        assert 0 < taken < len(flood) / 2, "the producer is slowed down"
        assert daemon.resident_bytes() - before < RESIDENT_GROWTH_BYTES

        # The same producer's stream to another client is not slowed down.
        stream = reader.start(ANALYTICS)
        fast = detector.wait_for_stream(2)
        received = []
        for number in range(20):
            fast.send(numbered(number))
            received += read_numbers(stream, GATE, 1)
        assert received == list(range(20))

        rest = threading.Thread(target=slow.write, args=(flood[taken:],))
        rest.start()
        numbers = read_all_numbers(stuck.open_stream(), FLOOD_MESSAGES)
        rest.join(BOUND_SECONDS)
        assert numbers == list(range(FLOOD_NUMBERS * FLOOD_MESSAGES))

    daemon.expect_idle_and_no_log()


def is_taken(feed, daemon):
    """Whether the daemon reads all written data. If it is idle before, all buffers after it are full."""
    wait_until(lambda: feed.unread() == 0 or daemon.is_idle_for(STUCK_SECONDS / 2), "the daemon reads it or is idle")
    return feed.unread() == 0


def test_client_that_reads_in_bursts_loses_nothing_of_a_nonblocking_stream(kind_of_stream, detector, daemon):
    detector.nonblocking = True
    count = itertools.count()
    received = []

    def next_message():
        number = next(count) * BURST_NUMBERS
        return message(numbered(*range(number, number + BURST_NUMBERS)).ljust(BURST_BYTES))

    with daemon.client() as client:
        stream = client.start(ANALYTICS)
        stream.read_no_further_than(1)
        feed = detector.wait_for_stream()
        for _ in range(BURST_ROUNDS):
            # While the daemon reads, each message is there as a whole. Unread data shows that it has paused.
            feed.write(next_message())
            while is_taken(feed, daemon):
                feed.write(next_message())

            rest = b""
            while not rest:
                data = next_message()
                rest = data[feed.write_until_full(data, 0):]
            writer = threading.Thread(target=feed.write, args=(rest,))
            writer.start()
            while writer.is_alive():
                received += read_all_numbers(stream, 1)
        sent = next(count)
        received += read_all_numbers(stream, sent - len(received) // BURST_NUMBERS)

    assert received == list(range(sent * BURST_NUMBERS))
    daemon.expect_idle_and_no_log()


def test_client_that_never_reads_ends_with_its_connection(kind_of_stream, detector, daemon, flood):
    with daemon.client() as stuck:
        assert stuck.request(ANALYTICS) == "OK"
        slow = detector.wait_for_stream()
        slow.write_until_full(flood, STUCK_SECONDS)

    wait_until(slow.is_closed, "the producer's stream is closed")
    daemon.wait_until_idle()


def test_stream_that_ends_before_its_client_reads_loses_nothing(kind_of_stream, detector, daemon, flood):
    with daemon.client() as stuck:
        assert stuck.request(ANALYTICS) == "OK"
        slow = detector.wait_for_stream()
        whole = slow.write_until_full(flood, STUCK_SECONDS) // len(message(" " * FLOOD_BYTES))
        slow.close()
        numbers = read_all_numbers(stuck.open_stream(), whole)

    assert numbers == list(range(FLOOD_NUMBERS * whole))
    daemon.wait_until_idle()

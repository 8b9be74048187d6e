# SPDX-License-Identifier: MIT
"""The stream after "OK": documents, sync points, and the end."""

import itertools
import os
import select
import subprocess
import time

import pytest
from lxml import etree

from client import StreamEnded
from daemon import EARLY_SYNC_WARNING
from documents import CHANGED, DIGITAL_INPUT, INITIALIZED, LINE_CROSSED, MOTION_ALARM, Document, now, validate
from waiting import BOUND_SECONDS

# The time limit of the first document.
FIRST_DOCUMENT_SECONDS = 1

END_OF_DOCUMENT = b"</tt:MetadataStream>"

# The states of the simulated camera.
STATES = {
    (DIGITAL_INPUT, "DigitalInput_1"),
    (DIGITAL_INPUT, "DigitalInput_2"),
    (MOTION_ALARM, "VideoSource_1"),
}

ALL_TOPICS = {DIGITAL_INPUT, MOTION_ALARM, LINE_CROSSED}


def state_of(event):
    return event.topic, *event.source.values()


def expect_states_after(request, stream):
    """Requests a sync point, and expects each state with a later time."""
    began = now()
    request()
    expect_states_since(stream, began)


def expect_states_since(stream, began):
    """Reads until each state has been reported with a time at or after `began`."""
    shown = set()
    for event in stream.events():
        if event.operation == INITIALIZED and event.time >= began:
            shown.add(state_of(event))
        if shown == STATES:
            break


# Documents


def test_first_document_comes_within_a_second(daemon):
    began = time.monotonic()
    daemon.expect_stream()

    assert time.monotonic() - began <= FIRST_DOCUMENT_SECONDS


def test_first_document_shows_every_state(daemon):
    began = now()
    with daemon.client() as client:
        events = client.start().next_document().events

    assert {state_of(event) for event in events} == STATES
    assert {event.operation for event in events} == {INITIALIZED}
    assert all(began <= event.time <= now() for event in events)


def test_later_documents_show_changes(fast_daemon):
    with fast_daemon.client() as client:
        stream = client.start_reading()
        events = list(itertools.islice(stream.events(), 100))

    assert {event.topic for event in events} == ALL_TOPICS
    for event in events:
        assert event.operation == (None if event.topic == LINE_CROSSED else CHANGED)


def test_states_change_to_the_other_value_each_time(fast_daemon):
    values = {}
    with fast_daemon.client() as client:
        stream = client.start()
        for event in itertools.islice(stream.events(), 100):
            if event.topic != LINE_CROSSED:
                values.setdefault(state_of(event), []).extend(event.data.values())

    assert set(values) == STATES
    for series in values.values():
        assert all(before != after for before, after in zip(series, series[1:]))


def test_documents_are_valid(schema, fast_daemon):
    topics = set()
    with fast_daemon.client() as client:
        for document in client.start().documents():
            assert schema.validate(document.root), schema.error_log
            topics |= {event.topic for event in document.events}
            if topics == ALL_TOPICS:
                break


def test_schemas_refuse_what_is_not_valid(schema):
    wrong = etree.fromstring('<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema"><tt:VideoAnalytics>'
                             '<tt:Frame UtcTime="today"/></tt:VideoAnalytics></tt:MetadataStream>')

    with pytest.raises(etree.DocumentInvalid):
        validate(wrong)


def depayload_with_gst_launch(client, environment):
    return subprocess.Popen(["gst-launch-1.0", "--quiet", "fdsrc", "!", "gdpdepay", "!", "fdsink"],
                            stdin=client.socket, stdout=subprocess.PIPE, env=os.environ | environment)


def read_some(pipe, deadline):
    assert select.select([pipe], [], [], deadline - time.monotonic())[0], "no data in time"
    return os.read(pipe.fileno(), 65536)


def test_independent_program_reads_the_stream(installation, fast_daemon):
    deadline = time.monotonic() + BOUND_SECONDS
    with fast_daemon.client() as client:
        assert client.request("event=1\n") == "OK"
        with depayload_with_gst_launch(client, installation.plugin_environment([])) as program:
            received = b""
            while received.count(END_OF_DOCUMENT) < 20:
                received += read_some(program.stdout, deadline)
            client.close_writing()
            while rest := read_some(program.stdout, deadline):
                received += rest

            assert program.wait(BOUND_SECONDS) == 0

    *documents, rest = received.split(END_OF_DOCUMENT)
    assert rest == b""
    assert all(Document(document + END_OF_DOCUMENT).events for document in documents)


# Sync points


def test_sync_shows_every_state_again(daemon):
    with daemon.client() as client:
        stream = client.start_reading()
        for _ in range(3):
            expect_states_after(client.sync, stream)


def test_sync_right_after_the_reply_is_never_lost(daemon):
    for _ in range(100):
        with daemon.client() as client:
            assert client.request("event=1\n") == "OK"
            requested = now()
            client.sync()

            expect_states_since(client.open_stream(), requested)


def test_sync_sent_with_the_request_reaches_the_stream(daemon):
    daemon.allow_on_stderr(EARLY_SYNC_WARNING)
    for _ in range(100):
        with daemon.client() as client:
            client.send(b"OPEN\nevent=1\n\nSYNC\n")
            assert client.read_reply() == b"OK"
            stream = client.open_stream()
            stream.next_document()

            # An early sync point may be refused, without an effect on the stream.
            expect_states_after(client.sync, stream)


@pytest.mark.parametrize("split", range(1, 5))
def test_sync_that_begins_in_the_packet_of_the_request(daemon, split):
    first, second = b"SYNC\n"[:split], b"SYNC\n"[split:]
    with daemon.client() as client:
        client.send(b"OPEN\nevent=1\n\n" + first)
        assert client.read_reply() == b"OK"
        stream = client.open_stream()
        stream.next_document()

        expect_states_after(lambda: client.send(second), stream)


@pytest.mark.parametrize("split", range(1, 5))
def test_sync_in_two_pieces(daemon, split):
    first, second = b"SYNC\n"[:split], b"SYNC\n"[split:]
    with daemon.client() as client, daemon.client() as other:
        stream = client.start_reading()
        client.send(first)
        # The daemon has read the first piece when another client has its document.
        other.start().next_document()

        expect_states_after(lambda: client.send(second), stream)


@pytest.mark.parametrize("text", [b"sync\n", b"SYNC \n", b" SYNC\n", b"SYNC\r\n", b"SYNCSYNC\n", b"\n", b"SYN\n",
                                  b"OPEN\nevent=1\n\n", b"SYNC", "SYNCé\u2029SYNC\n".encode(),
                                  pytest.param(b"x" * 10000 + b"\n", id="long")])
def test_other_lines_are_ignored(fast_daemon, text):
    with fast_daemon.client() as client:
        stream = client.start_reading()
        client.send(text)
        first = next(event for event in stream.events() if event.operation)
        assert first.operation == CHANGED

        # The rest of the line makes no sync point of it either.
        expect_states_after(lambda: client.send(b"x\nSYNC\n"), stream)


def test_every_sync_in_one_write_counts_once(daemon):
    with daemon.client() as client:
        # No topic has this name, so only sync points yield documents.
        stream = client.start("event=1\nevent_topic=tns1:Nothing\n")
        assert stream.next_document().events == []
        client.send(b"SYNC\nother\nSYNC\n")

        assert stream.next_document().events == []


def test_filter_without_matches_sends_sync_documents_alone(fast_daemon):
    with fast_daemon.client() as client, fast_daemon.client() as other:
        stream = client.start_reading("event=1\nevent_topic=tns1:Nothing\n")
        talking = other.start()
        for _ in itertools.islice(talking.events(), 20):
            pass
        client.close_writing()

        with pytest.raises(StreamEnded):
            stream.next_document()


# Ends


@pytest.mark.parametrize("text", [b"\xff", b"SYNC\n\xff", b"\x80\n", b"\xc0\x80\n", b"\xed\xa0\x80\n", b"\xc3\n",
                                  b"\xf4\x90\x80\x80"])
def test_input_that_is_no_utf8_ends_the_stream(daemon, text):
    with daemon.client() as client:
        stream = client.start_reading()
        client.send(text)

        stream.read_to_end()


@pytest.mark.parametrize("text", ["SYNCé\n".encode(), "\u2029\n".encode(), "\U0001f4f7\n".encode()])
def test_input_that_is_utf8_in_pieces_goes_on(daemon, text):
    with daemon.client() as client:
        stream = client.start_reading()
        for byte in text:
            client.send(bytes([byte]))

        expect_states_after(client.sync, stream)


def test_half_close_ends_the_stream(daemon):
    with daemon.client() as client:
        stream = client.start_reading()
        client.close_writing()

        stream.read_to_end()


def test_half_close_with_a_piece_of_a_line_ends_the_stream(daemon):
    with daemon.client() as client:
        stream = client.start_reading()
        client.send(b"SYNC")
        client.close_writing()

        stream.read_to_end()


def test_hang_up_releases_all_resources(daemon):
    daemon.expect_stream()
    daemon.wait_until_idle()

    with daemon.client() as client:
        client.start().next_document()
        assert daemon.descriptors() > daemon.idle_descriptors

    daemon.expect_idle_and_no_log()

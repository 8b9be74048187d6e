# SPDX-License-Identifier: MIT
"""Requests and replies, byte for byte."""

import pytest

from daemon import ERROR, NOTHING_REQUESTED, NOT_PRODUCED, WARNING
from documents import INITIALIZED
from installation import EVENT_PLUGIN, EVENT_PLUGINS, documented_limit

MAX_REQUEST_BYTES = documented_limit("server.h", "SERVER_MAX_REQUEST_BYTES")

GDP_VERSION = b"\x01\x00"

NO_REQUEST = b"FAIL\nCould not read request from client socket: "
NO_HEADER = b"FAIL\nCould not read request header from socket: "
NOTHING = NOTHING_REQUESTED.encode()
TOO_LONG = b"Request longer than %d bytes" % MAX_REQUEST_BYTES

PARAGRAPH_SEPARATOR = "\u2029".encode()


def unknown(line, length):
    return b"FAIL\nUnknown: request: " + line + b" (%d)" % length


def unparsable(line):
    return b"FAIL\nUnable to parse header line: " + line + b"."


def wrong_event(value):
    return f"Invalid value of 'event' parameter: '{value}'."


def exchange(daemon, request, then=None):
    """Sends the request, calls `then`, and returns all that the daemon sends until it closes the connection."""
    with daemon.client() as client:
        client.send(request)
        if then is not None:
            then(client)
        return client.read_to_end()


def close_writing(client):
    client.close_writing()


@pytest.mark.parametrize("request_bytes, reply", [
    (b"OPEN\r\n", unknown(b"OPEN\r\n", 6)),
    (b"OPEN\r\n\n", unknown(b"OPEN\r\n", 6)),
    (b"open\n", unknown(b"open\n", 5)),
    (b"OPEN \n", unknown(b"OPEN \n", 6)),
    (b" OPEN\n", unknown(b" OPEN\n", 6)),
    (b"OPENOPEN\n\n", unknown(b"OPENOPEN\n", 9)),
    (b"\n", unknown(b"\n", 1)),
    (b"OPEN\rx", unknown(b"OPEN\r", 5)),
    (b"OPEN\0", unknown(b"OPEN", 5)),
    (b"OPEN\0\n", unknown(b"OPEN", 5)),
    (b"OPEN" + PARAGRAPH_SEPARATOR + b"\n", unknown(b"OPEN" + PARAGRAPH_SEPARATOR, 7)),
    (b"\xff\xfe%s%n\n", unknown(b"\xff\xfe%s%n\n", 7)),
    (b"SYNC\n", unknown(b"SYNC\n", 5)),
])
def test_malformed_first_line(daemon, request_bytes, reply):
    assert exchange(daemon, request_bytes) == reply + b"\0"


@pytest.mark.parametrize("request_bytes, reply", [
    (b"", NO_REQUEST),
    (b"OPEN", unknown(b"OPEN", 4)),
    (b"OPEN\r", unknown(b"OPEN\r", 5)),
    (b"OPEN\n", NO_HEADER),
    (b"OPEN\nevent=1", NO_HEADER),
    (b"OPEN\nevent=1\n", NO_HEADER),
    (b"OPEN\nno value", unparsable(b"no value")),
])
def test_request_that_ends_too_early(daemon, request_bytes, reply):
    assert exchange(daemon, request_bytes, close_writing) == reply + b"\0"


@pytest.mark.parametrize("request_bytes, reply", [
    (b"OPEN\n\r\n", unparsable(b"")),
    (b"OPEN\n\r\n\n", unparsable(b"")),
    (b"OPEN\nno value\n", unparsable(b"no value")),
    (b"OPEN\nno value\r\n", unparsable(b"no value")),
    (b"OPEN\nno value \t \n", unparsable(b"no value \t ")),
    (b"OPEN\n  \n", unparsable(b"  ")),
    (b"OPEN\n\0\n", unparsable(b"")),
    (b"OPEN\na=b\r\r\n\n", unparsable(b"")),
    (b"OPEN\na=b\0c\n\n", unparsable(b"c")),
    (b"OPEN\nevent=1\nOPEN\n\n", unparsable(b"OPEN")),
    (b"OPEN\n\xff%s\n", unparsable(b"\xff%s")),
])
def test_malformed_header_line(daemon, request_bytes, reply):
    assert exchange(daemon, request_bytes) == reply + b"\0"


@pytest.mark.parametrize("header", [
    b"",
    b"event=0\n",
    b"=\n",
    b"=1\n",
    b"a=b=c\n",
    b"a=\n",
    b"event =1\n",
    b" event=1\n",
    b"EVENT=1\n",
    b"event=1\nevent=0\n",
    b"event=true\nevent=0\n",
    b"event=0\r\n",
    b"event=0\0",
    b"event=1" + PARAGRAPH_SEPARATOR + b"event=0\n",
    b"event=1\revent=0\n",
    b"event=1\0event=0\n",
    b"event_topic=tns1:Device//.\n",
    b"event=0\nevent_topic=|||\nevent_content=(((\n",
    b"\xff=\xfe\n",
])
def test_nothing_requested(daemon, header):
    assert exchange(daemon, b"OPEN\n" + header + b"\n") == NOTHING + b"\0"


@pytest.mark.parametrize("header", [
    "event=1\n",
    "event=1\t  \n",
    "event=1\r\n",
    "event=1\0",
    "event=1\u2029",
    "a=b\revent=1\n",
    "event=0\nevent=1\n",
    "event=true\nevent=1\n",
    "analytics=0\nunknown=key\nevent=1\nptz=\n",
])
def test_events_requested(daemon, header):
    with daemon.client() as client:
        stream = client.start(header)

        assert stream.next_document().events[0].operation == INITIALIZED


@pytest.mark.parametrize("line, value", [
    (b"event=true", "true"),
    (b"event=01", "01"),
    (b"event=", ""),
    (b"event= 1", " 1"),
    (b"event=1=1", "1=1"),
    (b"event=2  ", "2"),
    (b"event=%s%n", "%s%n"),
])
def test_wrong_event_value(daemon, line, value):
    reply = exchange(daemon, b"OPEN\n" + line + b"\n\n")

    assert reply == f"FAIL\nUnable to create source: {wrong_event(value)}.\0".encode()
    assert daemon.log.take() == [(WARNING, wrong_event(value))]


def test_ok_precedes_the_stream(daemon):
    with daemon.client() as client:
        client.send(b"OPEN\nevent=1\n\n")
        received = client.read_exactly(len(b"OK\0" + GDP_VERSION))

    assert received == b"OK\0" + GDP_VERSION


def test_request_in_single_bytes(daemon):
    with daemon.client() as client:
        for byte in b"OPEN\nevent=1\n\n":
            client.send(bytes([byte]))

        assert client.read_reply() == b"OK"


def header_of_length(length):
    frame = len("OPEN\na=\n\n")
    return b"OPEN\na=" + b"x" * (length - frame) + b"\n\n"


def test_longest_request(daemon):
    assert exchange(daemon, header_of_length(MAX_REQUEST_BYTES)) == NOTHING + b"\0"


@pytest.mark.parametrize("request_bytes, reply", [
    (header_of_length(MAX_REQUEST_BYTES + 1), NO_HEADER + TOO_LONG),
    (b"OPEN\n" + b"a=b\n" * (MAX_REQUEST_BYTES // 4), NO_HEADER + TOO_LONG),
    (b"x" * (MAX_REQUEST_BYTES + 1), NO_REQUEST + TOO_LONG),
], ids=["one line", "many lines", "first line"])
def test_request_too_long(daemon, request_bytes, reply):
    assert exchange(daemon, request_bytes) == reply + b"\0"


def test_request_without_end(daemon):
    with daemon.client() as client:
        with pytest.raises(BrokenPipeError):
            while True:
                client.send(b"x" * MAX_REQUEST_BYTES)

        assert client.read_to_end() == NO_REQUEST + TOO_LONG + b"\0"


@pytest.mark.parametrize("request_bytes", [b"", b"O", b"OPEN\n", b"OPEN\nevent=1", b"OPEN\n\n", b"wrong\n",
                                           b"OPEN\nevent=1\n\n"])
def test_client_that_does_not_wait_for_its_reply(daemon, request_bytes):
    for _ in range(20):
        with daemon.client() as client:
            client.send(request_bytes)

    daemon.expect_reply()


def test_element_that_is_missing(start_daemon):
    daemon = start_daemon(plugins=[EVENT_PLUGIN])

    assert exchange(daemon, b"OPEN\nevent=1\n\n") == NOT_PRODUCED.encode() + b"\0"
    assert daemon.log.take() == [(ERROR, "Could not create onvifxmlmetadatastreamdoc.")]


def test_source_that_is_removed_after_the_start(installation, start_daemon):
    folder, environment = installation.new_plugin_folder(EVENT_PLUGINS)
    # The first start registers the plug-in, which the second one need not load.
    start_daemon(environment=environment).end()
    daemon = start_daemon(environment=environment)
    (folder / installation.plugins[EVENT_PLUGIN].name).unlink()

    reply = exchange(daemon, b"OPEN\nevent=1\n\n")

    assert reply == b"FAIL\nUnable to create source: Could not construct onvifeventsrc..\0"
    assert daemon.log.take() == [(WARNING, "Could not construct onvifeventsrc.")]

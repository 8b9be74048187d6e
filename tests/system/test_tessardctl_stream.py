# SPDX-License-Identifier: MIT
"""tessardctl stream: the end of a stream, sync points and malformed streams, with a fake daemon."""

import errno
import fcntl
import os
import re
import select
import signal
import struct
import subprocess
import termios

import pytest

from fakedaemon import DOCUMENTS, GDP_HEADER_BYTES, GDP_LENGTH, LINES, MAX_DOCUMENT_BYTES, GdpStream, metadata
from tessardctl import ENDED, ENDED_TEXT, MALFORMED, SUCCESS, TIMED_OUT, failure, read_lines
from waiting import BOUND_SECONDS, wait_until

PIPE_BUF = select.PIPE_BUF

MALFORMED_STREAM = re.compile(rb"tessardctl: The daemon's stream is malformed: [^\n]+\n")


def bytes_in_pipe(fd):
    return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, b"\0" * 4))[0]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_while_streaming(open_stream, gdp, number):
    client, connection = open_stream("--event", "--count", "9")
    connection.send(gdp.document(DOCUMENTS[0]))
    assert read_lines(client.out, 1) == LINES[:1]
    assert client.end_by(number) == (SUCCESS, b"", b"")
    assert connection.read_to_end() == b""


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_before_the_reply(start_stream, fake_daemon, number):
    client = start_stream("--event")
    connection = fake_daemon.accept_request()
    assert client.end_by(number) == (SUCCESS, b"", b"")
    assert connection.read_to_end() == b""


def test_signal_while_the_request_is_stuck(start_stream, fake_daemon):
    client = start_stream("--event-topic", "\x01" * 120000, "--event-content", "\x01" * 120000)
    connection = fake_daemon.accept()
    assert connection.read(1) == b"O"
    assert client.end_by().status == SUCCESS


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("options", [[], ["--pretty"]])
def test_signal_while_the_reader_is_stuck(open_stream, gdp, number, options):
    client, connection = open_stream("--event", *options)
    fill_output(client, connection, gdp)
    client.kill(number)
    assert client.process.wait(BOUND_SECONDS) == SUCCESS


def test_time_out_while_the_reader_is_stuck(start_stream, fake_daemon, gdp):
    client = start_stream("--event", "--timeout", "2")
    fill_output(client, fake_daemon.accept_stream(), gdp)
    assert client.process.wait(BOUND_SECONDS) == SUCCESS


def test_reader_that_leaves_while_stuck(start_stream, fake_daemon, gdp):
    client = start_stream("--event")
    fill_output(client, fake_daemon.accept_stream(), gdp)
    client.process.stdout.close()
    assert client.process.wait(BOUND_SECONDS) == SUCCESS
    assert client.process.stderr.read() == b""


def fill_output(client, connection, gdp):
    """Sends a document that is larger than the output's pipe and waits until the pipe is full."""
    size = fcntl.fcntl(client.out, fcntl.F_GETPIPE_SZ)
    document = metadata("x" * (size + PIPE_BUF))
    connection.send(gdp.document(document))
    wait_until(lambda: bytes_in_pipe(client.out) > size - PIPE_BUF, "the output's pipe is full")


def test_pipe_into_head(fake_daemon, gdp):
    process = subprocess.Popen(
        ["bash", "-c", '"$TESSARDCTL" stream --event --socket "$0" | head -1; exit ${PIPESTATUS[0]}',
         fake_daemon.path], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    fake_daemon.accept_stream().send(b"".join(map(gdp.document, DOCUMENTS)))
    out, err = process.communicate(timeout=BOUND_SECONDS)
    assert (process.returncode, out, err) == (SUCCESS, LINES[0], b"")


def test_reader_that_leaves_between_two_documents(open_stream, gdp):
    client, connection = open_stream("--event")
    connection.send(gdp.document(DOCUMENTS[0]))
    read_lines(client.out, 1)
    client.process.stdout.close()
    assert client.process.wait(BOUND_SECONDS) == SUCCESS
    assert client.process.stderr.read() == b""
    assert connection.read_to_end() == b""


def test_file_whose_reader_leaves(start_stream, fake_daemon, gdp, tmp_path):
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    client = start_stream("--event", "--output", fifo)
    reader = os.open(fifo, os.O_RDONLY)
    fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
    assert read_lines(reader, 1) == LINES[:1]
    os.close(reader)
    assert client.finish() == (SUCCESS, b"", b"")


@pytest.mark.parametrize("documents", [0, 2])
@pytest.mark.parametrize("options", [[], ["--count", "5"]])
def test_daemon_hangs_up(open_stream, gdp, documents, options):
    client, connection = open_stream("--event", *options)
    connection.send(b"".join(map(gdp.document, DOCUMENTS[:documents])))
    connection.close()
    assert client.finish() == (ENDED, b"".join(LINES[:documents]), ENDED_TEXT)


def test_time_out_before_the_reply(start_stream, fake_daemon):
    client = start_stream("--event", "--timeout", "0.5")
    connection = fake_daemon.accept_request()
    assert client.finish() == failure(TIMED_OUT, "No reply within 0.5 seconds.")
    assert connection.read_to_end() == b""


def test_time_out_ends_a_stream_without_count(open_stream, gdp):
    client, connection = open_stream("--event", "--timeout", "2")
    connection.send(gdp.document(DOCUMENTS[0]))
    assert client.finish() == (SUCCESS, LINES[0], b"")


def test_time_out_before_the_count(open_stream, gdp):
    client, connection = open_stream("--event", "--timeout", "2", "--count", "3")
    connection.send(b"".join(map(gdp.document, DOCUMENTS[:2])))
    assert client.finish() == (TIMED_OUT, b"".join(LINES[:2]), b"tessardctl: 2 of 3 documents within 2 seconds.\n")


# Sync points


def test_one_sync_point_is_requested_when_the_stream_has_started(open_stream, gdp):
    client, connection = open_stream("--event", "--sync")
    connection.sock.setblocking(False)
    with pytest.raises(BlockingIOError):
        connection.sock.recv(1)
    connection.sock.settimeout(BOUND_SECONDS)
    for document in DOCUMENTS:
        connection.send(gdp.document(document))
    assert connection.read(5) == b"SYNC\n"
    read_lines(client.out, 3)
    assert client.end_by().status == SUCCESS
    assert connection.read_to_end() == b""


def test_without_the_option_no_sync_point_is_requested(open_stream, gdp):
    client, connection = open_stream("--event", "--count", "2")
    connection.send(b"".join(map(gdp.document, DOCUMENTS)))
    assert client.finish().status == SUCCESS
    assert read_after_hang_up(connection) == b""


def test_daemon_that_closes_with_an_unread_sync_request(open_stream, gdp):
    client, connection = open_stream("--event", "--sync")
    connection.send(gdp.document(DOCUMENTS[0]))
    wait_until(lambda: bytes_in_pipe(connection.sock) == 5, "the client requests a sync point")
    connection.close()
    assert client.finish() == (ENDED, LINES[0], ENDED_TEXT)


def read_after_hang_up(connection):
    """Reads the data of a client that hung up; with an unread part of the stream that resets the connection."""
    try:
        return connection.read_to_end()
    except ConnectionResetError:
        return b""


# Malformed streams


def expect_malformed(client, out=b""):
    result = client.finish()
    assert MALFORMED_STREAM.fullmatch(result.err), result.err
    assert (result.status, result.out) == (MALFORMED, out)


@pytest.mark.parametrize("garbage", [b"\0" * 200, b"\xff" * 200], ids=["zeros", "ones"])
def test_garbage(open_stream, garbage):
    client, connection = open_stream("--event")
    connection.send(garbage)
    expect_malformed(client)


def test_garbage_behind_a_document(open_stream, gdp):
    client, connection = open_stream("--event")
    connection.send(gdp.document(DOCUMENTS[0]) + b"\xff" * 200)
    expect_malformed(client, LINES[0])


def test_buffer_without_caps(open_stream, gdp):
    client, connection = open_stream("--event")
    connection.send(gdp.packets(DOCUMENTS[0])[-1])
    expect_malformed(client)


def test_caps_that_are_not_metadata(open_stream):
    other = GdpStream(caps="application/x-other")
    client, connection = open_stream("--event")
    connection.send(other.document(DOCUMENTS[0]))
    expect_malformed(client)
    other.close()


def test_stream_cut_within_a_document(open_stream, gdp):
    client, connection = open_stream("--event")
    connection.send(gdp.document(DOCUMENTS[0]) + gdp.document(DOCUMENTS[1])[:-10])
    connection.close()
    assert client.finish() == (ENDED, LINES[0], ENDED_TEXT)


def test_document_without_end(open_stream):
    unchecked = GdpStream(checksum=False)
    *before, packet = unchecked.packets(DOCUMENTS[0])
    header = bytearray(packet[:GDP_HEADER_BYTES])
    header[GDP_LENGTH] = struct.pack(">I", 0xffffffff)
    client, connection = open_stream("--event")
    connection.send(b"".join(before) + bytes(header))
    with pytest.raises(OSError) as hung_up:
        for _ in range(2 * MAX_DOCUMENT_BYTES // 65536):
            connection.send(b"x" * 65536)
    assert hung_up.value.errno in (errno.EPIPE, errno.ECONNRESET)
    assert client.finish() == failure(MALFORMED, "The daemon sent more than 67108864 bytes without completing a "
                                                 "document.")
    unchecked.close()


def test_gstreamer_without_plugins(open_stream, gdp, tmp_path):
    client, connection = open_stream("--count", "1", env={"GST_PLUGIN_SYSTEM_PATH_1_0": str(tmp_path),
                                                          "GST_REGISTRY": str(tmp_path / "registry")})
    connection.send(gdp.document(DOCUMENTS[0]))
    assert client.finish() == (SUCCESS, LINES[0], b"")

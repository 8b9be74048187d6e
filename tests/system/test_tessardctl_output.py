# SPDX-License-Identifier: MIT
"""tessardctl stream: its output and its progress line, with a fake daemon."""

import contextlib
import itertools
import os
import pty
import re
import select
import subprocess
import threading
import time
import xml.etree.ElementTree

import pytest

from fakedaemon import DOCUMENTS, LINES, MAX_DOCUMENT_BYTES, metadata
from tessardctl import ENDED, ENDED_TEXT, LOCAL, SUCCESS, failure, read_lines, read_some
from waiting import BOUND_SECONDS


def receive(client, connection, data):
    """Sends data, which can be more than the socket holds, and returns the result of the client."""
    sender = threading.Thread(target=connection.send, args=[data])
    sender.start()
    result = client.finish()
    sender.join()
    return result


def test_one_document_a_line_each_at_once(open_stream, gdp):
    client, connection = open_stream("--event")
    for document, line in zip(DOCUMENTS, LINES):
        connection.send(gdp.document(document))
        assert read_lines(client.out, 1) == [line]
    assert client.end_by().status == SUCCESS


@pytest.mark.parametrize("document, line", [
    (b"<a>\n<b/>\r\n\t</a>", b"<a> <b/>  \t</a>\n"),
    (b"<a/>\n\n", b"<a/>\n"),
    (b"\n<a/> ", b" <a/>\n"),
    ("<a>é\u2029</a>".encode(), "<a>é\u2029</a>\n".encode()),
    (b"not \xff XML \0", b"not \xff XML \0\n"),
])
def test_line(open_stream, gdp, document, line):
    client, connection = open_stream("--event", "--count", "1")
    connection.send(gdp.document(document))
    assert client.finish().out == line


@pytest.mark.parametrize("options", [[], ["--pretty"]])
def test_empty_buffer_is_no_document(open_stream, gdp, options):
    client, connection = open_stream("--event", "--count", "1", *options)
    connection.send(gdp.document(b"") + gdp.document(b"text"))
    result = client.finish()
    assert (result.status, result.out) == (SUCCESS, b"text\n")


def test_count(open_stream, gdp):
    client, connection = open_stream("--event", "--count", "2")
    connection.send(b"".join(map(gdp.document, DOCUMENTS)))
    assert client.finish() == (SUCCESS, b"".join(LINES[:2]), b"")


def test_huge_document(start_stream, fake_daemon, gdp):
    document = metadata("x" * 5_000_000)
    client = start_stream("--event", "--count", "1")
    result = receive(client, fake_daemon.accept_stream(), gdp.document(document))
    assert result == (SUCCESS, document + b"\n", b"")


def test_stream_may_be_longer_than_any_document(open_stream, gdp):
    size = 5_000_000
    count = MAX_DOCUMENT_BYTES // size + 1
    client, connection = open_stream("--event", "--count", str(count), "--output", "/dev/null")
    for _ in range(count):
        connection.send(gdp.document(b"x" * size))
    assert client.finish() == (SUCCESS, b"", b"")


def test_file(open_stream, gdp, tmp_path):
    path = tmp_path / "documents"
    path.write_text("what was there before")
    client, connection = open_stream("--event", "--count", "2", "--output", path)
    connection.send(b"".join(map(gdp.document, DOCUMENTS[:2])))
    assert client.finish() == (SUCCESS, b"", b"")
    assert path.read_bytes() == b"".join(LINES[:2])


def test_dash_is_standard_output(open_stream, gdp, tmp_path):
    client, connection = open_stream("--event", "--count", "1", "--output", "-", cwd=tmp_path)
    connection.send(gdp.document(DOCUMENTS[0]))
    assert client.finish() == (SUCCESS, LINES[0], b"")
    assert list(tmp_path.glob("-")) == []


def test_file_that_cannot_be_opened(start_stream, fake_daemon, tmp_path):
    path = tmp_path / "no" / "documents"
    assert start_stream("--event", "--output", path).finish() == failure(
        LOCAL, f"Could not open '{path}': No such file or directory.")
    assert not select.select([fake_daemon.listener], [], [], 0)[0], "the daemon got a request"


def test_full_device(open_stream, gdp):
    client, connection = open_stream("--event", "--output", "/dev/full")
    connection.send(gdp.document(DOCUMENTS[0]))
    assert client.finish() == failure(LOCAL, "Could not write to /dev/full: Error writing to file descriptor: No "
                                             "space left on device.")


def test_standard_output_that_is_closed(fake_daemon, gdp):
    process = subprocess.Popen(
        ["sh", "-c", '"$TESSARDCTL" stream --event --socket "$0" >&-', fake_daemon.path],
        stderr=subprocess.PIPE)
    fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
    _, err = process.communicate(timeout=BOUND_SECONDS)
    assert err == (b"tessardctl: Could not write to standard output: "
                   b"Error writing to file descriptor: Bad file descriptor.\n")
    assert process.returncode == LOCAL


# Indented documents


@pytest.fixture
def pretty(start_stream, fake_daemon, gdp):
    """Returns a document as --pretty prints it."""

    def print_pretty(document):
        client = start_stream("--event", "--count", "1", "--pretty")
        result = receive(client, fake_daemon.accept_stream(), gdp.document(document))
        assert (result.status, result.err) == (SUCCESS, b"")
        return result.out

    return print_pretty


def test_indents(pretty):
    assert pretty(DOCUMENTS[0]) == (
        b'<?xml version="1.0" encoding="UTF-8"?>\n'
        b'<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">\n'
        b"  <tt:Event>first</tt:Event>\n"
        b"</tt:MetadataStream>\n")


def test_layout_of_the_document_does_not_count(pretty):
    assert pretty(b"<a>\n\n<b>\t<c> </c></b>\n      </a>\n") == (
        b'<?xml version="1.0" encoding="UTF-8"?>\n'
        b"<a>\n  <b>\n    <c> </c>\n  </b>\n</a>\n")


def test_encoding_becomes_utf8(pretty):
    document = '<?xml version="1.0" encoding="ISO-8859-1"?><a>é</a>'.encode("latin-1")
    assert pretty(document) == \
        '<?xml version="1.0" encoding="UTF-8"?>\n<a>é</a>\n'.encode()


@pytest.mark.parametrize("document, out", [
    (b"<a><b></a>", b"<a><b></a>\n"),
    (b"plain\ntext\n", b"plain\ntext\n"),
    (b"<a>\xff</a>", b"<a>\xff</a>\n"),
])
def test_what_does_not_parse_stays(pretty, document, out):
    assert pretty(document) == out


def test_entities_stay_closed(pretty, tmp_path):
    secret = tmp_path / "secret"
    secret.write_text("not to be seen")
    document = (f'<!DOCTYPE a [<!ENTITY f SYSTEM "file://{secret}"><!ENTITY x "xx"><!ENTITY y "&x;&x;">]>'
                "<a><b>&f;</b><c>&y;</c></a>").encode()
    out = pretty(document)
    assert b"<b>&f;</b>" in out and b"<c>&y;</c>" in out and b"not to be seen" not in out


def test_huge_document_is_indented(pretty):
    children = 50_000
    child = b"<b>" + b"x" * 100 + b"</b>"
    out = pretty(b"<a>" + child * children + b"</a>")
    assert out.count(b"\n  " + child) == children
    assert len(xml.etree.ElementTree.fromstring(out)) == children


# The progress line


class Terminal:
    """A terminal, and the data that is written to it."""

    def __init__(self):
        self.master, self.slave = (os.fdopen(fd, "r+b", buffering=0) for fd in pty.openpty())

    def read(self):
        return read_some(self.master.fileno())

    def read_to_end(self):
        """Reads until each process has closed the terminal."""
        data = b""
        with contextlib.suppress(OSError):
            while chunk := self.read():
                data += chunk
        return data


@pytest.fixture
def terminal():
    opened = Terminal()
    with opened.master, opened.slave:
        yield opened


PROGRESS = re.compile(r"(\d+) documents, ([\d.]+)\xa0?.*?(bytes|kB), (\d+\.\d) documents/s *")


def shown(data):
    """The texts of the progress line in order, and the output after the line."""
    head, _, tail = data.decode().replace("\r\n", "\n").partition("\n")
    assert head.startswith("\r")
    return head[1:].split("\r"), tail


def test_progress_is_rewritten_and_ends_with_a_line_break(start_stream, fake_daemon, gdp, terminal):
    client = start_stream("--event", stderr=terminal.slave)
    terminal.slave.close()
    connection = fake_daemon.accept_stream()
    started = time.monotonic()
    connection.send(gdp.document(DOCUMENTS[0]))
    read_lines(client.out, 1)
    data = terminal.read()
    while b"1 documents" not in data:
        data += terminal.read()
    connection.send(b"".join(map(gdp.document, DOCUMENTS[1:])))
    read_lines(client.out, 2)
    client.kill()
    data += terminal.read_to_end()
    took = time.monotonic() - started
    assert client.process.wait(BOUND_SECONDS) == SUCCESS

    texts, tail = shown(data)
    matches = [PROGRESS.fullmatch(text) for text in texts]
    assert all(matches), texts
    counts = [int(match[1]) for match in matches]
    assert counts[-1] == 3 and counts == sorted(counts)
    assert matches[-1][2] == str(sum(map(len, DOCUMENTS)))
    assert float(matches[-1][4]) > 0
    assert len(texts) <= took * 4 + 2
    assert tail == ""


def test_progress_ends_before_a_message(start_stream, fake_daemon, gdp, terminal):
    client = start_stream("--event", stderr=terminal.slave)
    terminal.slave.close()
    connection = fake_daemon.accept_stream()
    connection.send(gdp.document(DOCUMENTS[0]))
    connection.close()
    texts, tail = shown(terminal.read_to_end())
    assert PROGRESS.fullmatch(texts[-1])[1] == "1"
    assert tail == ENDED_TEXT.decode()
    assert client.process.wait(BOUND_SECONDS) == ENDED


def test_shorter_progress_overwrites_all_of_the_longer(start_stream, fake_daemon, gdp, terminal):
    """The size shrinks from "999 bytes" to "1.0 kB" between two texts."""
    client = start_stream("--event", stderr=terminal.slave)
    terminal.slave.close()
    connection = fake_daemon.accept_stream()
    connection.send(gdp.document(b"x" * 999))
    data = b""
    while b"999" not in data:
        data += terminal.read()
    connection.send(gdp.document(b"x"))
    read_lines(client.out, 2)
    client.kill()
    texts, _ = shown(data + terminal.read_to_end())
    for before, after in itertools.pairwise(texts):
        assert len(after) >= len(before.rstrip())


def test_progress_with_a_file_as_output(start_stream, fake_daemon, gdp, terminal, tmp_path):
    start_stream("--event", "--count", "1", "--output", tmp_path / "documents", stdout=terminal.slave,
                 stderr=terminal.slave)
    terminal.slave.close()
    fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
    texts, tail = shown(terminal.read_to_end())
    assert PROGRESS.fullmatch(texts[-1])[1] == "1"
    assert tail == ""


def test_no_progress_on_the_terminal_of_the_documents(start_stream, fake_daemon, gdp, terminal):
    start_stream("--event", "--count", "1", stdout=terminal.slave, stderr=terminal.slave)
    terminal.slave.close()
    fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
    assert terminal.read_to_end().replace(b"\r\n", b"\n") == LINES[0]


def test_no_progress_before_the_stream(start_stream, fake_daemon, terminal):
    start_stream("--event", stderr=terminal.slave)
    terminal.slave.close()
    fake_daemon.accept_request().send(b"FAIL\nNo.\0")
    assert terminal.read_to_end() == b"tessardctl: No.\r\n"

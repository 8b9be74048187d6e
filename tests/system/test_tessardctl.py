"""tessardctl stream against a fake daemon."""
import contextlib
import ctypes
import errno
import fcntl
import itertools
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import termios
import threading
import time
import xml.etree.ElementTree

import pytest

from fakedaemon import GDP_HEADER_BYTES, GDP_LENGTH, FakeDaemon, GdpStream
from installation import run_by_root
from tessardctl import (ENDED, LOCAL, MALFORMED, NO_CONNECTION, REFUSED, SUCCESS, TIMED_OUT, USAGE, read_lines,
                        read_some)
from waiting import BOUND_SECONDS, wait_until

ENDED_TEXT = b"tessardctl: The daemon ended the stream.\n"
CUT_REPLY_TEXT = b"tessardctl: The daemon closed the connection before its reply was complete.\n"

PIPE_BUF = select.PIPE_BUF
MAX_DOCUMENT_BYTES = 64 * 1024 * 1024

NAMESPACE = "http://www.onvif.org/ver10/schema"


def metadata(text):
    return (f'<tt:MetadataStream xmlns:tt="{NAMESPACE}">'
            f"<tt:Event>{text}</tt:Event></tt:MetadataStream>").encode()


DOCUMENTS = [metadata("first"), metadata("second"), metadata("third")]
LINES = [document + b"\n" for document in DOCUMENTS]


def bytes_in_pipe(fd):
    return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, b"\0" * 4))[0]


@pytest.fixture
def fake_daemon(tmp_path):
    daemon = FakeDaemon(tmp_path / "metadata")
    yield daemon
    daemon.close()


@pytest.fixture
def gdp():
    stream = GdpStream()
    yield stream
    stream.close()


@pytest.fixture
def stream(start, fake_daemon):
    """Starts "tessardctl stream" on the fake daemon."""

    def start_stream(*args, **popen_args):
        return start("stream", "--socket", fake_daemon.path, *args, **popen_args)

    return start_stream


class Terminal:
    """A terminal and what is written to it."""

    def __init__(self):
        self.master, self.slave = (os.fdopen(fd, "r+b", buffering=0) for fd in pty.openpty())

    def read(self):
        return read_some(self.master.fileno())

    def read_to_end(self):
        """What is written until every process has closed the terminal."""
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


class TestUsage:
    def test_help_lists_the_commands(self, run):
        result = run("--help")
        assert result.status == SUCCESS
        assert result.out.startswith("Usage:\n  tessardctl [OPTION…] COMMAND [ARGUMENT…]\n".encode())
        assert b"\n  stream     Print the metadata that the daemon streams\n" in result.out
        assert result.err == b""

    @pytest.mark.parametrize("words", [[], ["stream"], ["producers"], ["list"], ["apply"], ["help"]])
    def test_help_command_prints_what_the_option_prints(self, run, words):
        by_command, by_option = run("help", *words), run(*words, "--help")
        assert (by_command.status, by_command.err) == (SUCCESS, b"")
        assert by_command.out == by_option.out
        assert by_command.out.startswith(" ".join(["Usage:\n  tessardctl", *words, ""]).encode())

    def test_stream_help_names_every_option_and_status(self, run):
        result = run("stream", "--help")
        text = result.out.decode()
        assert result.status == SUCCESS
        assert text.startswith("Usage:\n  tessardctl stream [OPTION…]\n")
        assert re.findall(r"^  (--[a-z-]+(?:=[A-Z]+)?) ", text, re.MULTILINE) == [
            "--event", "--event-topic=TEXT", "--event-content=TEXT", "--analytics=N", "--ptz=N",
            "--pantilt-space=N", "--zoom-space=N", "--channel=N", "--socket=PATH", "--count=N",
            "--timeout=SECONDS", "--sync", "--pretty", "--output=FILE"]
        assert "(default: $TESSARD_SOCKET, or /run/tessard/metadata)" in text
        assert "\nExamples:\n  tessardctl stream --event\n" in text
        assert re.findall(r"^  (\d)  \S", text, re.MULTILINE) == [str(status) for status in range(8)]

    def test_help_without_a_reader(self, run):
        reader, writer = os.pipe()
        os.close(reader)
        with os.fdopen(writer, "wb") as unread:
            assert run("--help", stdout=unread).status == SUCCESS

    @pytest.mark.parametrize("option", ["--version", "-V"])
    def test_version(self, run, option):
        result = run(option)
        assert result.status == SUCCESS
        assert re.fullmatch(rb"tessardctl version \d+\.\d+\.\d+\n", result.out)

    @pytest.mark.parametrize("args, message, words", [
        ([], "No command given.", "tessardctl"),
        (["stram"], "Unknown command 'stram'.", "tessardctl"),
        (["help", "stram"], "Unknown command 'stram'.", "tessardctl"),
        (["help", "stream", "now"], "Unexpected argument 'now'.", "tessardctl help"),
        (["help", "--all"], "Unknown option --all", "tessardctl help"),
        (["--stream"], "Unknown option --stream", "tessardctl"),
        (["stream", "--evnt"], "Unknown option --evnt", "tessardctl stream"),
        (["stream", "--event", "now"], "Unexpected argument 'now'.", "tessardctl stream"),
        (["stream", "--event-topic"], "Missing argument for --event-topic", "tessardctl stream"),
        (["stream", "--analytics="], "The value of --analytics is empty.", "tessardctl stream"),
        (["stream", "--ptz="], "The value of --ptz is empty.", "tessardctl stream"),
        (["stream", "--pantilt-space="], "The value of --pantilt-space is empty.", "tessardctl stream"),
        (["stream", "--zoom-space="], "The value of --zoom-space is empty.", "tessardctl stream"),
        (["stream", "--channel="], "The value of --channel is empty.", "tessardctl stream"),
        (["stream", "--socket="], "The value of --socket is empty.", "tessardctl stream"),
        (["stream", "--output="], "The value of --output is empty.", "tessardctl stream"),
        (["stream", "--analytics", "1\nevent=1"], "The value of --analytics has more than one line.",
         "tessardctl stream"),
        (["stream", "--channel", "1\r"], "The value of --channel has more than one line.",
         "tessardctl stream"),
        (["stream", "--ptz", "1\u20292"], "The value of --ptz has more than one line.", "tessardctl stream"),
    ])
    def test_wrong_usage(self, run, args, message, words):
        result = run(*args)
        assert result.err == f"tessardctl: {message}\nTry '{words} --help'.\n".encode()
        assert result.status == USAGE
        assert result.out == b""

    @pytest.mark.parametrize("value", ["0", "-1", "", "x", "1x", "0x1", " 1", "1.5", "9223372036854775808"])
    def test_wrong_count(self, run, value):
        result = run("stream", f"--count={value}")
        assert result.err == (f"tessardctl: The value of --count is '{value}', "
                              "not a whole number from 1 on.\n"
                              "Try 'tessardctl stream --help'.\n").encode()
        assert result.status == USAGE

    @pytest.mark.parametrize("value", ["0", "-1", "", "x", "1s", "inf", "nan", "1e99", "0.0001", "2592001"])
    def test_wrong_timeout(self, run, value):
        result = run("stream", f"--timeout={value}")
        assert result.err == (f"tessardctl: The value of --timeout is '{value}', "
                              "not a number of seconds from 0.001 to 2592000.\n"
                              "Try 'tessardctl stream --help'.\n").encode()
        assert result.status == USAGE

    def test_messages_hold_no_control_characters(self, run):
        result = run("\x1b[2J\x07\u009b1m\n")
        assert result.err.startswith(b"tessardctl: Unknown command '\\u001b[2J\\u0007\\u009b1m\\u000a'.\n")


def undo_escapes(sent):
    """Undoes escapes as the daemon does; in bytes, which GLib's Python binding does not accept here."""
    glib = ctypes.CDLL("libglib-2.0.so.0")
    glib.g_strcompress.restype = ctypes.c_char_p
    return glib.g_strcompress(ctypes.c_char_p(sent))


class TestRequest:
    @pytest.mark.parametrize("args, lines", [
        ([], []),
        (["--event"], ["event=1"]),
        (["--event-topic", "tns1:Device//."], ["event=1", "event_topic=tns1:Device//."]),
        (["--event-topic", ""], ["event=1", "event_topic="]),
        (["--event-content", 'boolean(//tt:SimpleItem[@Name="State"])'],
         ["event=1", r'event_content=boolean(//tt:SimpleItem[@Name=\"State\"])']),
        (["--event", "--event-topic", "a=b"], ["event=1", "event_topic=a=b"]),
        (["--analytics", "2"], ["analytics=2"]),
        (["--analytics", "lots"], ["analytics=lots"]),
        (["--channel", "007"], ["video_channel=007"]),
        (["--ptz", "3"], ["ptz=3"]),
        (["--pantilt-space", "1"], ["ptz_pantilt_coordinate_space=1"]),
        (["--zoom-space", "2"], ["ptz_zoom_coordinate_space=2"]),
        (["--zoom-space", "0", "--pantilt-space", "1", "--ptz", "2", "--channel", "3", "--analytics", "1",
          "--event-content", "c", "--event-topic", "t"],
         ["event=1", "event_topic=t", "event_content=c", "analytics=1", "video_channel=3", "ptz=2",
          "ptz_pantilt_coordinate_space=1", "ptz_zoom_coordinate_space=0"]),
        (["--sync", "--count", "3", "--timeout", "9.5", "--pretty", "--output", "/dev/null"], []),
    ])
    def test_bytes(self, stream, fake_daemon, args, lines):
        stream(*args)
        expected = "".join(line + "\n" for line in ["OPEN", *lines, ""])
        assert fake_daemon.accept_request().request == expected.encode()

    @pytest.mark.parametrize("option, key", [("--event-topic", b"event_topic"),
                                             ("--event-content", b"event_content")])
    @pytest.mark.parametrize("text, sent", [
        ("é".encode(), rb"\303\251"),
        (b"a\\b", rb"a\\b"),
        (b"\\n", rb"\\n"),
        (b"\n", rb"\n"),
        (b"a\rb", rb"a\rb"),
        ("a\u2029b".encode(), rb"a\342\200\251b"),
        (b" a ", rb" a\040"),
        (b"a  ", rb"a\040\040"),
        (b"   ", rb"\040\040\040"),
        (b"a\\ ", rb"a\\\040"),
        (b"a\t", rb"a\t"),
        (b"a\v\f", rb"a\v\f"),
        (b"\x01\x7f2", rb"\001\1772"),
        (b"\xff\xc3", rb"\377\303"),
    ])
    def test_texts_arrive_exactly(self, stream, fake_daemon, option, key, text, sent):
        stream(option, text)
        request = fake_daemon.accept_request().request
        assert request == b"OPEN\nevent=1\n" + key + b"=" + sent + b"\n\n"
        assert undo_escapes(sent) == text

    @pytest.mark.parametrize("locale", ["C", "C.UTF-8"])
    def test_texts_do_not_depend_on_the_locale(self, stream, fake_daemon, locale):
        stream("--event-topic", "tür".encode(), env={"LC_ALL": locale})
        assert fake_daemon.accept_request().request == b"OPEN\nevent=1\nevent_topic=t\\303\\274r\n\n"

    def test_request_longer_than_the_socket_holds(self, stream, fake_daemon, gdp):
        tool = stream("--count", "1", *itertools.chain(("--event-topic", "\x01" * 120000),
                                                       ("--event-content", "\x02" * 120000)))
        connection = fake_daemon.accept_stream()
        assert connection.request == (b"OPEN\nevent=1\nevent_topic=" + b"\\001" * 120000 + b"\nevent_content="
                                      + b"\\002" * 120000 + b"\n\n")
        connection.send(gdp.document(DOCUMENTS[0]))
        assert tool.finish().status == SUCCESS


class TestReply:
    @pytest.mark.parametrize("reason, shown", [
        (b"Bad request, no metadata can be produced.", None),
        (b"Unable to create source: Invalid value of 'channel'           parameter: 'x'..", None),
        ("Unable to create source: 'é'.".encode(), None),
        (b"", None),
        (b"two\nlines\x1b[2J", b"two\\u000alines\\u001b[2J"),
        (b"not \xff text", "not \ufffd text".encode()),
        pytest.param(b"x" * 65536, None, id="long"),
    ])
    def test_refusal(self, stream, fake_daemon, reason, shown):
        tool = stream("--event")
        fake_daemon.accept_request().send(b"FAIL\n" + reason + b"\0")
        result = tool.finish()
        assert result.err == b"tessardctl: " + (reason if shown is None else shown) + b"\n"
        assert result.status == REFUSED
        assert result.out == b""

    def test_refusal_before_the_request_was_read(self, stream, fake_daemon):
        tool = stream("--event-content", "\x01" * 120000)
        connection = fake_daemon.accept()
        assert connection.read(5) == b"OPEN\n"
        connection.send(b"FAIL\nToo much.\0")
        connection.close()
        result = tool.finish()
        assert (result.status, result.err) == (REFUSED, b"tessardctl: Too much.\n")

    @pytest.mark.parametrize("reply", [b"OK", b"", b"FAIL\nBad requ"])
    def test_cut_reply(self, stream, fake_daemon, reply):
        tool = stream("--event")
        connection = fake_daemon.accept_request()
        connection.send(reply)
        connection.close()
        result = tool.finish()
        assert (result.status, result.err) == (ENDED, CUT_REPLY_TEXT)

    def test_connection_closed_unanswered(self, stream, fake_daemon):
        tool = stream("--event")
        fake_daemon.accept().close()
        result = tool.finish()
        assert (result.status, result.err) == (ENDED, CUT_REPLY_TEXT)

    @pytest.mark.parametrize("reply", [b"HELLO", b"", b"OK\n", b"FAIL", b"ok"])
    def test_reply_that_is_none(self, stream, fake_daemon, reply):
        tool = stream("--event")
        fake_daemon.accept_request().send(reply + b"\0")
        result = tool.finish()
        assert result.err == b"tessardctl: The daemon's reply is neither \"OK\" nor \"FAIL\".\n"
        assert result.status == MALFORMED

    def test_reply_without_end(self, stream, fake_daemon):
        tool = stream("--event")
        connection = fake_daemon.accept_request()
        with pytest.raises(OSError) as hung_up:
            for _ in range(1024):
                connection.send(b"x" * 4096)
        assert hung_up.value.errno in (errno.EPIPE, errno.ECONNRESET)
        result = tool.finish()
        assert result.err == b"tessardctl: The daemon's reply is longer than 66048 bytes.\n"
        assert result.status == MALFORMED

    def test_reply_and_stream_in_pieces(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--count", "1")
        connection = fake_daemon.accept_request()
        document = gdp.document(DOCUMENTS[0])
        for piece in [b"O", b"K", b"\0", *(document[i:i + 31] for i in range(0, len(document), 31))]:
            connection.send(piece)
            wait_until(lambda: connection.unread_by_client() == 0, "the client takes the piece")
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, LINES[0], b"")

    def test_stream_in_the_packet_of_the_reply(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--count", "3")
        fake_daemon.accept_request().send(b"OK\0" + b"".join(map(gdp.document, DOCUMENTS)))
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, b"".join(LINES), b"")


def no_connection(path, cause):
    return f"tessardctl: Could not connect to '{path}': {cause}.\n".encode()


def has_socket(tool):
    descriptors = f"/proc/{tool.process.pid}/fd"
    for fd in os.listdir(descriptors):
        with contextlib.suppress(FileNotFoundError):
            if os.readlink(f"{descriptors}/{fd}").startswith("socket:"):
                return True
    return False


@pytest.fixture
def busy_daemon(tmp_path):
    """A daemon whose backlog is full."""
    daemon = FakeDaemon(tmp_path / "busy", backlog=0)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as other:
        other.connect(daemon.path)
        yield daemon
    daemon.close()


class TestConnection:
    def test_no_socket(self, run, tmp_path):
        path = tmp_path / "nothing"
        result = run("stream", "--event", "--socket", path)
        assert result.err == no_connection(path, "No such file or directory")
        assert result.status == NO_CONNECTION

    def test_default_socket_from_the_environment(self, start, fake_daemon):
        start("stream", "--event", env={"TESSARD_SOCKET": fake_daemon.path})
        assert fake_daemon.accept_request().request == b"OPEN\nevent=1\n\n"

    def test_option_overrides_the_environment(self, start, fake_daemon, tmp_path):
        start("stream", "--event", "--socket", fake_daemon.path, env={"TESSARD_SOCKET": str(tmp_path / "other")})
        assert fake_daemon.accept_request().request == b"OPEN\nevent=1\n\n"

    def test_empty_variable_counts_as_unset(self, run):
        result = run("stream", "--event", "--timeout", "1", env={"TESSARD_SOCKET": ""})
        assert result.err == no_connection("/run/tessard/metadata", "No such file or directory")

    def test_socket_without_a_listener(self, run, fake_daemon):
        fake_daemon.close()
        result = run("stream", "--event", "--socket", fake_daemon.path)
        assert result.err == no_connection(fake_daemon.path, "Connection refused")
        assert result.status == NO_CONNECTION

    @pytest.mark.skipif(not run_by_root(), reason="only root can run the tool as another user")
    @pytest.mark.parametrize("mode, reason", [
        (0o660, "Permission denied; only root and members of the group 'games' can"),
        (0o600, "Permission denied"),
    ])
    def test_socket_of_another_group(self, run, workspace, mode, reason):
        daemon = FakeDaemon(workspace.folder() / "metadata")
        shutil.chown(daemon.path, group="games")
        os.chmod(daemon.path, mode)
        result = run("stream", "--event", "--socket", daemon.path, cwd="/", user="daemon", group="daemon",
                     extra_groups=[])
        assert result.err == no_connection(daemon.path, reason)
        assert result.status == NO_CONNECTION
        daemon.close()

    def test_path_that_is_too_long_is_not_cut(self, run, tmp_path, monkeypatch):
        monkeypatch.chdir(tmp_path)
        path = "p" * 108
        daemon = FakeDaemon(path[:107])
        result = run("stream", "--event", "--socket", path)
        assert result.err == no_connection(path, "File name too long")
        assert result.status == NO_CONNECTION
        daemon.close()

    def test_longest_path(self, start, tmp_path, monkeypatch):
        monkeypatch.chdir(tmp_path)
        daemon = FakeDaemon("p" * 107)
        start("stream", "--event", "--socket", daemon.path)
        assert daemon.accept_request().request == b"OPEN\nevent=1\n\n"
        daemon.close()

    def test_waits_for_room_in_the_backlog(self, start, busy_daemon):
        tool = start("stream", "--event", "--socket", busy_daemon.path)
        wait_until(lambda: has_socket(tool), "the client gets to connecting")
        busy_daemon.accept().close()
        assert busy_daemon.accept_request().request == b"OPEN\nevent=1\n\n"

    def test_time_out_on_a_full_backlog(self, run, busy_daemon):
        result = run("stream", "--event", "--socket", busy_daemon.path, "--timeout", "0.3")
        assert (result.status, result.err) == (TIMED_OUT, b"tessardctl: No reply within 0.3 seconds.\n")


class TestOutput:
    def test_one_document_a_line_each_at_once(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        connection = fake_daemon.accept_stream()
        for document, line in zip(DOCUMENTS, LINES):
            connection.send(gdp.document(document))
            assert read_lines(tool.out, 1) == [line]
        assert tool.end_by().status == SUCCESS

    @pytest.mark.parametrize("document, line", [
        (b"<a>\n<b/>\r\n\t</a>", b"<a> <b/>  \t</a>\n"),
        (b"<a/>\n\n", b"<a/>\n"),
        (b"\n<a/> ", b" <a/>\n"),
        ("<a>é\u2029</a>".encode(), "<a>é\u2029</a>\n".encode()),
        (b"not \xff XML \0", b"not \xff XML \0\n"),
    ])
    def test_line(self, stream, fake_daemon, gdp, document, line):
        tool = stream("--event", "--count", "1")
        fake_daemon.accept_stream().send(gdp.document(document))
        assert tool.finish().out == line

    @pytest.mark.parametrize("options", [[], ["--pretty"]])
    def test_empty_buffer_is_no_document(self, stream, fake_daemon, gdp, options):
        tool = stream("--event", "--count", "1", *options)
        fake_daemon.accept_stream().send(gdp.document(b"") + gdp.document(b"text"))
        result = tool.finish()
        assert (result.status, result.out) == (SUCCESS, b"text\n")

    def test_count(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--count", "2")
        fake_daemon.accept_stream().send(b"".join(map(gdp.document, DOCUMENTS)))
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, b"".join(LINES[:2]), b"")

    def test_huge_document(self, stream, fake_daemon, gdp):
        document = metadata("x" * 5_000_000)
        tool = stream("--event", "--count", "1")
        connection = fake_daemon.accept_stream()
        sender = threading.Thread(target=connection.send, args=[gdp.document(document)])
        sender.start()
        result = tool.finish()
        sender.join()
        assert result.status == SUCCESS
        assert result.out == document + b"\n"

    def test_stream_may_be_longer_than_any_document(self, stream, fake_daemon, gdp):
        size = 5_000_000
        count = MAX_DOCUMENT_BYTES // size + 1
        tool = stream("--event", "--count", str(count), "--output", "/dev/null")
        connection = fake_daemon.accept_stream()
        for _ in range(count):
            connection.send(gdp.document(b"x" * size))
        result = tool.finish()
        assert (result.status, result.err) == (SUCCESS, b"")

    def test_file(self, stream, fake_daemon, gdp, tmp_path):
        path = tmp_path / "documents"
        path.write_text("what was there before")
        tool = stream("--event", "--count", "2", "--output", path)
        fake_daemon.accept_stream().send(b"".join(map(gdp.document, DOCUMENTS[:2])))
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert path.read_bytes() == b"".join(LINES[:2])

    def test_dash_is_standard_output(self, stream, fake_daemon, gdp, tmp_path):
        tool = stream("--event", "--count", "1", "--output", "-", cwd=tmp_path)
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, LINES[0], b"")
        assert list(tmp_path.glob("-")) == []

    def test_file_that_cannot_be_opened(self, stream, fake_daemon, tmp_path):
        path = tmp_path / "no" / "documents"
        result = stream("--event", "--output", path).finish()
        assert result.err == f"tessardctl: Could not open '{path}': No such file or directory.\n".encode()
        assert result.status == LOCAL
        assert not select.select([fake_daemon.listener], [], [], 0)[0], "the daemon was asked all the same"

    def test_full_device(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--output", "/dev/full")
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        result = tool.finish()
        assert result.err == (b"tessardctl: Could not write to /dev/full: "
                              b"Error writing to file descriptor: No space left on device.\n")
        assert result.status == LOCAL

    def test_standard_output_that_is_closed(self, fake_daemon, gdp):
        process = subprocess.Popen(
            ["sh", "-c", '"$TESSARDCTL" stream --event --socket "$0" >&-', fake_daemon.path],
            stderr=subprocess.PIPE)
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        _, err = process.communicate(timeout=BOUND_SECONDS)
        assert err == (b"tessardctl: Could not write to standard output: "
                       b"Error writing to file descriptor: Bad file descriptor.\n")
        assert process.returncode == LOCAL


class TestPretty:
    def pretty(self, stream, fake_daemon, gdp, document):
        tool = stream("--event", "--count", "1", "--pretty")
        connection = fake_daemon.accept_stream()
        sender = threading.Thread(target=connection.send, args=[gdp.document(document)])
        sender.start()
        result = tool.finish()
        sender.join()
        assert (result.status, result.err) == (SUCCESS, b"")
        return result.out

    def test_indents(self, stream, fake_daemon, gdp):
        assert self.pretty(stream, fake_daemon, gdp, DOCUMENTS[0]) == (
            b'<?xml version="1.0" encoding="UTF-8"?>\n'
            b'<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">\n'
            b"  <tt:Event>first</tt:Event>\n"
            b"</tt:MetadataStream>\n")

    def test_layout_of_the_document_does_not_count(self, stream, fake_daemon, gdp):
        assert self.pretty(stream, fake_daemon, gdp, b"<a>\n\n<b>\t<c> </c></b>\n      </a>\n") == (
            b'<?xml version="1.0" encoding="UTF-8"?>\n'
            b"<a>\n  <b>\n    <c> </c>\n  </b>\n</a>\n")

    def test_encoding_becomes_utf8(self, stream, fake_daemon, gdp):
        document = '<?xml version="1.0" encoding="ISO-8859-1"?><a>é</a>'.encode("latin-1")
        assert self.pretty(stream, fake_daemon, gdp, document) == \
            '<?xml version="1.0" encoding="UTF-8"?>\n<a>é</a>\n'.encode()

    @pytest.mark.parametrize("document, out", [
        (b"<a><b></a>", b"<a><b></a>\n"),
        (b"plain\ntext\n", b"plain\ntext\n"),
        (b"<a>\xff</a>", b"<a>\xff</a>\n"),
    ])
    def test_what_does_not_parse_stays(self, stream, fake_daemon, gdp, document, out):
        assert self.pretty(stream, fake_daemon, gdp, document) == out

    def test_entities_stay_closed(self, stream, fake_daemon, gdp, tmp_path):
        secret = tmp_path / "secret"
        secret.write_text("not to be seen")
        document = (f'<!DOCTYPE a [<!ENTITY f SYSTEM "file://{secret}"><!ENTITY x "xx"><!ENTITY y "&x;&x;">]>'
                    "<a><b>&f;</b><c>&y;</c></a>").encode()
        out = self.pretty(stream, fake_daemon, gdp, document)
        assert b"<b>&f;</b>" in out and b"<c>&y;</c>" in out and b"not to be seen" not in out

    def test_huge_document(self, stream, fake_daemon, gdp):
        children = 50_000
        child = b"<b>" + b"x" * 100 + b"</b>"
        out = self.pretty(stream, fake_daemon, gdp, b"<a>" + child * children + b"</a>")
        assert out.count(b"\n  " + child) == children
        assert len(xml.etree.ElementTree.fromstring(out)) == children


class TestSync:
    def test_asks_once_when_the_stream_has_started(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--sync")
        connection = fake_daemon.accept_stream()
        connection.sock.setblocking(False)
        with pytest.raises(BlockingIOError):
            connection.sock.recv(1)
        connection.sock.settimeout(BOUND_SECONDS)
        for document in DOCUMENTS:
            connection.send(gdp.document(document))
        assert connection.read(5) == b"SYNC\n"
        read_lines(tool.out, 3)
        assert tool.end_by().status == SUCCESS
        assert connection.read_to_end() == b""

    def test_says_nothing_unasked(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--count", "2")
        connection = fake_daemon.accept_stream()
        connection.send(b"".join(map(gdp.document, DOCUMENTS)))
        assert tool.finish().status == SUCCESS
        assert read_after_hang_up(connection) == b""

    def test_daemon_that_leaves_with_the_request_unread(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--sync")
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(DOCUMENTS[0]))
        wait_until(lambda: bytes_in_pipe(connection.sock) == 5, "the client asks")
        connection.close()
        result = tool.finish()
        assert (result.status, result.out, result.err) == (ENDED, LINES[0], ENDED_TEXT)


def read_after_hang_up(connection):
    """What a client sent that hung up with some of the stream unread, which resets the connection."""
    try:
        return connection.read_to_end()
    except ConnectionResetError:
        return b""


class TestEnd:
    @pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
    def test_signal_while_streaming(self, stream, fake_daemon, gdp, number):
        tool = stream("--event", "--count", "9")
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(DOCUMENTS[0]))
        assert read_lines(tool.out, 1) == LINES[:1]
        result = tool.end_by(number)
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert connection.read_to_end() == b""

    @pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
    def test_signal_before_the_reply(self, stream, fake_daemon, number):
        tool = stream("--event")
        connection = fake_daemon.accept_request()
        result = tool.end_by(number)
        assert (result.status, result.out, result.err) == (SUCCESS, b"", b"")
        assert connection.read_to_end() == b""

    def test_signal_while_the_request_is_stuck(self, stream, fake_daemon):
        tool = stream("--event-topic", "\x01" * 120000, "--event-content", "\x01" * 120000)
        connection = fake_daemon.accept()
        assert connection.read(1) == b"O"
        assert tool.end_by().status == SUCCESS

    @pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
    @pytest.mark.parametrize("options", [[], ["--pretty"]])
    def test_signal_while_the_reader_is_stuck(self, stream, fake_daemon, gdp, number, options):
        tool = stream("--event", *options)
        connection = fake_daemon.accept_stream()
        self.fill_output(tool, connection, gdp)
        tool.kill(number)
        assert tool.process.wait(BOUND_SECONDS) == SUCCESS

    def test_time_out_while_the_reader_is_stuck(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--timeout", "2")
        self.fill_output(tool, fake_daemon.accept_stream(), gdp)
        assert tool.process.wait(BOUND_SECONDS) == SUCCESS

    def test_reader_that_leaves_while_stuck(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        self.fill_output(tool, fake_daemon.accept_stream(), gdp)
        tool.process.stdout.close()
        assert tool.process.wait(BOUND_SECONDS) == SUCCESS
        assert tool.process.stderr.read() == b""

    def fill_output(self, tool, connection, gdp):
        """Sends a document that is larger than the output's pipe and waits until the pipe is full."""
        size = fcntl.fcntl(tool.out, fcntl.F_GETPIPE_SZ)
        document = metadata("x" * (size + PIPE_BUF))
        connection.send(gdp.document(document))
        wait_until(lambda: bytes_in_pipe(tool.out) > size - PIPE_BUF, "the output's pipe is full")

    def test_head(self, fake_daemon, gdp):
        process = subprocess.Popen(
            ["bash", "-c", '"$TESSARDCTL" stream --event --socket "$0" | head -1; exit ${PIPESTATUS[0]}',
             fake_daemon.path], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        fake_daemon.accept_stream().send(b"".join(map(gdp.document, DOCUMENTS)))
        out, err = process.communicate(timeout=BOUND_SECONDS)
        assert (process.returncode, out, err) == (SUCCESS, LINES[0], b"")

    def test_reader_that_leaves_between_two_documents(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(DOCUMENTS[0]))
        read_lines(tool.out, 1)
        tool.process.stdout.close()
        assert tool.process.wait(BOUND_SECONDS) == SUCCESS
        assert tool.process.stderr.read() == b""
        assert connection.read_to_end() == b""

    def test_file_whose_reader_leaves(self, stream, fake_daemon, gdp, tmp_path):
        fifo = tmp_path / "fifo"
        os.mkfifo(fifo)
        tool = stream("--event", "--output", fifo)
        reader = os.open(fifo, os.O_RDONLY)
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        assert read_lines(reader, 1) == LINES[:1]
        os.close(reader)
        result = tool.finish()
        assert (result.status, result.err) == (SUCCESS, b"")

    @pytest.mark.parametrize("documents", [0, 2])
    @pytest.mark.parametrize("options", [[], ["--count", "5"]])
    def test_daemon_hangs_up(self, stream, fake_daemon, gdp, documents, options):
        tool = stream("--event", *options)
        connection = fake_daemon.accept_stream()
        connection.send(b"".join(map(gdp.document, DOCUMENTS[:documents])))
        connection.close()
        result = tool.finish()
        assert (result.status, result.out, result.err) == (ENDED, b"".join(LINES[:documents]), ENDED_TEXT)

    def test_time_out_before_the_reply(self, stream, fake_daemon):
        tool = stream("--event", "--timeout", "0.5")
        connection = fake_daemon.accept_request()
        result = tool.finish()
        assert (result.status, result.err) == (TIMED_OUT, b"tessardctl: No reply within 0.5 seconds.\n")
        assert connection.read_to_end() == b""

    def test_time_out_ends_a_stream_without_count(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--timeout", "2")
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        result = tool.finish()
        assert (result.status, result.out, result.err) == (SUCCESS, LINES[0], b"")

    def test_time_out_before_the_count(self, stream, fake_daemon, gdp):
        tool = stream("--event", "--timeout", "2", "--count", "3")
        fake_daemon.accept_stream().send(b"".join(map(gdp.document, DOCUMENTS[:2])))
        result = tool.finish()
        assert (result.status, result.out) == (TIMED_OUT, b"".join(LINES[:2]))
        assert result.err == b"tessardctl: 2 of 3 documents within 2 seconds.\n"


class TestMalformedStream:
    MESSAGE = re.compile(rb"tessardctl: The daemon's stream is malformed: [^\n]+\n")

    def check(self, tool, out=b""):
        result = tool.finish()
        assert self.MESSAGE.fullmatch(result.err), result.err
        assert (result.status, result.out) == (MALFORMED, out)

    @pytest.mark.parametrize("garbage", [b"\0" * 200, b"\xff" * 200], ids=["zeros", "ones"])
    def test_garbage(self, stream, fake_daemon, garbage):
        tool = stream("--event")
        fake_daemon.accept_stream().send(garbage)
        self.check(tool)

    def test_garbage_behind_a_document(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]) + b"\xff" * 200)
        self.check(tool, LINES[0])

    def test_buffer_without_caps(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        fake_daemon.accept_stream().send(gdp.packets(DOCUMENTS[0])[-1])
        self.check(tool)

    def test_caps_that_are_not_metadata(self, stream, fake_daemon):
        other = GdpStream(caps="application/x-other")
        tool = stream("--event")
        fake_daemon.accept_stream().send(other.document(DOCUMENTS[0]))
        self.check(tool)
        other.close()

    def test_stream_cut_within_a_document(self, stream, fake_daemon, gdp):
        tool = stream("--event")
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(DOCUMENTS[0]) + gdp.document(DOCUMENTS[1])[:-10])
        connection.close()
        result = tool.finish()
        assert (result.status, result.out, result.err) == (ENDED, LINES[0], ENDED_TEXT)

    def test_document_without_end(self, stream, fake_daemon):
        unchecked = GdpStream(checksum=False)
        *before, packet = unchecked.packets(DOCUMENTS[0])
        header = bytearray(packet[:GDP_HEADER_BYTES])
        header[GDP_LENGTH] = struct.pack(">I", 0xffffffff)
        tool = stream("--event")
        connection = fake_daemon.accept_stream()
        connection.send(b"".join(before) + bytes(header))
        with pytest.raises(OSError) as hung_up:
            for _ in range(2 * MAX_DOCUMENT_BYTES // 65536):
                connection.send(b"x" * 65536)
        assert hung_up.value.errno in (errno.EPIPE, errno.ECONNRESET)
        result = tool.finish()
        assert result.err == (b"tessardctl: The daemon sent more than 67108864 bytes "
                              b"without completing a document.\n")
        assert result.status == MALFORMED
        unchecked.close()

    def test_gstreamer_without_its_elements(self, stream, fake_daemon, tmp_path):
        result = stream("--event", env={"GST_PLUGIN_SYSTEM_PATH_1_0": str(tmp_path),
                                        "GST_REGISTRY": str(tmp_path / "registry")}).finish()
        assert result.err == b"tessardctl: The GStreamer element 'fdsrc' is not installed.\n"
        assert result.status == LOCAL
        assert not select.select([fake_daemon.listener], [], [], 0)[0], "the daemon was asked all the same"


class TestProgress:
    LINE = re.compile(r"(\d+) documents, ([\d.]+)\xa0?.*?(bytes|kB), (\d+\.\d) documents/s *")

    def shown(self, data):
        """The texts of the progress line in their order, and what follows the line."""
        head, _, tail = data.decode().replace("\r\n", "\n").partition("\n")
        assert head.startswith("\r")
        return head[1:].split("\r"), tail

    def test_is_rewritten_and_ends_with_the_line(self, stream, fake_daemon, gdp, terminal):
        tool = stream("--event", stderr=terminal.slave)
        terminal.slave.close()
        connection = fake_daemon.accept_stream()
        started = time.monotonic()
        connection.send(gdp.document(DOCUMENTS[0]))
        read_lines(tool.out, 1)
        data = terminal.read()
        while b"1 documents" not in data:
            data += terminal.read()
        connection.send(b"".join(map(gdp.document, DOCUMENTS[1:])))
        read_lines(tool.out, 2)
        tool.kill()
        data += terminal.read_to_end()
        took = time.monotonic() - started
        assert tool.process.wait(BOUND_SECONDS) == SUCCESS

        texts, tail = self.shown(data)
        matches = [self.LINE.fullmatch(text) for text in texts]
        assert all(matches), texts
        counts = [int(match[1]) for match in matches]
        assert counts[-1] == 3 and counts == sorted(counts)
        assert matches[-1][2] == str(sum(map(len, DOCUMENTS)))
        assert float(matches[-1][4]) > 0
        assert len(texts) <= took * 4 + 2
        assert tail == ""

    def test_ends_before_a_message(self, stream, fake_daemon, gdp, terminal):
        tool = stream("--event", stderr=terminal.slave)
        terminal.slave.close()
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(DOCUMENTS[0]))
        connection.close()
        texts, tail = self.shown(terminal.read_to_end())
        assert self.LINE.fullmatch(texts[-1])[1] == "1"
        assert tail == ENDED_TEXT.decode()
        assert tool.process.wait(BOUND_SECONDS) == ENDED

    def test_shorter_text_leaves_nothing_behind(self, stream, fake_daemon, gdp, terminal):
        """The size shrinks from "999 bytes" to "1.0 kB" between two texts."""
        tool = stream("--event", stderr=terminal.slave)
        terminal.slave.close()
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(b"x" * 999))
        data = b""
        while b"999" not in data:
            data += terminal.read()
        connection.send(gdp.document(b"x"))
        read_lines(tool.out, 2)
        tool.kill()
        texts, _ = self.shown(data + terminal.read_to_end())
        for before, after in itertools.pairwise(texts):
            assert len(after) >= len(before.rstrip())

    def test_with_a_file_as_output(self, stream, fake_daemon, gdp, terminal, tmp_path):
        stream("--event", "--count", "1", "--output", tmp_path / "documents", stdout=terminal.slave,
               stderr=terminal.slave)
        terminal.slave.close()
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        texts, tail = self.shown(terminal.read_to_end())
        assert self.LINE.fullmatch(texts[-1])[1] == "1"
        assert tail == ""

    def test_not_on_the_terminal_of_the_documents(self, stream, fake_daemon, gdp, terminal):
        stream("--event", "--count", "1", stdout=terminal.slave, stderr=terminal.slave)
        terminal.slave.close()
        fake_daemon.accept_stream().send(gdp.document(DOCUMENTS[0]))
        assert terminal.read_to_end().replace(b"\r\n", b"\n") == LINES[0]

    def test_not_before_the_stream(self, stream, fake_daemon, terminal):
        stream("--event", stderr=terminal.slave)
        terminal.slave.close()
        fake_daemon.accept_request().send(b"FAIL\nNo.\0")
        assert terminal.read_to_end() == b"tessardctl: No.\r\n"

# SPDX-License-Identifier: MIT
"""tessardctl stream: the connection, the request and the reply, with a fake daemon."""

import contextlib
import ctypes
import errno
import os
import shutil
import socket

import pytest

from fakedaemon import DOCUMENTS, LINES, FakeDaemon
from installation import run_by_root
from tessardctl import ENDED, MALFORMED, NO_CONNECTION, REFUSED, SUCCESS, TIMED_OUT, failure
from waiting import wait_until

CUT_REPLY = failure(ENDED, "The daemon closed the connection before its reply was complete.")


def undo_escapes(sent):
    """Undoes escapes like the daemon; in bytes, which GLib's Python binding does not accept here."""
    glib = ctypes.CDLL("libglib-2.0.so.0")
    glib.g_strcompress.restype = ctypes.c_char_p
    return glib.g_strcompress(ctypes.c_char_p(sent))


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
def test_header_lines_of_options(start_stream, fake_daemon, args, lines):
    start_stream(*args)
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
def test_texts_arrive_exactly(start_stream, fake_daemon, option, key, text, sent):
    start_stream(option, text)
    request = fake_daemon.accept_request().request
    assert request == b"OPEN\nevent=1\n" + key + b"=" + sent + b"\n\n"
    assert undo_escapes(sent) == text


@pytest.mark.parametrize("locale", ["C", "C.UTF-8"])
def test_texts_do_not_depend_on_the_locale(start_stream, fake_daemon, locale):
    start_stream("--event-topic", "tür".encode(), env={"LC_ALL": locale})
    assert fake_daemon.accept_request().request == b"OPEN\nevent=1\nevent_topic=t\\303\\274r\n\n"


def test_request_longer_than_the_socket_holds(open_stream, gdp):
    client, connection = open_stream("--count", "1", "--event-topic", "\x01" * 120000,
                                     "--event-content", "\x02" * 120000)
    assert connection.request == (b"OPEN\nevent=1\nevent_topic=" + b"\\001" * 120000 + b"\nevent_content="
                                  + b"\\002" * 120000 + b"\n\n")
    connection.send(gdp.document(DOCUMENTS[0]))
    assert client.finish().status == SUCCESS


# Replies


@pytest.mark.parametrize("reason, shown", [
    (b"Bad request, no metadata can be produced.", None),
    (b"Unable to create source: Invalid value of 'channel'           parameter: 'x'..", None),
    ("Unable to create source: 'é'.".encode(), None),
    (b"", None),
    (b"two\nlines\x1b[2J", b"two\\u000alines\\u001b[2J"),
    (b"not \xff text", "not \ufffd text".encode()),
    pytest.param(b"x" * 65536, None, id="long"),
])
def test_refusal(start_stream, fake_daemon, reason, shown):
    client = start_stream("--event")
    fake_daemon.accept_request().send(b"FAIL\n" + reason + b"\0")
    assert client.finish() == (REFUSED, b"", b"tessardctl: " + (shown or reason) + b"\n")


def test_refusal_before_the_request_was_read(start_stream, fake_daemon):
    client = start_stream("--event-content", "\x01" * 120000)
    connection = fake_daemon.accept()
    assert connection.read(5) == b"OPEN\n"
    connection.send(b"FAIL\nToo much.\0")
    connection.close()
    assert client.finish() == failure(REFUSED, "Too much.")


@pytest.mark.parametrize("reply", [b"OK", b"", b"FAIL\nBad requ"])
def test_cut_reply(start_stream, fake_daemon, reply):
    client = start_stream("--event")
    connection = fake_daemon.accept_request()
    connection.send(reply)
    connection.close()
    assert client.finish() == CUT_REPLY


def test_connection_closed_without_a_reply(start_stream, fake_daemon):
    client = start_stream("--event")
    fake_daemon.accept().close()
    assert client.finish() == CUT_REPLY


@pytest.mark.parametrize("reply", [b"HELLO", b"", b"OK\n", b"FAIL", b"ok"])
def test_malformed_reply(start_stream, fake_daemon, reply):
    client = start_stream("--event")
    fake_daemon.accept_request().send(reply + b"\0")
    assert client.finish() == failure(MALFORMED, "The daemon's reply is neither \"OK\" nor \"FAIL\".")


def test_reply_without_end(start_stream, fake_daemon):
    client = start_stream("--event")
    connection = fake_daemon.accept_request()
    with pytest.raises(OSError) as hung_up:
        for _ in range(1024):
            connection.send(b"x" * 4096)
    assert hung_up.value.errno in (errno.EPIPE, errno.ECONNRESET)
    assert client.finish() == failure(MALFORMED, "The daemon's reply is longer than 66048 bytes.")


def test_reply_and_stream_in_pieces(start_stream, fake_daemon, gdp):
    client = start_stream("--event", "--count", "1")
    connection = fake_daemon.accept_request()
    document = gdp.document(DOCUMENTS[0])
    for piece in [b"O", b"K", b"\0", *(document[i:i + 31] for i in range(0, len(document), 31))]:
        connection.send(piece)
        wait_until(lambda: connection.unread_by_client() == 0, "the client takes the piece")
    assert client.finish() == (SUCCESS, LINES[0], b"")


def test_stream_in_the_packet_of_the_reply(start_stream, fake_daemon, gdp):
    client = start_stream("--event", "--count", "3")
    fake_daemon.accept_request().send(b"OK\0" + b"".join(map(gdp.document, DOCUMENTS)))
    assert client.finish() == (SUCCESS, b"".join(LINES), b"")


# The connection


def no_connection(path, cause):
    return failure(NO_CONNECTION, f"Could not connect to '{path}': {cause}.")


def has_socket(client):
    descriptors = f"/proc/{client.process.pid}/fd"
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


def test_no_socket(run_tessardctl, tmp_path):
    path = tmp_path / "nothing"
    assert run_tessardctl("stream", "--event", "--socket", path) == no_connection(path, "No such file or directory")


def test_default_socket_from_the_environment(start_tessardctl, fake_daemon):
    start_tessardctl("stream", "--event", env={"TESSARD_SOCKET": fake_daemon.path})
    assert fake_daemon.accept_request().request == b"OPEN\nevent=1\n\n"


def test_option_overrides_the_environment(start_tessardctl, fake_daemon, tmp_path):
    start_tessardctl("stream", "--event", "--socket", fake_daemon.path, env={"TESSARD_SOCKET": str(tmp_path / "other")})
    assert fake_daemon.accept_request().request == b"OPEN\nevent=1\n\n"


def test_empty_variable_counts_as_unset(run_tessardctl):
    result = run_tessardctl("stream", "--event", "--timeout", "1", env={"TESSARD_SOCKET": ""})
    assert result == no_connection("/run/tessard/metadata", "No such file or directory")


def test_socket_without_a_listener(run_tessardctl, fake_daemon):
    fake_daemon.close()
    result = run_tessardctl("stream", "--event", "--socket", fake_daemon.path)
    assert result == no_connection(fake_daemon.path, "Connection refused")


@pytest.mark.skipif(not run_by_root(), reason="only root can run tessardctl as another user")
@pytest.mark.parametrize("mode, reason", [
    (0o660, "Permission denied; only root and members of the group 'games' can"),
    (0o600, "Permission denied"),
])
def test_socket_of_another_group(run_tessardctl, installation, workspace, mode, reason):
    daemon = FakeDaemon(workspace.folder() / "metadata")
    shutil.chown(daemon.path, group="games")
    os.chmod(daemon.path, mode)
    result = run_tessardctl("stream", "--event", "--socket", daemon.path, cwd="/", user="daemon", group="daemon",
                            extra_groups=[], env=installation.sanitizer_environment())
    assert result == no_connection(daemon.path, reason)
    daemon.close()


def test_path_that_is_too_long_is_not_cut(run_tessardctl, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    path = "p" * 108
    daemon = FakeDaemon(path[:107])
    assert run_tessardctl("stream", "--event", "--socket", path) == no_connection(path, "File name too long")
    daemon.close()


def test_longest_path(start_tessardctl, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    daemon = FakeDaemon("p" * 107)
    start_tessardctl("stream", "--event", "--socket", daemon.path)
    assert daemon.accept_request().request == b"OPEN\nevent=1\n\n"
    daemon.close()


def test_waits_for_room_in_the_backlog(start_tessardctl, busy_daemon):
    client = start_tessardctl("stream", "--event", "--socket", busy_daemon.path)
    wait_until(lambda: has_socket(client), "the client connects")
    busy_daemon.accept().close()
    assert busy_daemon.accept_request().request == b"OPEN\nevent=1\n\n"


def test_time_out_on_a_full_backlog(run_tessardctl, busy_daemon):
    assert run_tessardctl("stream", "--event", "--socket", busy_daemon.path, "--timeout", "0.3") == failure(
        TIMED_OUT, "No reply within 0.3 seconds.")

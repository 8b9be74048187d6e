# SPDX-License-Identifier: MIT
"""A client that shares no code with the daemon: requests and replies over a plain socket, streams through GStreamer's
depayloader."""

import array
import contextlib
import fcntl
import select
import socket
import struct
import termios
import time

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

from documents import Document  # noqa: E402
from waiting import BOUND_SECONDS, wait_until_settled  # noqa: E402

# Looked up here: PyGObject looks them up at first use, which is not safe in several threads at once.
SAMPLE, BUFFER = Gst.Sample, Gst.Buffer
PLAYING, NULL, ERROR = Gst.State.PLAYING, Gst.State.NULL, Gst.MessageType.ERROR

METADATA_CAPS = "application/x-onvif-metadata"

REPLY_MAX_BYTES = 256 * 1024


def header(**fields):
    """Returns header lines: header(ptz=1, video_channel=2)."""
    return "".join(f"{key}={value}\n" for key, value in fields.items())


class ConnectionEnded(Exception):
    """The daemon closed the connection; the text is what arrived before."""


class StreamEnded(Exception):
    """The stream has ended."""


class Client:
    """One connection, from the request to the end of the stream."""

    def __init__(self, path):
        self.stream = None
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        # The kernel's time-out: with Python's, a full backlog is an immediate error.
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", BOUND_SECONDS, 0))
        try:
            self.socket.connect(str(path))
        except OSError:
            self.socket.close()
            raise
        self.socket.settimeout(BOUND_SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def close(self):
        if self.stream is not None:
            self.stream.close()
            self.stream = None
        self.socket.close()

    def close_writing(self):
        self.socket.shutdown(socket.SHUT_WR)

    def send(self, data):
        self.socket.sendall(data)

    def read_reply(self):
        """Reads one reply up to its NUL, and no byte of the stream."""
        reply = b""
        while not reply.endswith(b"\0"):
            if len(reply) > REPLY_MAX_BYTES:
                raise AssertionError("endless reply")
            arrived = self.socket.recv(4096, socket.MSG_PEEK)
            if arrived == b"":
                raise ConnectionEnded(reply)
            end = arrived.find(b"\0")
            reply += self.socket.recv(len(arrived) if end < 0 else end + 1)
        return reply[:-1]

    def read_to_end(self):
        """Reads until the daemon closes the connection. An error instead of the end fails the test."""
        data = b""
        while arrived := self.socket.recv(65536):
            data += arrived
        return data

    def read_exactly(self, size):
        """Reads `size` bytes, which must arrive before the end."""
        data = b""
        while len(data) < size:
            arrived = self.socket.recv(size - len(data))
            if arrived == b"":
                raise ConnectionEnded(data)
            data += arrived
        return data

    def request(self, header):
        """Sends a request with these header lines and returns the text of the reply."""
        self.send_request(header)
        return self.read_reply().decode()

    def send_request(self, header):
        """Sends a request with these header lines without waiting for the reply."""
        self.send(f"OPEN\n{header}\n".encode())

    def has_input(self):
        """Whether data, or the end, has arrived."""
        return select.select([self.socket], [], [], 0)[0] != []

    def start(self, header="event=1\n"):
        """Requests a stream, which must be granted."""
        assert self.request(header) == "OK"
        return self.open_stream()

    def start_reading(self, header="event=1\n"):
        """Starts a stream, and reads its first document."""
        stream = self.start(header)
        stream.next_document()
        return stream

    def open_stream(self):
        self.stream = Stream(self.socket)
        return self.stream

    def sync(self):
        self.send(b"SYNC\n")

    # Data in the socket

    def unread(self):
        """The number of bytes that the client has not read."""
        return self._bytes_in(termios.FIONREAD)

    def unsent(self):
        """The number of bytes that the daemon has not read."""
        return self._bytes_in(termios.TIOCOUTQ)

    def _bytes_in(self, direction):
        count = array.array("i", [0])
        fcntl.ioctl(self.socket, direction, count)
        return count[0]


@contextlib.contextmanager
def stuck_client(daemon, header="event=1\n", seconds=1):
    """A client that reads nothing and whose socket has been full for this time."""
    with daemon.client() as client:
        assert client.request(header) == "OK"

        def request_more():
            client.sync()
            return client.unread()

        wait_until_settled(request_more, "the client's socket is full", seconds)
        assert client.unread() > 0
        yield client


class Stream:
    """The stream after the reply "OK", document by document."""

    def __init__(self, connection):
        self.pipeline = Gst.parse_launch("fdsrc name=source ! gdpdepay ! appsink name=sink sync=false")
        self.sink = self.pipeline.get_by_name("sink")
        # The pipeline's own descriptor can outlive the client's.
        self.connection = connection.dup()
        self.pipeline.get_by_name("source").set_property("fd", self.connection.fileno())
        self.pipeline.set_state(PLAYING)

    def read_no_further_than(self, count):
        """Stops reading while `count` documents have not been taken."""
        self.sink.set_property("max-buffers", count)

    def next_document(self, seconds=BOUND_SECONDS):
        """The next document, parsed and validated."""
        return Document(self.next_data(seconds))

    def next_data(self, seconds=BOUND_SECONDS):
        """The bytes of the next document, for tests with more documents than can be validated in time."""
        sample = self.sink.emit("try-pull-sample", int(seconds * Gst.SECOND))
        if sample is None:
            self._fail_unless_ended(seconds)
            raise StreamEnded
        assert sample.get_caps().get_structure(0).get_name() == METADATA_CAPS
        buffer = sample.get_buffer()
        return buffer.extract_dup(0, buffer.get_size())

    def _fail_unless_ended(self, seconds):
        message = self.pipeline.get_bus().pop_filtered(ERROR)
        assert message is None, f"the stream is broken: {message.parse_error()}"
        assert self.sink.get_property("eos"), f"no document within {seconds} s"

    def documents(self, seconds=BOUND_SECONDS):
        """Yields documents; fails if the test still needs one after this time."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            yield self.next_document()
        raise AssertionError(f"the expected documents did not arrive within {seconds} s")

    def events(self):
        """Yields the events of the documents, with the same time limit."""
        for document in self.documents():
            yield from document.events

    def statuses(self):
        """Yields the PTZ statuses outside of frames, with the same time limit."""
        for document in self.documents():
            yield from document.ptz

    def frames(self):
        """Yields the frames of the documents, with the same time limit."""
        for document in self.documents():
            yield from document.frames

    def read_to_end(self):
        """Reads until the daemon ends the stream; all documents before the end must be complete."""
        with contextlib.suppress(StreamEnded):
            for _ in self.documents():
                pass

    def close(self):
        self.pipeline.set_state(NULL)
        self.connection.close()

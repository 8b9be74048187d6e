# SPDX-License-Identifier: MIT
"""The daemon's side of the client protocol, one step at a time.

A test starts the client and then makes each step of the connection: accept it, read the request, send the reply, send
a part of the stream, read what the client sends. No step waits longer than BOUND_SECONDS."""

import fcntl
import socket
import struct
import termios

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstApp", "1.0")
from gi.repository import Gst, GstApp  # noqa: E402,F401  (GstApp adds the methods of appsrc and appsink)

from waiting import BOUND_SECONDS  # noqa: E402

METADATA_CAPS = "application/x-onvif-metadata"

# The packet header of the GStreamer data protocol: the position of the type, the type of a packet with a buffer, and
# the position of the payload length.
GDP_TYPE = slice(4, 6)
GDP_BUFFER = b"\x00\x01"
GDP_LENGTH = slice(6, 10)
GDP_HEADER_BYTES = 62

# The longest document that tessardctl reads.
MAX_DOCUMENT_BYTES = 64 * 1024 * 1024


def metadata(text):
    return ('<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema">'
            f"<tt:Event>{text}</tt:Event></tt:MetadataStream>").encode()


# Some documents, and the lines that tessardctl prints for them.
DOCUMENTS = [metadata("first"), metadata("second"), metadata("third")]
LINES = [document + b"\n" for document in DOCUMENTS]


class FakeDaemon:
    """A listening socket at a path."""

    def __init__(self, path, backlog=10):
        self.path = str(path)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.settimeout(BOUND_SECONDS)
        self.listener.bind(self.path)
        self.listener.listen(backlog)
        self.connections = []

    def accept(self):
        """Accepts the next client. Closing the daemon closes the connection."""
        self.connections.append(Connection(self.listener.accept()[0]))
        return self.connections[-1]

    def accept_request(self):
        """Accepts a client and reads its request; leaves the reply to the caller."""
        connection = self.accept()
        connection.request = connection.read_request()
        return connection

    def accept_stream(self):
        """Accepts a client, reads its request and sends the reply "OK"."""
        connection = self.accept_request()
        connection.send(b"OK\0")
        return connection

    def close(self):
        for connection in self.connections:
            connection.close()
        self.listener.close()


class Connection:
    """The daemon's side of one connection."""

    def __init__(self, sock):
        self.sock = sock
        self.sock.settimeout(BOUND_SECONDS)
        self.request = None

    def read_request(self):
        data = b""
        while not data.endswith(b"\n\n"):
            chunk = self.sock.recv(65536)
            assert chunk, f"the client closed the connection within its request, after {data!r}"
            data += chunk
        return data

    def read(self, size):
        """Reads `size` bytes from the client, fewer only at the end of the connection."""
        data = b""
        while len(data) < size:
            chunk = self.sock.recv(size - len(data))
            if not chunk:
                break
            data += chunk
        return data

    def read_to_end(self):
        data = b""
        while chunk := self.sock.recv(65536):
            data += chunk
        return data

    def send(self, data):
        self.sock.sendall(data)

    def unread_by_client(self):
        """The number of sent bytes, with the kernel's overhead, that the client has not read."""
        return struct.unpack("i", fcntl.ioctl(self.sock, termios.TIOCOUTQ, b"\0" * 4))[0]

    def close(self):
        self.sock.close()


class GdpStream:
    """Converts documents to the bytes that the daemon's payloader makes."""

    def __init__(self, caps=METADATA_CAPS, checksum=True):
        Gst.init(None)
        self.pipeline = Gst.parse_launch(
            f"appsrc name=source format=time caps={caps} ! gdppay crc-header={checksum} "
            "! appsink name=sink sync=false")
        self.source = self.pipeline.get_by_name("source")
        self.sink = self.pipeline.get_by_name("sink")
        self.time = 0
        self.pipeline.set_state(Gst.State.PLAYING)

    def document(self, data):
        """The packets that end with the document; the first ones of a stream also carry its caps."""
        return b"".join(self.packets(data))

    def packets(self, data):
        buffer = Gst.Buffer.new_allocate(None, len(data), None)
        buffer.fill(0, data)
        buffer.pts = self.time
        self.time += Gst.MSECOND
        assert self.source.push_buffer(buffer) == Gst.FlowReturn.OK
        packets = [self.__pull()]
        while packets[-1][GDP_TYPE] != GDP_BUFFER:
            packets.append(self.__pull())
        return packets

    def close(self):
        self.pipeline.set_state(Gst.State.NULL)

    def __pull(self):
        sample = self.sink.try_pull_sample(BOUND_SECONDS * Gst.SECOND)
        assert sample is not None, "no packet from the payloader"
        buffer = sample.get_buffer()
        return buffer.extract_dup(0, buffer.get_size())


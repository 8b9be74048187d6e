# SPDX-License-Identifier: MIT
"""An RTSP client that shares no code with the server: requests and replies, and media interleaved with them."""

import hashlib
import re
import socket
import ssl
import struct
import time

from documents import Document
from waiting import BOUND_SECONDS

INTERLEAVED = b"$"
MARKER = 0x80
SENDER_REPORT = 200

NTP_EPOCH = 2208988800
CLOCK_RATE = 90000


class Reply:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body


class Packet:
    """An RTP packet without extensions."""

    def __init__(self, data):
        assert data[0] == 0x80, "neither padding, nor extension, nor further sources"
        self.marker = bool(data[1] & MARKER)
        self.payload_type = data[1] & ~MARKER
        self.number, self.time, self.source = struct.unpack("!HII", data[2:12])
        self.payload = data[12:]


class SenderReport:
    """The begin of an RTCP packet: a source's RTP time and the wall clock at the same moment."""

    def __init__(self, data):
        self.source, seconds, fraction, self.time = struct.unpack("!IIII", data[4:20])
        self.clock = seconds - NTP_EPOCH + fraction / 2**32


class Ended(Exception):
    """The server closed the connection."""


class RtspClient:
    """One connection. With `user`, a pair of name and password, requests have the digest for the realm that the server
    names."""

    def __init__(self, port, user=None, tls=None, receive_bytes=None):
        self.user = user
        self.socket = socket.socket()
        if receive_bytes:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        self.socket.settimeout(BOUND_SECONDS)
        self.socket.connect(("127.0.0.1", port))
        self.base = f"rtsp{'s' if tls else ''}://127.0.0.1:{port}/1"
        if tls:
            self.socket = tls.wrap_socket(self.socket, server_hostname="127.0.0.1")
        self.buffer = b""
        self.count = 0
        self.session = None
        self.challenge = None
        self.channels = {}
        self.packets = []
        self.reports = []

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def close(self):
        self.socket.close()

    # Requests

    def send(self, method, url=None, headers=None):
        self.count += 1
        lines = [f"{method} {url or self.base} RTSP/1.0", f"CSeq: {self.count}"]
        lines += [f"{name}: {value}" for name, value in (headers or {}).items()]
        if self.session:
            lines.append(f"Session: {self.session}")
        if self.challenge:
            lines.append(f"Authorization: {self.__digest(method, url or self.base)}")
        self.socket.sendall("".join(f"{line}\r\n" for line in [*lines, ""]).encode())

    def request(self, method, url=None, headers=None):
        """Sends a request and returns its reply. After the first refusal, requests have the user's digest."""
        self.send(method, url, headers)
        reply = self.read_reply()
        if reply.status == 401 and self.user and not self.challenge:
            self.challenge = dict(re.findall(r'(\w+)="([^"]*)"', reply.headers["www-authenticate"]))
            return self.request(method, url, headers)
        return reply

    def __digest(self, method, url):
        def md5(*parts):
            return hashlib.md5(":".join(parts).encode()).hexdigest()

        name, password = self.user
        realm, nonce = self.challenge["realm"], self.challenge["nonce"]
        response = md5(md5(name, realm, password), nonce, md5(method, url))
        return f'Digest username="{name}", realm="{realm}", nonce="{nonce}", uri="{url}", response="{response}"'

    def describe(self):
        """The session description."""
        reply = self.request("DESCRIBE", headers={"Accept": "application/sdp"})
        assert reply.status == 200, reply.status
        return reply.body.decode()

    def setup(self, track, channel):
        """Sets a track up on this channel of the connection, and the next one for its reports."""
        return self.setup_transport(track, f"RTP/AVP/TCP;unicast;interleaved={channel}-{channel + 1}")

    def setup_transport(self, track, transport):
        reply = self.request("SETUP", f"{self.base}/stream={track}", {"Transport": transport})
        assert reply.status == 200, reply.status
        self.session = reply.headers["session"].partition(";")[0]
        return reply.headers["transport"]

    def play(self):
        """Starts all tracks."""
        reply = self.request("PLAY")
        assert reply.status == 200, reply.status
        return reply

    def start(self, tracks=2):
        """Plays all tracks on this connection, the first one on channel 0."""
        self.describe()
        for track in range(tracks):
            self.setup(track, 2 * track)
        self.play()
        return self

    # What arrives

    def read_reply(self):
        while True:
            message = self.__next()
            if isinstance(message, Reply):
                return message
            self.__keep(message)

    def next_packet(self, channel):
        """The next packet of the channel. The reports of all channels are kept."""
        while True:
            for index, (found, packet) in enumerate(self.packets):
                if found == channel:
                    del self.packets[index]
                    return packet
            message = self.__next()
            assert not isinstance(message, Reply)
            self.__keep(message)

    def next_text(self, channel):
        """The next document of the channel as text."""
        payload = b""
        while True:
            packet = self.next_packet(channel)
            payload += packet.payload
            if packet.marker:
                return payload

    def documents(self, channel, seconds=BOUND_SECONDS):
        """The documents of the channel, checked, until the time is over."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            yield Document(self.next_text(channel))

    def document_with(self, channel, condition):
        """The next document for which the condition holds."""
        for document in self.documents(channel):
            if condition(document):
                return document
        raise AssertionError("no such document in time")

    def __keep(self, message):
        channel, data = message
        if channel % 2 == 0:
            self.packets.append((channel, Packet(data)))
        elif data[1] == SENDER_REPORT:
            self.reports.append((channel, SenderReport(data)))

    def __next(self):
        """The next reply, or a channel and its data."""
        if self.__peek(1) == INTERLEAVED:
            _, channel, size = struct.unpack("!cBH", self.__take(4))
            return channel, self.__take(size)
        while b"\r\n\r\n" not in self.buffer:
            self.__receive()
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        first, *lines = head.decode().split("\r\n")
        headers = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines)}
        return Reply(int(first.split()[1]), headers, self.__take(int(headers.get("content-length", 0))))

    def __peek(self, size):
        while len(self.buffer) < size:
            self.__receive()
        return self.buffer[:size]

    def __take(self, size):
        data = self.__peek(size)
        self.buffer = self.buffer[size:]
        return data

    def __receive(self):
        try:
            data = self.socket.recv(65536)
        except ConnectionResetError:
            data = b""
        if not data:
            raise Ended
        self.buffer += data


def trusting():
    """TLS that accepts every certificate."""
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context

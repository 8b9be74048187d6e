# SPDX-License-Identifier: MIT
"""tessard-view of the installation as a process, and its clients."""

import contextlib
import http.client
import json
import re
import socket
import time

from daemon import INFO
from gatewayprocess import GatewayProcess
from installation import TREE, defined_limits
from waiting import BOUND_SECONDS

LIMITS = defined_limits(TREE / "gateways/view/viewlimits.h")

PICTURE = re.compile(rb"--picture\r\nContent-Type: image/jpeg\r\nContent-Length: (\d+)\r\n\r\n")


class View(GatewayProcess):
    """One tessard-view at a free port, or at a UNIX socket with the option --listen; by default for events alone, which
    every daemon of the tests has."""

    def __init__(self, installation, bus, socket_path, *options, kinds=("--event",), **more):
        place = () if "--listen" in options else ("--port", 0)
        super().__init__(installation, bus, "tessard-view", "--socket", socket_path, "--bus", bus.address, *place,
                         *kinds, *options, **more)
        self.address, _, token = self.url.partition("#token=")
        self.token = token or None
        self.path = self.address.removeprefix("unix:") if self.address.startswith("unix:") else None
        self.port = None if self.path else int(self.address.rpartition(":")[2].strip("/"))
        self.host = "localhost" if self.path else f"127.0.0.1:{self.port}"
        assert self.log.take_first() == (INFO, f"Ready at {self.address}.")

    def connect(self, receive_bytes=None):
        peer = socket.socket(socket.AF_UNIX if self.path else socket.AF_INET)
        if receive_bytes:
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        peer.settimeout(BOUND_SECONDS)
        peer.connect(self.path or ("127.0.0.1", self.port))
        return peer

    def request(self, method, path, body=None, headers=None):
        """The reply to one request, with its body read. The host is the server's own without a header."""
        connection = http.client.HTTPConnection("ignored", timeout=BOUND_SECONDS)
        connection.sock = self.connect()
        with contextlib.closing(connection):
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            headers = {"Host": self.host} | (headers or {})
            if body is not None:
                headers = {"Content-Length": str(len(body))} | headers
            for name, value in headers.items():
                if value is not None:
                    connection.putheader(name, value)
            connection.endheaders(body)
            reply = connection.getresponse()
            reply.text = reply.read()
            return reply

    def get(self, path, **headers):
        return self.request("GET", path, headers=headers)

    def post(self, body, **headers):
        """A switch with all that it needs; a header of None is left out."""
        headers = {"Authorization": f"Bearer {self.token}", "Origin": f"http://{self.host}",
                   "Content-Type": "application/json"} | headers
        text = body if isinstance(body, bytes) else json.dumps(body).encode()
        return self.request("POST", "/producers", text, headers)

    @contextlib.contextmanager
    def stream(self, channel=1, receive_bytes=None):
        with contextlib.closing(Stream(self, channel, receive_bytes)) as stream:
            yield stream

    @contextlib.contextmanager
    def pictures(self, channel=1):
        """An iterator over pictures."""
        with contextlib.closing(self.connect()) as peer:
            yield read_pictures(Reply(peer, f"/video?channel={channel}", self.host))


def error_of(reply):
    """The text for the user of a refusal."""
    assert reply.getheader("Content-Type") == "application/json"
    (name, text), = json.loads(reply.text).items()
    assert name == "error"
    return text


class Reply:
    """A reply whose body has no end."""

    def __init__(self, peer, path, host):
        self.peer = peer
        peer.sendall(f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode())
        self.data = b""
        self.head = self.read_until(b"\r\n\r\n")

    def fill(self):
        data = self.peer.recv(65536)
        if not data:
            raise ConnectionError("the server has closed the connection")
        self.data += data

    def read_until(self, end):
        """The data before these bytes, which are read too."""
        while end not in self.data:
            self.fill()
        found, _, self.data = self.data.partition(end)
        return found

    def read(self, size):
        while len(self.data) < size:
            self.fill()
        found, self.data = self.data[:size], self.data[size:]
        return found


def read_pictures(reply):
    assert b"Content-Type: multipart/x-mixed-replace; boundary=picture" in reply.head.splitlines()
    while True:
        head = reply.read_until(b"\r\n\r\n") + b"\r\n\r\n"
        yield reply.read(int(PICTURE.fullmatch(head).group(1)))
        assert reply.read(2) == b"\r\n"


class Stream:
    """A client of a channel's events."""

    def __init__(self, view, channel=1, receive_bytes=None):
        self.peer = view.connect(receive_bytes)
        self.reply = Reply(self.peer, f"/stream?channel={channel}", view.host)
        self.comments = 0

    def close(self):
        self.peer.close()

    def next(self, deadline=None):
        """The name of the next event and its data."""
        deadline = deadline or time.monotonic() + BOUND_SECONDS
        while time.monotonic() < deadline:
            text = self.reply.read_until(b"\n\n").decode()
            if text != ":":
                first, second = text.split("\n")
                assert first.startswith("event: ") and second.startswith("data: "), text
                return first.removeprefix("event: "), json.loads(second.removeprefix("data: "))
            self.comments += 1
        raise TimeoutError("no event in time")

    def find(self, name, condition=lambda data: True):
        """The data of the next event of a name for which the condition is true."""
        deadline = time.monotonic() + BOUND_SECONDS
        while True:
            found, data = self.next(deadline)
            if found == name and condition(data):
                return data

"""Requests that are never finished: what they are answered and when."""

import select
import socket
import threading
import time

from client import Client, ConnectionEnded
from installation import documented_limit

TIMEOUT_SECONDS = documented_limit("server.h", "SERVER_REQUEST_TIMEOUT_MS") / 1000

# How much later than its time-out an answer may come on a busy machine.
TOLERANCE_SECONDS = 10


class OverdueRequest(threading.Thread):
    """Sends a first piece of a request and, if wanted, one more byte now and then, until there is an answer."""

    def __init__(self, path, first, trickle=b"", pause_seconds=1):
        super().__init__(daemon=True)
        self.began = time.monotonic()
        self.client = Client(path)
        self.client.socket.settimeout(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        self.first = first
        self.trickle = trickle
        self.pause_seconds = pause_seconds
        self.answer = None
        self.seconds = None
        self.start()

    def run(self):
        try:
            self.client.send(self.first)
            while self.trickle and not select.select([self.client.socket], [], [], self.pause_seconds)[0]:
                self.client.send(self.trickle)
            self.answer = self.client.read_reply().decode()
        except (ConnectionEnded, OSError) as end:
            self.answer = repr(end)
        self.seconds = time.monotonic() - self.began

    def wait(self):
        self.join(TIMEOUT_SECONDS + TOLERANCE_SECONDS)
        assert not self.is_alive()

    def give_up(self):
        self.client.socket.shutdown(socket.SHUT_RDWR)
        self.wait()
        self.client.close()


class OverdueRequests:
    """One of each kind; they take both of the daemon's request threads."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.silent = OverdueRequest(daemon.socket_path, b"")
        self.trickling = OverdueRequest(daemon.socket_path, b"OPEN\nevent=", b"1")

    def close(self):
        for request in (self.silent, self.trickling):
            request.give_up()

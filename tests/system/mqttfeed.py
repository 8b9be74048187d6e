# SPDX-License-Identifier: MIT
"""A fake daemon that feeds tessard-mqtt."""

from fakedaemon import GdpStream
from waiting import wait_until


class Feed:
    """A fake daemon's streams of events and of other metadata, with documents in them."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.streams = {}

    def send(self, *documents):
        for data in documents:
            connection, gdp = self._stream(b":Event" in data)
            connection.send(gdp.document(data))

    def _stream(self, has_events):
        while has_events not in self.streams:
            connection = self.daemon.accept_stream()
            self.streams[b"event=1" in connection.request] = connection, GdpStream()
        return self.streams[has_events]

    def wait_until_read(self):
        wait_until(lambda: all(connection.unread_by_client() == 0 for connection, _ in self.streams.values()),
                   "the gateway has read all documents")

    def close(self):
        for connection, gdp in self.streams.values():
            connection.close()
            gdp.close()
        self.streams.clear()

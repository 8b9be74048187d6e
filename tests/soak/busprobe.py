#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Calls two peers on the bus periodically, and prints the latencies of their replies once a second: BUS-ADDRESS.

Calls are sent on time even if earlier ones have no reply, so the whole duration of a hang is measured. This is a
separate process, which the load cannot delay."""

import json
import signal
import sys
import time

from gi.repository import Gio, GLib

import idlepeer
from records import CALL, DAEMON, IDLE_PEER, PING, series_name

PERIOD_MS = 50
PRINT_MS = 1000

# The bus would refuse more pending calls.
MAX_OPEN = 30

# Calls without a reply within this time count with it.
TIMEOUT_MS = 20_000

PEER, PROPERTIES = "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"

# Name, path, interface and property.
ADDRESSES = {
    DAEMON: ("com.quon.MetadataServer1", "/com/quon/MetadataServer1/Producers/VideoMotionTracker",
             "com.quon.MetadataServer1.Producer", "Name"),
    IDLE_PEER: (idlepeer.NAME, idlepeer.PATH, idlepeer.INTERFACE, idlepeer.PROPERTY),
}


class Series:
    """One probe to one peer."""

    def __init__(self, connection, name, path, interface, method, arguments):
        self.connection = connection
        self.destination = (name, path, interface, method, arguments)
        self.due = time.monotonic()
        # The times of calls without a reply.
        self.open = []
        # The times of due calls that were not sent because too many were pending.
        self.held = []
        self.taken_ms = []

    def send_due_calls(self):
        """Sends all due calls, including those of times at which this process did not run."""
        now = time.monotonic()
        while self.due <= now:
            self.due += PERIOD_MS / 1000
            self._send(now)
        return True

    def _send(self, now):
        if len(self.open) >= MAX_OPEN:
            self.held.append(now)
            return
        self.open.append(now)
        self.connection.call(*self.destination, None, Gio.DBusCallFlags.NO_AUTO_START, TIMEOUT_MS, None,
                             self._on_reply, now)

    def _on_reply(self, connection, result, sent):
        replied = time.monotonic()
        self.open.remove(sent)
        try:
            connection.call_finish(result)
        except GLib.Error:
            # Each error counts as no reply.
            self.taken_ms.append(float(TIMEOUT_MS))
            return
        self.taken_ms += [(replied - due) * 1000 for due in (sent, *self.held)]
        self.held.clear()

    def count_pending(self):
        """Adds the latencies of pending calls up to now."""
        now = time.monotonic()
        self.taken_ms += [(now - due) * 1000 for due in (*self.open, *self.held)]

    def take(self):
        taken, self.taken_ms = self.taken_ms, []
        return [round(value, 3) for value in taken]


def make_series(address):
    series = {}
    for peer, (name, path, interface, prop) in ADDRESSES.items():
        connection = Gio.DBusConnection.new_for_address_sync(address, idlepeer.FLAGS, None, None)
        series[series_name(peer, PING)] = Series(connection, name, path, PEER, "Ping", None)
        series[series_name(peer, CALL)] = Series(connection, name, path, PROPERTIES, "Get",
                                                 GLib.Variant("(ss)", (interface, prop)))
    return series


def main():
    series = make_series(sys.argv[1])
    loop = GLib.MainLoop()

    def print_latencies():
        print(json.dumps({name: one.take() for name, one in series.items()}), flush=True)
        return True

    for one in series.values():
        GLib.timeout_add(PERIOD_MS, one.send_due_calls)
    GLib.timeout_add(PRINT_MS, print_latencies)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    loop.run()
    for one in series.values():
        one.count_pending()
    print_latencies()


if __name__ == "__main__":
    main()

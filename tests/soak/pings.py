#!/usr/bin/python3
"""Asks two peers on the bus again and again, and prints once a second how long their answers took: BUS-ADDRESS.

Questions go out at their time whether the one before has been answered or not, so that a peer that stands still is seen
for as long as it does. This is a process of its own, which nothing of the load can hold up."""

import json
import signal
import sys
import time

from gi.repository import Gio, GLib

import idlepeer
from records import CALL, DAEMON, IDLE_PEER, PING, series_name

PERIOD_MS = 50
TELL_MS = 1000

# Of more, the bus would refuse some.
MAX_OPEN = 30

# What is not answered within this time counts with it.
TIMEOUT_MS = 20_000

PEER, PROPERTIES = "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"

# Name, path, interface and property.
ADDRESSES = {
    DAEMON: ("com.quon.MetadataServer1", "/com/quon/MetadataServer1/Producers/VideoMotionTracker",
             "com.quon.MetadataServer1.Producer", "Name"),
    IDLE_PEER: (idlepeer.NAME, idlepeer.PATH, idlepeer.INTERFACE, idlepeer.PROPERTY),
}


class Series:
    """One question to one peer."""

    def __init__(self, connection, name, path, interface, method, arguments):
        self.connection = connection
        self.destination = (name, path, interface, method, arguments)
        self.due = time.monotonic()
        # When those were asked that have no answer yet.
        self.open = []
        # When questions were due that could not be asked because too many were open.
        self.held = []
        self.taken_ms = []

    def ask_what_is_due(self):
        """Also what was due while this process had no processor."""
        now = time.monotonic()
        while self.due <= now:
            self.due += PERIOD_MS / 1000
            self._ask(now)
        return True

    def _ask(self, now):
        if len(self.open) >= MAX_OPEN:
            self.held.append(now)
            return
        self.open.append(now)
        self.connection.call(*self.destination, None, Gio.DBusCallFlags.NO_AUTO_START, TIMEOUT_MS, None,
                             self._on_answer, now)

    def _on_answer(self, connection, result, asked):
        answered = time.monotonic()
        self.open.remove(asked)
        try:
            connection.call_finish(result)
        except GLib.Error:
            # No answer, for whatever reason.
            self.taken_ms.append(float(TIMEOUT_MS))
            return
        self.taken_ms += [(answered - due) * 1000 for due in (asked, *self.held)]
        self.held.clear()

    def give_up(self):
        """What is not answered by now took so long at the least."""
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

    def tell():
        print(json.dumps({name: one.take() for name, one in series.items()}), flush=True)
        return True

    for one in series.values():
        GLib.timeout_add(PERIOD_MS, one.ask_what_is_due)
    GLib.timeout_add(TELL_MS, tell)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    loop.run()
    for one in series.values():
        one.give_up()
    tell()


if __name__ == "__main__":
    main()

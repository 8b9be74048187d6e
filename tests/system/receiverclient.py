# SPDX-License-Identifier: MIT
"""A client of the metadata receiver: the producers on the bus, their signals and their streams."""

import json
import os
import select
import struct

import pytest
from gi.repository import Gio, GLib

from busclient import BusClient
from waiting import BOUND_SECONDS, wait_until

NAME = "com.quon.MetadataReceiver1"
ROOT = "/com/quon/MetadataReceiver1/Producers"
PRODUCER = "com.quon.MetadataReceiver1.Producer"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"

LENGTH = struct.Struct("=I")


def path_of(name):
    return f"{ROOT}/{name}"


class Stream:
    """One stream's descriptor. Each read has a time limit."""

    def __init__(self, fd):
        self.fd = fd

    def is_blocking(self):
        return os.get_blocking(self.fd)

    def has_something(self, seconds=0):
        """Whether data, or the end, arrives within this time."""
        poll = select.poll()
        poll.register(self.fd, select.POLLIN)
        return bool(poll.poll(seconds * 1000))

    def read_some(self, size):
        """Reads as soon as there is data; returns no bytes at the end."""
        if not self.has_something(BOUND_SECONDS):
            pytest.fail(f"nothing to read within {BOUND_SECONDS} s")
        return os.read(self.fd, size)

    def _read(self, size):
        data = b""
        while len(data) < size:
            some = self.read_some(size - len(data))
            assert some, "the stream has ended"
            data += some
        return data

    def message(self):
        """The bytes of the next message."""
        (length,) = LENGTH.unpack(self._read(LENGTH.size))
        return self._read(length)

    def messages(self, count):
        return [self.message() for _ in range(count)]

    def messages_to_end(self):
        data = b""
        while some := self.read_some(1 << 20):
            data += some
        messages = []
        while data:
            (length,) = LENGTH.unpack_from(data)
            messages.append(data[LENGTH.size:LENGTH.size + length])
            data = data[LENGTH.size + length:]
        return messages

    def item(self):
        """The next message as an item."""
        return json.loads(self.message())

    def expect_end(self):
        """Expects the end of the stream, possibly after more data."""
        while self.read_some(65536):
            pass

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
        self.fd = -1


class ReceiverClient(BusClient):
    """One connection. close() closes the streams that it opened."""

    def __init__(self, bus):
        super().__init__(bus)
        self.streams = []

    def producers(self):
        """Properties by object path, from the object manager."""
        return self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").unpack()[0]

    def names(self):
        return {path.removeprefix(f"{ROOT}/") for path in self.producers()}

    def properties(self, name):
        """The text form of a producer's properties, from the object manager."""
        objects = self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").get_child_value(0)
        interfaces = objects.lookup_value(path_of(name), GLib.VariantType("a{sa{sv}}"))
        return interfaces.lookup_value(PRODUCER, GLib.VariantType("a{sv}")).print_(True)

    def request_sample_frame(self, name, **arguments):
        """Returns the reply, which may have any type."""
        return self.call(NAME, path_of(name), PRODUCER, "GetSampleFrame", **arguments)

    def sample_frame(self, name):
        return self.request_sample_frame(name).unpack()[0]

    def request_stream(self, name, channel=1, seconds=BOUND_SECONDS):
        """Returns the reply, which may have any type, and the list of its descriptors."""
        return self.connection.call_with_unix_fd_list_sync(
            NAME, path_of(name), PRODUCER, "GetStreamFd", GLib.Variant("(i)", (channel,)), None,
            Gio.DBusCallFlags.NO_AUTO_START, int(seconds * 1000), None, None)

    def open(self, name, channel=1):
        reply, descriptors = self.request_stream(name, channel)
        assert reply.get_type_string() == "(h)"
        (fd,) = descriptors.steal_fds()
        assert reply.unpack() == (0,)
        self.streams.append(Stream(fd))
        return self.streams[-1]

    def close(self):
        for stream in self.streams:
            stream.close()
        super().close()


class Watcher:
    """An object manager client like the daemon's; `seen` has its signals in order."""

    def __init__(self, bus):
        self.context = GLib.MainContext()
        self.context.push_thread_default()
        self.client = BusClient(bus)
        self.manager = Gio.DBusObjectManagerClient.new_sync(
            self.client.connection, Gio.DBusObjectManagerClientFlags.NONE, NAME, ROOT, None, None, None)
        self.seen = []
        self.manager.connect("object-added", lambda _, added: self.seen.append(("added", *self._names(added))))
        self.manager.connect("object-removed", lambda _, removed: self.seen.append(("removed", *self._names(removed))))
        self.context.pop_thread_default()

    @staticmethod
    def _names(found):
        """The last part of the object's path, and its property Name."""
        interface = found.get_interface(PRODUCER)
        name = interface.get_cached_property("Name") if interface else None
        return found.get_object_path().removeprefix(f"{ROOT}/"), name.print_(True) if name else None

    def wait(self, count):
        """Waits for `count` signals, and returns all so far."""
        def has_seen():
            while self.context.iteration(False):
                pass
            return len(self.seen) >= count

        # The manager's own calls get their replies in the context that is current at the time of the call.
        self.context.push_thread_default()
        try:
            wait_until(has_seen, f"{count} signals")
        finally:
            self.context.pop_thread_default()
        return self.seen

    def close(self):
        self.client.close()

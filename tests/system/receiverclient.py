"""What the daemon sees of the metadata receiver: producers that come and go, and their streams."""

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
    """One stream's descriptor. Every read has a bound."""

    def __init__(self, fd):
        self.fd = fd

    def is_blocking(self):
        return os.get_blocking(self.fd)

    def has_something(self, seconds=0):
        """Whether there are bytes, or the end, within so long."""
        poll = select.poll()
        poll.register(self.fd, select.POLLIN)
        return bool(poll.poll(seconds * 1000))

    def read_some(self, size):
        """What a read gives as soon as there is anything; nothing at the end."""
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
        """The next message's bytes."""
        (length,) = LENGTH.unpack(self._read(LENGTH.size))
        return self._read(length)

    def messages(self, count):
        return [self.message() for _ in range(count)]

    def item(self):
        """The next message as the item that it should be."""
        return json.loads(self.message())

    def expect_end(self):
        """The stream has ended, whatever may have been on its way."""
        while self.read_some(65536):
            pass

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
        self.fd = -1


class ReceiverClient(BusClient):
    """Asks the metadata receiver. Whatever streams it opens, close() closes."""

    def __init__(self, bus):
        super().__init__(bus)
        self.streams = []

    def producers(self):
        """Properties by object path, as the object manager tells."""
        return self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").unpack()[0]

    def names(self):
        return {path.removeprefix(f"{ROOT}/") for path in self.producers()}

    def properties(self, name):
        """The text form of a producer's properties, as the object manager tells."""
        objects = self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").get_child_value(0)
        interfaces = objects.lookup_value(path_of(name), GLib.VariantType("a{sa{sv}}"))
        return interfaces.lookup_value(PRODUCER, GLib.VariantType("a{sv}")).print_(True)

    def ask_sample_frame(self, name, **arguments):
        """The reply, whatever it is."""
        return self.call(NAME, path_of(name), PRODUCER, "GetSampleFrame", **arguments)

    def sample_frame(self, name):
        return self.ask_sample_frame(name).unpack()[0]

    def ask_stream(self, name, channel=1, seconds=BOUND_SECONDS):
        """The reply, whatever it is, and the list of its descriptors."""
        return self.connection.call_with_unix_fd_list_sync(
            NAME, path_of(name), PRODUCER, "GetStreamFd", GLib.Variant("(i)", (channel,)), None,
            Gio.DBusCallFlags.NO_AUTO_START, int(seconds * 1000), None, None)

    def open(self, name, channel=1):
        reply, descriptors = self.ask_stream(name, channel)
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
    """An object manager client, as the daemon has one: what it was told, in its order."""

    def __init__(self, bus):
        self.context = GLib.MainContext()
        self.context.push_thread_default()
        self.client = BusClient(bus)
        self.manager = Gio.DBusObjectManagerClient.new_sync(
            self.client.connection, Gio.DBusObjectManagerClientFlags.NONE, NAME, ROOT, None, None, None)
        self.told = []
        self.manager.connect("object-added", lambda _, added: self.told.append(("added", *self._see(added))))
        self.manager.connect("object-removed", lambda _, gone: self.told.append(("removed", *self._see(gone))))
        self.context.pop_thread_default()

    @staticmethod
    def _see(seen):
        """The object's own name, and what it says that it is."""
        interface = seen.get_interface(PRODUCER)
        name = interface.get_cached_property("Name") if interface else None
        return seen.get_object_path().removeprefix(f"{ROOT}/"), name.print_(True) if name else None

    def wait(self, count):
        """Waits until it was told so much, and returns that."""
        def is_told():
            while self.context.iteration(False):
                pass
            return len(self.told) >= count

        # What the manager asks while it is told something is answered in the context of then.
        self.context.push_thread_default()
        try:
            wait_until(is_told, f"told {count} times")
        finally:
            self.context.pop_thread_default()
        return self.told

    def close(self):
        self.client.close()

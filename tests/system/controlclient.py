# SPDX-License-Identifier: MIT
"""A client on the bus that lists, enables and disables the daemon's producers."""

from gi.repository import GLib

from busclient import PROPERTIES, BusClient

NAME = "com.quon.MetadataServer1"
ROOT = "/com/quon/MetadataServer1/Producers"
PRODUCER = "com.quon.MetadataServer1.Producer"
MANAGER = "com.quon.MetadataServer1.ProducerManager"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
STATUS_PATH = "/com/quon/MetadataServer1/Status"
STATUS = "com.quon.MetadataServer1.Status"


def path_of(producer):
    return f"{ROOT}/{producer}"


class ControlClient(BusClient):
    """One connection. Its calls return Python values."""

    def objects(self):
        """The paths of all producers."""
        return set(self.call(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects").unpack()[0])

    def status(self):
        """What the daemon tells about itself."""
        return self.call(NAME, STATUS_PATH, STATUS, "GetStatus").unpack()[0]

    def properties(self, producer):
        return self.call(NAME, path_of(producer), PROPERTIES, "GetAll", GLib.Variant("(s)", (PRODUCER,))).unpack()[0]

    def channels(self, producer):
        """(channel, enabled, name) of every channel."""
        return self.get(NAME, path_of(producer), PRODUCER, "ChannelsEnabled").unpack()[0]

    def names(self, *producers):
        """The configuration name of each channel of these producers, empty if disabled."""
        return {(producer, channel): name for producer in producers for channel, _, name in self.channels(producer)}

    def set_channels(self, producer, *channels):
        reply = self.call(NAME, path_of(producer), PRODUCER, "SetChannelsEnabled",
                          GLib.Variant("(a(ibs))", (channels,)))
        assert reply.unpack() == ()

    def set_producers(self, producers):
        reply = self.call(NAME, ROOT, MANAGER, "SetProducersEnabled", GLib.Variant("(a{sa(ibs)})", (producers,)))
        assert reply.unpack() == ()

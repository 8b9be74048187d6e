# SPDX-License-Identifier: MIT
"""A fake of the registry of the metadata receiver, for replies that the receiver itself rarely sends."""

import os
import queue

from gi.repository import Gio, GLib

from fakereceiver import Call
from fakeservice import BusService
from installation import TREE
from receiverclient import NAME
from receiverprocess import ERROR_PREFIX, REGISTRY, REGISTRY_PATH

DESCRIPTION = TREE / "receiver/com.quon.MetadataReceiver1.xml"


def refuse(error):
    """Makes a handler that refuses a call with one of the receiver's errors."""
    return lambda call: Gio.DBusMessage.new_method_error_literal(call.message, ERROR_PREFIX + error, f"No: {error}")


def accept(call):
    return Gio.DBusMessage.new_method_reply(call.message)


class FakeRegistry(BusService):
    """A registry that grants everything.

    handlers: for the next calls of a method, before the usual one; each returns the reply, or None for none
    calls: the methods of the calls so far
    channels: the read ends of the channels that were opened, with their numbers"""

    def __init__(self, bus):
        super().__init__(bus, NAME)
        self.handlers = {"RegisterProducer": queue.Queue(), "OpenChannel": queue.Queue(),
                         "UnregisterProducer": queue.Queue()}
        self.usual = {"RegisterProducer": accept, "OpenChannel": self.open_channel, "UnregisterProducer": accept}
        self.calls = []
        self.channels = queue.Queue()

    def _register_all(self):
        node = Gio.DBusNodeInfo.new_for_xml(DESCRIPTION.read_text(encoding="utf-8"))
        interface = node.lookup_interface(REGISTRY)
        self.client.connection.register_object(REGISTRY_PATH, interface, self._on_call, None, None)

    def _on_call(self, connection, sender, path, interface, method, arguments, invocation):
        self.calls.append(method)
        try:
            handler = self.handlers[method].get_nowait()
        except queue.Empty:
            handler = self.usual[method]
        reply = handler(Call(connection, invocation, arguments))
        if reply is not None:
            connection.send_message(reply, Gio.DBusSendMessageFlags.NONE)

    def open_channel(self, call):
        read_end, write_end = os.pipe()
        reply = accept(call)
        reply.set_body(GLib.Variant("(h)", (0,)))
        descriptors = Gio.UnixFDList.new()
        descriptors.append(write_end)
        reply.set_unix_fd_list(descriptors)
        os.close(write_end)
        self.channels.put((call.arguments.unpack()[1], read_end))
        return reply

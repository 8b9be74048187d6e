# SPDX-License-Identifier: MIT
"""A client on the private bus, which makes one call at a time."""

import subprocess
import threading

from gi.repository import Gio, GLib

from waiting import BOUND_SECONDS

CONNECTION_FLAGS = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                    | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)

BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
PROPERTIES = "org.freedesktop.DBus.Properties"


class BusClient:
    """One connection. A failed call raises GLib.Error."""

    def __init__(self, bus):
        self.connection = Gio.DBusConnection.new_for_address_sync(bus.address, CONNECTION_FLAGS, None, None)

    def call(self, name, path, interface, method, arguments=None, seconds=BOUND_SECONDS):
        """The reply's body as a GVariant."""
        return self.connection.call_sync(name, path, interface, method, arguments, None,
                                         Gio.DBusCallFlags.NO_AUTO_START, int(seconds * 1000), None)

    def start_call(self, name, path, interface, method, arguments=None):
        """Sends a call without waiting for its reply."""
        message = Gio.DBusMessage.new_method_call(name, path, interface, method)
        if arguments is not None:
            message.set_body(arguments)
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
        self.connection.flush_sync(None)

    def get(self, name, path, interface, prop, **arguments):
        """Returns the reply to a standard "Get" of a property."""
        return self.call(name, path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, prop)), **arguments)

    def has_owner(self, name):
        return self.call(*BUS, "NameHasOwner", GLib.Variant("(s)", (name,))).unpack()[0]

    def owner_of(self, name):
        """The unique name of the owner."""
        return self.call(*BUS, "GetNameOwner", GLib.Variant("(s)", (name,))).unpack()[0]

    def is_connected(self, process):
        """Whether this process has a connection to the bus. One that leaves meanwhile has none."""
        def pid_of(name):
            try:
                return self.call(*BUS, "GetConnectionUnixProcessID", GLib.Variant("(s)", (name,))).unpack()[0]
            except GLib.Error:
                return None

        (names,) = self.call(*BUS, "ListNames").unpack()
        return process.pid in [pid_of(name) for name in names if name.startswith(":")]

    def own(self, name):
        """Owns a name until the connection is closed."""
        do_not_queue, primary_owner = 4, 1
        reply = self.call(*BUS, "RequestName", GLib.Variant("(su)", (name, do_not_queue)))
        assert reply.unpack() == (primary_owner,)

    def release(self, name):
        released = 1
        reply = self.call(*BUS, "ReleaseName", GLib.Variant("(s)", (name,)))
        assert reply.unpack() == (released,)

    def close(self):
        self.connection.close_sync(None)


class BusMonitor:
    """Counts the calls of one method to a name, with or without an owner."""

    def __init__(self, bus, name, method):
        self.calls = 0
        rule = f"type='method_call',destination='{name}',member='{method}'"
        self.process = subprocess.Popen(["dbus-monitor", "--address", bus.address, rule],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, cwd="/", text=True)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.calls += line.startswith("method call ")

    def close(self):
        self.process.terminate()
        self.process.wait(BOUND_SECONDS)
        self.reader.join(BOUND_SECONDS)
        self.process.stdout.close()


def error_text(error):
    """The message of a service's error."""
    return error.message.removeprefix(f"GDBus.Error:{Gio.DBusError.get_remote_error(error)}: ")


def remote_error(failed, prefix="org.freedesktop.DBus.Error."):
    """The name without the prefix, and the message, of the service's error that pytest.raises() caught."""
    return Gio.DBusError.get_remote_error(failed.value).removeprefix(prefix), error_text(failed.value)

# SPDX-License-Identifier: MIT
"""A fake of the daemon's control service, whose replies a test can replace; and the base of all fake services."""

import contextlib
import threading

from gi.repository import Gio, GLib

from busclient import PROPERTIES, BusClient
from controlclient import MANAGER, NAME, OBJECT_MANAGER, PRODUCER, ROOT, STATUS, STATUS_PATH, path_of
from waiting import BOUND_SECONDS

ARGUMENTS = {"GetManagedObjects": "", "GetStatus": "", "SetProducersEnabled": "a{sa(ibs)}",
             "SetChannelsEnabled": "a(ibs)"}

SAMPLE_FRAME = '<tt:SampleFrame xmlns:tt="http://www.onvif.org/ver10/schema"><tt:Object/></tt:SampleFrame>'


def properties(name, nice_name="Nice", channels=(), frame=SAMPLE_FRAME):
    """A producer's properties, with the types of the interface."""
    return {
        "Name": GLib.Variant("s", name),
        "NiceName": GLib.Variant("s", nice_name),
        "SampleFrameXML": GLib.Variant("s", frame),
        "ChannelsEnabled": GLib.Variant("a(ibs)", list(channels)),
    }


# The values of the daemon's status with their types, without clients and sources.
LIMITS = {"Clients": ("u", 256), "ClientsKept": ("u", 32), "Descriptors": ("u", 4096), "DescriptorsKept": ("u", 32),
          "ClientHeldBytes": ("t", 8 << 20), "HeldBytes": ("t", 128 << 20)}
STATUS_VALUES = {
    "Version": ("s", "1.2.3"), "StartTime": ("x", 1_700_000_000), "Uptime": ("t", 7_500_000_000),
    "ClientsTotal": ("t", 12), "DocumentsTotal": ("t", 5031), "BytesTotal": ("t", 7_654_321),
    "MessagesTotal": ("t", 890), "MessageBytesTotal": ("t", 421_888), "DroppedTotal": ("t", 1),
    "HeldBytes": ("t", 2048), "Descriptors": ("u", 31)}
CLIENT_VALUES = {
    "Id": ("t", 1), "Pid": ("u", 4711), "Uid": ("u", 0), "Streaming": ("b", True), "Request": ("a{ss}", {}),
    "Documents": ("t", 0), "Bytes": ("t", 0), "QueueItems": ("u", 0), "QueueBytes": ("u", 0), "Age": ("t", 0),
    "LastDocumentAge": ("x", -1)}
SOURCE_VALUES = {"Source": ("s", "gate"), "Streams": ("u", 1), "Messages": ("t", 0), "Bytes": ("t", 0),
                 "Dropped": ("t", 0)}


def variants(values, **changes):
    """Values with their types; changes keep the type of the value that they replace."""
    assert changes.keys() <= values.keys()
    return {key: GLib.Variant(kind, changes.get(key, value)) for key, (kind, value) in values.items()}


def status(clients=(), sources=(), **changes):
    """The daemon's status as it is on the bus; clients and sources: changes of the values of each."""
    return variants(STATUS_VALUES, **changes) | {
        "Clients": GLib.Variant("aa{sv}", [variants(CLIENT_VALUES, **client) for client in clients]),
        "Producers": GLib.Variant("aa{sv}", [variants(SOURCE_VALUES, **source) for source in sources]),
        "Limits": GLib.Variant("a{sv}", variants(LIMITS))}


class BusService:
    """The owner of a name, which handles calls in its own thread."""

    def __init__(self, bus, name):
        self.name = name
        self.started = threading.Event()
        self.client = BusClient(bus)
        self.context = GLib.MainContext()
        self.loop = GLib.MainLoop(self.context)
        self.thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        self.context.push_thread_default()
        self._register_all()
        self.client.own(self.name)
        self.started.set()
        self.loop.run()
        self.context.pop_thread_default()

    def _register_all(self):
        """Registers the first objects, on the service's thread."""
        raise NotImplementedError

    def start(self):
        """Owns the name."""
        self.thread.start()
        assert self.started.wait(BOUND_SECONDS)

    def emit(self, path, interface, signal, body):
        self.client.connection.emit_signal(None, path, interface, signal, body)
        self.client.connection.flush_sync(None)

    def emit_added(self, root, path, interfaces):
        self.emit(root, OBJECT_MANAGER, "InterfacesAdded", GLib.Variant("(oa{sa{sv}})", (path, interfaces)))

    def emit_removed(self, root, path, interfaces):
        self.emit(root, OBJECT_MANAGER, "InterfacesRemoved", GLib.Variant("(oas)", (path, list(interfaces))))

    def emit_changed(self, path, interface, properties):
        self.emit(path, PROPERTIES, "PropertiesChanged", GLib.Variant("(sa{sv}as)", (interface, properties, [])))

    def close(self):
        """Leaves the bus; a second call has no effect."""
        with contextlib.suppress(GLib.Error):
            self.client.close()
        if self.thread.is_alive():
            self.context.invoke_full(GLib.PRIORITY_DEFAULT, self.loop.quit)
            self.thread.join(BOUND_SECONDS)


class FakeService(BusService):
    """The owner of the daemon's name. Producers and replies are set before its start.

    producers: properties by object path, for GetManagedObjects
    statuses: replies to GetStatus, of which the last one stays
    replies: bodies instead of the correct ones, by method
    errors: names and messages of errors, by method
    absent: methods that the service does not have
    silent: methods that get no reply; leaving: methods whose call makes the service leave the bus
    calls: received calls, as (path, method, arguments); flags: their message flags"""

    def __init__(self, bus):
        super().__init__(bus, NAME)
        self.producers = {}
        self.statuses = [status()]
        self.replies = {}
        self.errors = {}
        self.absent = set()
        self.silent = set()
        self.leaving = set()
        self.calls = []
        self.flags = set()
        self.kept = []

    def start(self, producers=None):
        """Owns the name, with these producers if they are given."""
        self.producers = self.producers if producers is None else producers
        super().start()

    def _register_all(self):
        self._register(ROOT, OBJECT_MANAGER, "GetManagedObjects")
        self._register(ROOT, MANAGER, "SetProducersEnabled")
        self._register(STATUS_PATH, STATUS, "GetStatus")
        for path in self.producers:
            self._register(path, PRODUCER, "SetChannelsEnabled")

    def _register(self, path, interface, method):
        if method in self.absent:
            return
        reply = self.replies.get(method)
        returned = (reply.get_type_string()[1:-1] if reply is not None else
                    {"GetManagedObjects": "a{oa{sa{sv}}}", "GetStatus": "a{sv}"}.get(method, ""))
        arguments = f'<arg type="{ARGUMENTS[method]}" direction="in"/>' if ARGUMENTS[method] else ""
        results = f'<arg type="{returned}" direction="out"/>' if returned else ""
        node = Gio.DBusNodeInfo.new_for_xml(
            f'<node><interface name="{interface}"><method name="{method}">{arguments}{results}</method>'
            "</interface></node>")
        self.client.connection.register_object(path, node.interfaces[0], self._on_call, None, None)

    def _on_call(self, connection, sender, path, interface, method, arguments, invocation):
        self.calls.append((path, method, arguments.unpack()))
        self.flags.add(invocation.get_message().get_flags())
        if method in self.silent:
            self.kept.append(invocation)
        elif method in self.leaving:
            connection.close_sync(None)
        elif method in self.errors:
            invocation.return_dbus_error(*self.errors[method])
        elif method in self.replies:
            invocation.return_value(self.replies[method])
        elif method == "GetManagedObjects":
            invocation.return_value(self._objects())
        elif method == "GetStatus":
            values = self.statuses.pop(0) if len(self.statuses) > 1 else self.statuses[0]
            invocation.return_value(GLib.Variant("(a{sv})", (values,)))
        else:
            invocation.return_value(None)

    def _objects(self):
        objects = {path: {PRODUCER: values} for path, values in self.producers.items()}
        return GLib.Variant("(a{oa{sa{sv}}})", (objects,))

    def reply_to_kept(self):
        """Replies to a kept call for the objects."""
        self.kept.pop().return_value(self._objects())

    def set_calls(self):
        """The calls that change producers."""
        return [call for call in self.calls if call[1] != "GetManagedObjects"]

    # Signals

    def add(self, name, *args, **kwargs):
        self.producers[path_of(name)] = properties(name, *args, **kwargs)
        self.emit_added(ROOT, path_of(name), {PRODUCER: self.producers[path_of(name)]})

    def remove(self, name):
        del self.producers[path_of(name)]
        self.emit_removed(ROOT, path_of(name), [PRODUCER])

    def change(self, name, channels):
        value = GLib.Variant("a(ibs)", channels)
        self.producers[path_of(name)]["ChannelsEnabled"] = value
        self.emit_changed(path_of(name), PRODUCER, {"ChannelsEnabled": value})

# SPDX-License-Identifier: MIT
"""Peers on the bus that attach file descriptors to all messages to the daemon."""

import contextlib
import os
import re
import subprocess
import sys
import time

import pytest
from gi.repository import Gio, GLib

from client import header
from daemon import VIDEO_TRACKER, WARNING
from installation import BUS_CONFIGURATION, EVENT_PLUGINS, JSON_PLUGIN, SCENE_PLUGIN, run_by_root
from controlclient import NAME, OBJECT_MANAGER, ROOT, ControlClient
from waiting import BOUND_SECONDS

PLUGINS = (*EVENT_PLUGINS, SCENE_PLUGIN, JSON_PLUGIN)

PEERS = 4
STORM_SECONDS = 3

# The bus' limit for one message.
ATTACHED = 16

# Neither the daemon's user nor an administrator, where root tests.
STRANGER = {"user": "daemon", "group": "daemon", "extra_groups": []} if run_by_root() else {}

# Sends all kinds of messages with descriptors to the daemon, and prints their number. The kernel limits a user's
# descriptors in transit, also for the user's other processes, so the peer waits repeatedly until its messages have been
# read.
STORM = """\
import sys, time
from gi.repository import Gio, GLib
address, destination, path, seconds, attached = sys.argv[1:]
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
descriptors = Gio.UnixFDList.new()
for _ in range(int(attached)):
    descriptors.append(sys.stdin.fileno())

def make_call():
    return Gio.DBusMessage.new_method_call(destination, path, "org.freedesktop.DBus.ObjectManager",
                                           "GetManagedObjects")

def make_signal():
    return Gio.DBusMessage.new_signal(path, "org.freedesktop.DBus.Properties", "PropertiesChanged")

def make_reply():
    reply = Gio.DBusMessage()
    reply.set_message_type(Gio.DBusMessageType.METHOD_RETURN)
    reply.set_reply_serial(1 + sent % 100)
    return reply

def send_some(bus):
    for make in [make_call] * 9 + [make_signal, make_reply]:
        message = make()
        message.set_destination(destination)
        message.set_unix_fd_list(descriptors)
        bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
    try:
        bus.call_with_unix_fd_list_sync(destination, path, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
                                        None, None, Gio.DBusCallFlags.NONE, -1, descriptors, None)
    except GLib.Error as error:
        if not Gio.DBusError.is_remote_error(error):
            raise
    return 12

bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
sent = 0
end = time.monotonic() + float(seconds)
while time.monotonic() < end:
    sent += send_some(bus)
print(sent)
"""

# Added to the installed policy: all messages to the daemon are allowed, including unrequested replies. The bus queues
# enough descriptors for the daemon, so that it never refuses calls of other peers.
OPEN_TO_ALL = """\
  <limit name="max_outgoing_unix_fds">65536</limit>
  <policy context="mandatory">
    <allow send_destination="com.quon.MetadataServer1"/>
    <allow send_destination="com.quon.MetadataServer1" send_requested_reply="false"/>
    <allow receive_type="method_return" receive_requested_reply="false"/>
    <allow receive_type="error" receive_requested_reply="false"/>
  </policy>
</busconfig>
"""

REFUSED_LINE = re.compile(r"refused file descriptors from :1\.\d+: the daemon did not request them"
                          r"( \(\d+ more since the last such line\))?")


@pytest.fixture
def open_bus(start_bus):
    return start_bus(text=BUS_CONFIGURATION.read_text(encoding="utf-8").replace("</busconfig>\n", OPEN_TO_ALL))


@contextlib.contextmanager
def storm(bus, destination):
    """Runs several peers at once; yields their processes."""
    command = [sys.executable, "-I", "-c", STORM, bus.address, destination, ROOT, str(STORM_SECONDS), str(ATTACHED)]
    peers = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, cwd="/", **STRANGER)
             for _ in range(PEERS)]
    try:
        yield peers
    finally:
        for peer in peers:
            peer.kill()
            peer.wait(BOUND_SECONDS)
            peer.stdout.close()


def sent_by(peers):
    """The number of messages of each peer, after the end of all peers."""
    return [int(peer.communicate(timeout=BOUND_SECONDS)[0]) for peer in peers]


def error_of_call_with_descriptor(control):
    descriptors = Gio.UnixFDList.new()
    descriptors.append(sys.stdout.fileno())
    with pytest.raises(GLib.Error) as failed:
        control.connection.call_with_unix_fd_list_sync(NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects", None, None,
                                                       Gio.DBusCallFlags.NONE, -1, descriptors, None)
    return Gio.DBusError.get_remote_error(failed.value)


def limit_of(daemon, limit):
    """Returns `limit`; if that is None, a few more descriptors than the daemon has open."""
    return limit or max(map(int, os.listdir(daemon.proc / "fd"))) + ATTACHED + 4


def request_with_platform_calls(daemon):
    """Makes a request for which the daemon calls services of the platform."""
    with daemon.client() as client:
        client.start(header(event=1, analytics=2, video_channel=1)).next_document()


def endure(daemon, bus, destination, limit):
    """Expects that a client and a control client are served during the storm, and that no descriptor leaks."""
    control = ControlClient(bus)
    with daemon.client() as client:
        stream = client.start_reading()
        daemon.limit_descriptors(limit_of(daemon, limit))
        served = 0
        with storm(bus, control.owner_of(NAME) if destination == "unique name" else NAME) as peers:
            while any(peer.poll() is None for peer in peers):
                control.set_channels(VIDEO_TRACKER, (1, True, f"name {served}"))
                client.sync()
                stream.next_document()
                if limit:
                    request_with_platform_calls(daemon)
                served += 1
            assert min(sent_by(peers)) > 0
        assert served > 0
    daemon.limit_descriptors(512)
    daemon.wait_until_idle()
    daemon.expect_stream()
    return control


@pytest.mark.parametrize("destination, limit", [("name", 512), ("unique name", None)])
def test_storm_that_the_bus_delivers(open_bus, start_camera, start_daemon, destination, limit):
    start_camera(on=open_bus)
    daemon = start_daemon(on=open_bus, plugins=PLUGINS)
    began = time.monotonic()
    control = endure(daemon, open_bus, destination, limit)

    lines = daemon.log.take(1)
    assert {priority for priority, _ in lines} == {WARNING}
    assert [text for _, text in lines if not REFUSED_LINE.fullmatch(text)] == []
    assert len(lines) <= time.monotonic() - began + 1
    assert error_of_call_with_descriptor(control) == "org.freedesktop.DBus.Error.NotSupported"
    control.close()
    daemon.log.take()


@pytest.mark.parametrize("destination, limit", [("name", 512), ("unique name", None)])
def test_storm_that_the_policy_refuses(own_bus, start_camera, start_daemon, destination, limit):
    start_camera(on=own_bus)
    daemon = start_daemon(on=own_bus, plugins=PLUGINS)
    control = endure(daemon, own_bus, destination, limit)

    assert error_of_call_with_descriptor(control) == "org.freedesktop.DBus.Error.AccessDenied"
    control.close()
    # The daemon would log that it refused delivered messages.
    assert daemon.log.take() == []

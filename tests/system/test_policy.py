# SPDX-License-Identifier: MIT
"""The rights of each user on a bus with the installed policy."""

import subprocess
import sys

import pytest

import tessardctl
from busclient import BusClient
from daemon import VIDEO_TRACKER
from installation import ADMIN_GROUP, UNPRIVILEGED_USER, Bus, run_by_root
from controlclient import MANAGER, NAME, OBJECT_MANAGER, PRODUCER, ROOT, STATUS, STATUS_PATH, path_of
from users import ADMINISTRATOR, REFUSED, ROOT_USER, STAND_IN_GROUP, STRANGER, call, run_as
from waiting import BOUND_SECONDS

DAEMON = {"user": UNPRIVILEGED_USER, "group": "daemon", "extra_groups": []}

# Sends a signal and an unrequested reply to one peer, each with a descriptor, and waits until the bus has handled both.
SENDER = """\
import sys
from gi.repository import Gio, GLib
address, destination, path = sys.argv[1:]
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
descriptors = Gio.UnixFDList.new()
descriptors.append(sys.stdin.fileno())
signal = Gio.DBusMessage.new_signal(path, "org.freedesktop.DBus.Properties", "PropertiesChanged")
reply = Gio.DBusMessage()
reply.set_message_type(Gio.DBusMessageType.METHOD_RETURN)
reply.set_reply_serial(1)
for message in (signal, reply):
    message.set_destination(destination)
    message.set_unix_fd_list(descriptors)
    bus.send_message(message, 0)
bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", None, None, 0, -1,
              None)
"""

# Prints the first change of an object's properties.
LISTENER = """\
import sys
from gi.repository import Gio, GLib
address, path = sys.argv[1:]
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
loop = GLib.MainLoop()
def on_signal(bus, sender, path, interface, signal, arguments):
    print(arguments.unpack()[1])
    loop.quit()
bus.signal_subscribe(None, None, "PropertiesChanged", path, None, 0, on_signal)
bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", None, None, 0, -1,
              None)
print("listening", flush=True)
loop.run()
"""

pytestmark = pytest.mark.skipif(not run_by_root(), reason="only root can be several users")


@pytest.fixture(scope="module")
def policed_bus(installation):
    made = Bus(installation, administrators=STAND_IN_GROUP)
    yield made
    made.stop()


@pytest.fixture
def daemon(policed_bus, start_daemon):
    return start_daemon(on=policed_bus, plugins=("scene",))


def own_name(bus, user):
    return call(bus, user, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                f"('{NAME}', uint32 0)")


def change_producers(bus, user):
    return call(bus, user, NAME, ROOT, MANAGER, "SetProducersEnabled", f"({{'{VIDEO_TRACKER}': [(1, true, 'x')]}},)")


def change_channels(bus, user):
    return call(bus, user, NAME, path_of(VIDEO_TRACKER), PRODUCER, "SetChannelsEnabled", "([(1, true, 'x')],)")


def test_daemon_gets_its_name(daemon, policed_bus):
    assert own_name(policed_bus, DAEMON) == ""


@pytest.mark.parametrize("user", [STRANGER, ADMINISTRATOR, ROOT_USER])
def test_other_users_are_refused_the_name(policed_bus, user):
    assert own_name(policed_bus, user) == REFUSED


@pytest.mark.parametrize("change", [change_producers, change_channels])
@pytest.mark.parametrize("user", [ADMINISTRATOR, ROOT_USER])
def test_root_and_administrators_change_producers(daemon, policed_bus, user, change):
    assert change(policed_bus, user) == ""
    assert "Name=x" in daemon.producers_conf.read_text(encoding="utf-8").splitlines()


@pytest.mark.parametrize("change", [change_producers, change_channels])
def test_other_users_change_nothing(daemon, policed_bus, change):
    before = daemon.producers_conf.read_text(encoding="utf-8")

    assert change(policed_bus, STRANGER) == REFUSED
    assert daemon.producers_conf.read_text(encoding="utf-8") == before


@pytest.mark.parametrize("path, interface, method, arguments", [
    (ROOT, OBJECT_MANAGER, "GetManagedObjects", "()"),
    (ROOT, "org.freedesktop.DBus.Introspectable", "Introspect", "()"),
    (ROOT, "org.freedesktop.DBus.Peer", "Ping", "()"),
    (STATUS_PATH, STATUS, "GetStatus", "()"),
    (path_of(VIDEO_TRACKER), "org.freedesktop.DBus.Introspectable", "Introspect", "()"),
    (path_of(VIDEO_TRACKER), "org.freedesktop.DBus.Properties", "Get", f"('{PRODUCER}', 'ChannelsEnabled')"),
    (path_of(VIDEO_TRACKER), "org.freedesktop.DBus.Properties", "GetAll", f"('{PRODUCER}',)"),
])
def test_any_user_can_read(daemon, policed_bus, path, interface, method, arguments):
    assert call(policed_bus, STRANGER, NAME, path, interface, method, arguments) == ""


def test_any_user_receives_changes(daemon, policed_bus):
    listener = subprocess.Popen(
        [sys.executable, "-I", "-c", LISTENER, policed_bus.address, path_of(VIDEO_TRACKER)],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, cwd="/", **STRANGER)
    assert listener.stdout.readline() == "listening\n"

    assert change_channels(policed_bus, ADMINISTRATOR) == ""
    out, _ = listener.communicate(timeout=BOUND_SECONDS)
    assert out == "{'ChannelsEnabled': [(1, True, 'x'), (2, False, '')]}\n"


@pytest.fixture(params=["name", "unique name"])
def destination(request, daemon, policed_bus):
    """The destinations of messages to the daemon."""
    if request.param == "name":
        return NAME
    client = BusClient(policed_bus)
    owner = client.owner_of(NAME)
    client.close()
    return owner


@pytest.mark.parametrize("user", [STRANGER, ADMINISTRATOR, ROOT_USER])
def test_calls_with_descriptors_are_refused(daemon, policed_bus, destination, user):
    read_call = (destination, ROOT, OBJECT_MANAGER, "GetManagedObjects", "()")

    assert call(policed_bus, user, *read_call, descriptors=1) == REFUSED
    assert call(policed_bus, user, *read_call, descriptors=16) == REFUSED
    assert call(policed_bus, user, *read_call) == ""
    # The daemon would log that it refused delivered messages.
    assert daemon.log.take() == []


@pytest.mark.parametrize("user", [STRANGER, ADMINISTRATOR, ROOT_USER])
def test_other_messages_with_descriptors_are_refused(daemon, policed_bus, destination, user):
    run_as(user, SENDER, policed_bus.address, destination, ROOT)

    assert call(policed_bus, ROOT_USER, NAME, ROOT, OBJECT_MANAGER, "GetManagedObjects") == ""
    assert daemon.log.take() == []


@pytest.mark.parametrize("user, status, error", [
    (STRANGER, tessardctl.REFUSED,
     f"tessardctl: The bus policy refused the call: only root and members of the group '{ADMIN_GROUP}' can enable and "
     "disable producers.\n"),
    (ADMINISTRATOR, tessardctl.SUCCESS, ""),
])
def test_tessardctl_reports_a_refusal(daemon, policed_bus, start_tessardctl, user, status, error):
    listed = start_tessardctl("producers", "--bus", policed_bus.address, "--names", cwd="/", **user).finish()
    changed = start_tessardctl("enable", "--bus", policed_bus.address, VIDEO_TRACKER, "1", "x", cwd="/",
                               **user).finish()

    assert listed == (tessardctl.SUCCESS, f"{VIDEO_TRACKER}\n".encode(), b"")
    assert changed == (status, b"", error.encode())


def test_tessardctl_apply_names_the_group(daemon, policed_bus, start_tessardctl, tmp_path):
    path = tmp_path / "changes.json"
    path.write_text(f'[{{"Name": "{VIDEO_TRACKER}", "Channels": [{{"Channel": 9, "Enabled": false}}]}}]',
                    encoding="ascii")
    with open(path, "rb") as file:
        result = start_tessardctl("apply", "--bus", policed_bus.address, "-", stdin=file, cwd="/", **STRANGER).finish()

    assert result.status == tessardctl.REFUSED
    assert result.err.decode().endswith(
        f" only root and members of the group '{ADMIN_GROUP}' can enable and disable producers.\n")

# SPDX-License-Identifier: MIT
"""Users other than the one that runs the tests, and their calls on a bus."""

import subprocess
import sys

from waiting import BOUND_SECONDS

# Replaces a group that a policy names; every Debian has it.
STAND_IN_GROUP = "games"

# Neither is the daemon's user. Only the second is in STAND_IN_GROUP.
STRANGER = {"user": "daemon", "group": "daemon", "extra_groups": []}
ADMINISTRATOR = {"user": "daemon", "group": "daemon", "extra_groups": [STAND_IN_GROUP]}
ROOT_USER = {"user": "root", "group": "root", "extra_groups": []}

# Makes one call with a number of descriptors, and prints the D-Bus error of a failed call. A separate program, because
# it runs as another user.
CALLER = """\
import sys
from gi.repository import Gio, GLib
address, name, path, interface, method, arguments, count = sys.argv[1:]
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
descriptors = Gio.UnixFDList.new()
for _ in range(int(count)):
    descriptors.append(sys.stdin.fileno())
try:
    bus.call_with_unix_fd_list_sync(name, path, interface, method, GLib.Variant.parse(None, arguments), None, 0, -1,
                                    descriptors, None)
except GLib.Error as error:
    print(Gio.DBusError.get_remote_error(error))
"""

REFUSED = "org.freedesktop.DBus.Error.AccessDenied"


def run_as(user, program, *arguments):
    """Returns the output of a Python program."""
    process = subprocess.run([sys.executable, "-I", "-c", program, *arguments], stdin=subprocess.DEVNULL,
                             capture_output=True, text=True, cwd="/", check=True, timeout=BOUND_SECONDS, **user)
    assert process.stderr == ""
    return process.stdout.strip()


def call(bus, user, name, path, interface, method, arguments="()", descriptors=0):
    """Makes a call as a user; returns the name of the D-Bus error, empty on success."""
    return run_as(user, CALLER, bus.address, name, path, interface, method, arguments, str(descriptors))

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A peer on the bus without work, to compare the daemon's latencies with: BUS-ADDRESS."""

import sys

from gi.repository import Gio, GLib

NAME = "tessard.IdlePeer1"
PATH = "/tessard/IdlePeer1"
INTERFACE = "tessard.IdlePeer1"
PROPERTY = "Name"

NODE = f'<node><interface name="{INTERFACE}"><property name="{PROPERTY}" type="s" access="read"/></interface></node>'

FLAGS = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION


def main():
    connection = Gio.DBusConnection.new_for_address_sync(sys.argv[1], FLAGS, None, None)
    connection.register_object(PATH, Gio.DBusNodeInfo.new_for_xml(NODE).interfaces[0], None,
                               lambda *_: GLib.Variant("s", NAME), None)
    loop = GLib.MainLoop()
    Gio.bus_own_name_on_connection(connection, NAME, Gio.BusNameOwnerFlags.NONE, lambda *_: print("ready", flush=True),
                                   lambda *_: loop.quit())
    loop.run()


if __name__ == "__main__":
    main()

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * ReceiverBusFuncs:
 * @on_connected: (not nullable): the connection is open; the argument is borrowed
 * @on_closed: (not nullable): the bus has closed the connection; the callback calls receiver_bus_disconnect()
 *
 * Called on the main thread. The functions of this component are for the main thread.
 */
typedef struct ReceiverBusFuncs {
  void (*on_connected)(GDBusConnection *connection);
  void (*on_closed)(void);
} ReceiverBusFuncs;

void receiver_bus_connect(const ReceiverBusFuncs *funcs);

void receiver_bus_disconnect(void);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * BusCall:
 * @connection: (transfer none): a connection to the bus
 * @name: (transfer none): the bus name of a service
 * @path: (transfer none): the path of one of its objects
 * @interface: (transfer none): an interface of the object
 * @method: (transfer none): a method of the interface
 * @parameters: (transfer floating) (nullable): a tuple
 * @timeout_ms: the longest wait for the reply, -1 for GDBus' default of 25 s
 *
 * A method call.
 */
typedef struct BusCall {
  GDBusConnection *connection;
  const gchar *name;
  const gchar *path;
  const gchar *interface;
  const gchar *method;
  GVariant *parameters;
  gint timeout_ms;
} BusCall;

GVariant *bus_call_sync(const BusCall *call, GCancellable *cancellable, GError **error);

G_END_DECLS

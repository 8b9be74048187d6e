/* SPDX-License-Identifier: MIT */
#pragma once

#include "descriptorreserve.h"

G_BEGIN_DECLS

/**
 * SYSTEM_BUS_CALL_DESCRIPTORS:
 *
 * The largest number of descriptors that a new connection and a call that waits for its reply open together.
 */
#define SYSTEM_BUS_CALL_DESCRIPTORS 8

/**
 * SYSTEM_BUS_PROPERTIES:
 *
 * The interface of an object's properties.
 */
#define SYSTEM_BUS_PROPERTIES "org.freedesktop.DBus.Properties"

/**
 * SystemBusObject:
 * @name: the bus name of a service
 * @path: the path of one of its objects
 * @interface: an interface of the object
 *
 * The target of a call. Any thread can call the functions of this component.
 */
typedef struct {
  const gchar *name;
  const gchar *path;
  const gchar *interface;
} SystemBusObject;

GDBusConnection *system_bus_get(DescriptorReservation **reservation, GError **error);

GVariant *system_bus_call(const SystemBusObject *object, const gchar *method, GVariant *arguments,
                          gint timeout_ms, GCancellable *cancellable, GError **error);

GVariant *system_bus_get_first_child(GVariant *value);

void system_bus_prepare(GDBusConnection *connection);

G_END_DECLS

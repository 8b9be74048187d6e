#pragma once

#include "descriptorreserve.h"

G_BEGIN_DECLS

/**
 * SYSTEM_BUS_CALL_DESCRIPTORS:
 *
 * How many descriptors a new connection and a call that waits for its reply open at most.
 */
#define SYSTEM_BUS_CALL_DESCRIPTORS 8

GDBusConnection *system_bus_get(DescriptorReservation **reservation, GError **error);

GDBusConnection *system_bus_find(DescriptorReservation **reservation, GError **error);

void system_bus_prepare(GDBusConnection *connection);

G_END_DECLS

#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DBUS_PRODUCER_MANAGER_MAX_TUPLES:
 *
 * How many tuples one call may have. Each is a durable write of its own. An entry of SetProducersEnabled
 * without any tuple counts as one.
 */
#define DBUS_PRODUCER_MANAGER_MAX_TUPLES 4096

/**
 * DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS:
 *
 * How many calls may wait while another one is worked off.
 */
#define DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS 64

/**
 * DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES:
 *
 * How large the arguments of the calls that wait may be together: a few of the longest, or all calls of
 * usual length. The call that is worked off does not count; it has the bus' limit for a message.
 */
#define DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES (8 * 1024 * 1024)

void dbus_producer_manager_init(AnalyticsProducerList *producers);

void dbus_producer_manager_on_bus_acquired(GDBusConnection *connection, AnalyticsProducerList *producers);

void dbus_producer_manager_teardown(void);

G_END_DECLS

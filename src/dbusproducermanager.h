/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DBUS_PRODUCER_MANAGER_MAX_TUPLES:
 *
 * The number of tuples in one call. Each causes one durable write. An entry of SetProducersEnabled without
 * tuples counts as one.
 */
#define DBUS_PRODUCER_MANAGER_MAX_TUPLES 4096

/**
 * DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS:
 *
 * The number of calls that can wait while another one is executed.
 */
#define DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS 64

/**
 * DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES:
 *
 * The size of the arguments of all waiting calls together: a few of the longest calls, or all calls of usual
 * length. The call that is executed does not count; it has the bus' limit for a message.
 */
#define DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES (8 * 1024 * 1024)

/* The functions of this component are for the main thread, as are all changes of the list of producers. */

void dbus_producer_manager_init(AnalyticsProducerList *producers);

void dbus_producer_manager_on_bus_acquired(GDBusConnection *connection, AnalyticsProducerList *producers);

void dbus_producer_manager_teardown(void);

G_END_DECLS

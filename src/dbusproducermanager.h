#pragma once

#include "analyticsproducer.h"

#include <gio/gio.h>

G_BEGIN_DECLS

void dbus_producer_manager_init(AnalyticsProducerList *producers);

void dbus_producer_manager_on_bus_acquired(GDBusConnection *connection, AnalyticsProducerList *producers);

void dbus_producer_manager_teardown(void);

G_END_DECLS

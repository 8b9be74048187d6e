/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducerlist.h"

G_BEGIN_DECLS

/* The functions of this component are for the main thread. */

void dbus_server_init(AnalyticsProducerList *producers);

void dbus_server_teardown(void);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

#define EVENT_TYPE_SOURCE_FACTORY (event_source_factory_get_type())
G_DECLARE_FINAL_TYPE(EventSourceFactory, event_source_factory, EVENT, SOURCE_FACTORY, GObject)

EventSourceFactory *event_source_factory_new(void);

G_END_DECLS

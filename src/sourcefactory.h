/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define SOURCE_TYPE_FACTORY (source_factory_get_type())
G_DECLARE_INTERFACE(SourceFactory, source_factory, SOURCE, FACTORY, GObject)

/**
 * SourceFactoryInterface:
 * @create_source: returns a new element for one request, %NULL (no contribution), or %NULL with an error
 *
 * A factory of sources for one kind of metadata. @create_source is called on the server's pool threads, for
 * different requests at the same time, so it stores no state of a request. It must not change or keep the
 * table of parameters.
 *
 * Any thread can call the functions of this component.
 */
struct _SourceFactoryInterface {
  GTypeInterface parent_iface;

  GstElement *(*create_source)(SourceFactory *self, GHashTable *params, GError **error);
};

GQuark source_factory_error_quark(void);

GstElement *source_factory_create_source(SourceFactory *self, GHashTable *params, GError **error);

const gchar *source_factory_lookup_param(GHashTable *params, const gchar *key);

gboolean source_factory_add_ghost_pad(GstElement *bin, GstElement *last);

void source_factory_fail(GError **error, GQuark domain, const gchar *format, ...) G_GNUC_PRINTF(3, 4);

void source_factory_refuse_value(GError **error, GQuark domain, const gchar *problem, const gchar *value);

G_END_DECLS

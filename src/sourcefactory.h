#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define SOURCE_TYPE_FACTORY (source_factory_get_type())
G_DECLARE_INTERFACE(SourceFactory, source_factory, SOURCE, FACTORY, GObject)

/**
 * SourceFactoryInterface:
 * @create_source: answers one request with a new element, with %NULL (nothing to contribute) or with an
 * error
 *
 * Called on the request server's pool threads, at the same time for different requests, so an
 * implementation keeps no state of a request. The parameter table is the caller's: it is read, never
 * changed or kept.
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

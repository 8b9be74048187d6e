/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessarderror.h"

#include <gio/gio.h>

/* Any thread, also several at once. Signals are emitted in the main context that was the thread's default
 * when the object was made. */

/**
 * TESSARD_EVENTS_CLOSE_MS:
 *
 * The time for events that are not sent, in milliseconds.
 */
#define TESSARD_EVENTS_CLOSE_MS 5000

G_BEGIN_DECLS

#define TESSARD_TYPE_EVENTS (tessard_events_get_type())
TESSARD_API
G_DECLARE_FINAL_TYPE(TessardEvents, tessard_events, TESSARD, EVENTS, GObject)

TESSARD_API TessardEvents *tessard_events_new(void);
TESSARD_API gboolean tessard_events_declare(TessardEvents *self, const gchar *topic, gboolean is_property,
                                            const gchar *const *source, const gchar *const *data,
                                            GHashTable *namespaces, GError **error);
TESSARD_API gboolean tessard_events_emit(TessardEvents *self, const gchar *topic, const gchar *operation,
                                         GHashTable *source, GHashTable *data, gint64 utc_time,
                                         GError **error);
TESSARD_API void tessard_events_emit_async(TessardEvents *self, const gchar *topic, const gchar *operation,
                                           GHashTable *source, GHashTable *data, gint64 utc_time,
                                           GCancellable *cancellable, GAsyncReadyCallback callback,
                                           gpointer user_data);
TESSARD_API gboolean tessard_events_emit_finish(TessardEvents *self, GAsyncResult *result, GError **error);
TESSARD_API void tessard_events_get_topics_async(TessardEvents *self, GCancellable *cancellable,
                                                 GAsyncReadyCallback callback, gpointer user_data);
TESSARD_API GVariant *tessard_events_get_topics_finish(TessardEvents *self, GAsyncResult *result,
                                                       GError **error);
TESSARD_API guint64 tessard_events_get_dropped(TessardEvents *self);
TESSARD_API void tessard_events_close_async(TessardEvents *self, GCancellable *cancellable,
                                            GAsyncReadyCallback callback, gpointer user_data);
TESSARD_API gboolean tessard_events_close_finish(TessardEvents *self, GAsyncResult *result, GError **error);
TESSARD_API gboolean tessard_events_close(TessardEvents *self, GError **error);

G_END_DECLS

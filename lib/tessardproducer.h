/* SPDX-License-Identifier: MIT */
#pragma once

#include "tessarderror.h"
#include "tessarditem.h"

#include <gio/gio.h>

/* Any thread, also several at once. Signals are emitted in the main context that was the thread's default
 * when the producer was made. */

/**
 * TESSARD_PRODUCER_MAX_TEXT_BYTES:
 *
 * The length of the longest text of an item. The receiver and the daemon accept no longer ones.
 */
#define TESSARD_PRODUCER_MAX_TEXT_BYTES (1024 * 1024)

/**
 * TESSARD_PRODUCER_CLOSE_MS:
 *
 * The time for what is not written and for the end of the registration, in milliseconds.
 */
#define TESSARD_PRODUCER_CLOSE_MS 5000

/**
 * TESSARD_PRODUCER_DROPPED_INTERVAL_MS:
 *
 * The shortest time between two notifications of dropped items, in milliseconds.
 */
#define TESSARD_PRODUCER_DROPPED_INTERVAL_MS 1000

G_BEGIN_DECLS

#define TESSARD_TYPE_PRODUCER (tessard_producer_get_type())
TESSARD_API
G_DECLARE_FINAL_TYPE(TessardProducer, tessard_producer, TESSARD, PRODUCER, GObject)

TESSARD_API TessardProducer *tessard_producer_new(const gchar *name, const gchar *nice_name,
                                                  const guint32 *channels, gsize n_channels,
                                                  const gchar *sample_frame);
TESSARD_API void tessard_producer_new_async(const gchar *name, const gchar *nice_name,
                                            const guint32 *channels, gsize n_channels,
                                            const gchar *sample_frame, GCancellable *cancellable,
                                            GAsyncReadyCallback callback, gpointer user_data);
TESSARD_API TessardProducer *tessard_producer_new_finish(GAsyncResult *result, GError **error);
TESSARD_API gboolean tessard_producer_send(TessardProducer *self, guint32 channel, TessardItem *item,
                                           GError **error);
TESSARD_API gboolean tessard_producer_send_json(TessardProducer *self, guint32 channel, const gchar *json,
                                                GError **error);
TESSARD_API void tessard_producer_set_sample_frame(TessardProducer *self, const gchar *json);
TESSARD_API gboolean tessard_producer_get_ready(TessardProducer *self);
TESSARD_API gboolean tessard_producer_get_listed(TessardProducer *self);
TESSARD_API gboolean tessard_producer_is_enabled(TessardProducer *self, guint32 channel);
TESSARD_API guint64 tessard_producer_get_dropped(TessardProducer *self);
TESSARD_API guint tessard_producer_get_pending(TessardProducer *self);
TESSARD_API void tessard_producer_close_async(TessardProducer *self, GCancellable *cancellable,
                                              GAsyncReadyCallback callback, gpointer user_data);
TESSARD_API gboolean tessard_producer_close_finish(TessardProducer *self, GAsyncResult *result,
                                                   GError **error);
TESSARD_API gboolean tessard_producer_close(TessardProducer *self, GError **error);

G_END_DECLS

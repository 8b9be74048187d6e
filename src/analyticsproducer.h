/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * AnalyticsProducerKind:
 * @ANALYTICS_PRODUCER_BUILT_IN: elements of the daemon's pipelines produce the data
 * @ANALYTICS_PRODUCER_EXTERNAL: an object on the system bus announces the producer; its data comes over a
 *   stream descriptor
 * @ANALYTICS_PRODUCER_LAST_KIND: the end of the property's range; no producer is of this kind
 *
 * The origin of a producer's data: the values of #AnalyticsProducer:type.
 */
typedef enum {
  ANALYTICS_PRODUCER_BUILT_IN = 0,
  ANALYTICS_PRODUCER_EXTERNAL = 1,
  ANALYTICS_PRODUCER_LAST_KIND = 2,
} AnalyticsProducerKind;

/**
 * AnalyticsProducerChannel:
 * @channel: the video channel, from 1
 * @enabled: whether the producer is enabled on it
 * @name: the configuration name; %NULL exactly when disabled
 *
 * A producer's entry for one supported channel.
 */
typedef struct {
  guint32 channel;
  gboolean enabled;
  gchar *name;
} AnalyticsProducerChannel;

/**
 * AnalyticsProducer:
 *
 * A producer of analytics data that a client can request.
 *
 * The functions of this component are for the main thread, except analytics_producer_get_channel_enabled()
 * and analytics_producer_is_channel_supported(), which any thread can call.
 */
#define ANALYTICS_TYPE_PRODUCER (analytics_producer_get_type())
G_DECLARE_FINAL_TYPE(AnalyticsProducer, analytics_producer, ANALYTICS, PRODUCER, GObject)

AnalyticsProducer *analytics_producer_new(const gchar *name, const gchar *nice_name,
                                          const gchar *sample_frame_xml, GArray *supported_channels,
                                          gint type);

void analytics_producer_set_channel_enabled(AnalyticsProducer *self, guint32 channel, gboolean enabled,
                                            const gchar *name);

gboolean analytics_producer_get_channel_enabled(AnalyticsProducer *self, guint32 channel, gchar **out_name);

gboolean analytics_producer_is_channel_supported(AnalyticsProducer *self, guint32 channel);

GPtrArray *analytics_producer_get_all_channels_enabled(AnalyticsProducer *self);

G_END_DECLS

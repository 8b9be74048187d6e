#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * AnalyticsProducerKind:
 * @ANALYTICS_PRODUCER_BUILT_IN: its data is produced inside the daemon's own pipelines
 * @ANALYTICS_PRODUCER_EXTERNAL: it is announced on the system bus and read over a stream descriptor
 * @ANALYTICS_PRODUCER_LAST_KIND: the end of the range that the property takes; nothing makes such a producer
 *
 * Where a producer's data comes from: the values of #AnalyticsProducer:type.
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
 * What a producer knows of one supported channel.
 */
typedef struct {
  guint32 channel;
  gboolean enabled;
  gchar *name;
} AnalyticsProducerChannel;

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

/**
 * AnalyticsProducerList:
 *
 * The daemon's producers by name.
 */
typedef struct AnalyticsProducerList AnalyticsProducerList;

/**
 * AnalyticsProducerFunc:
 * @producer: (transfer none): the producer that was added, or that is about to be removed
 *
 * Called with the list's lock held: it must not call any function of the list.
 */
typedef void (*AnalyticsProducerFunc)(AnalyticsProducer *producer);

/**
 * AnalyticsProducerForeachFunc:
 * @producer: (transfer none): one producer of the list
 * @user_data: what analytics_producer_list_foreach() was given
 *
 * Called with the list's lock held: it must not call any function of the list.
 */
typedef void (*AnalyticsProducerForeachFunc)(AnalyticsProducer *producer, gpointer user_data);

AnalyticsProducerList *analytics_producer_list_new(void);

void analytics_producer_list_free(AnalyticsProducerList *list);

void analytics_producer_list_set_callbacks(AnalyticsProducerList *list, AnalyticsProducerFunc on_added,
                                           AnalyticsProducerFunc on_removed);

gboolean analytics_producer_list_add(AnalyticsProducerList *list, AnalyticsProducer *producer);

void analytics_producer_list_remove(AnalyticsProducerList *list, const gchar *name);

void analytics_producer_list_foreach(AnalyticsProducerList *list, AnalyticsProducerForeachFunc function,
                                     gpointer user_data);

gboolean analytics_producer_list_contains(AnalyticsProducerList *list, const gchar *name);

AnalyticsProducer *analytics_producer_list_get_producer(AnalyticsProducerList *list, const gchar *name);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(AnalyticsProducerList, analytics_producer_list_free)

G_END_DECLS

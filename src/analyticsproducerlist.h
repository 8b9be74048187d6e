/* SPDX-License-Identifier: MIT */
#pragma once

#include "analyticsproducer.h"

G_BEGIN_DECLS

/**
 * AnalyticsProducerList:
 *
 * The daemon's producers by name.
 *
 * Any thread can call the functions of a list. In the daemon only the main thread adds and removes producers.
 */
typedef struct AnalyticsProducerList AnalyticsProducerList;

/**
 * AnalyticsProducerFunc:
 * @producer: (transfer none): the producer that was added, or that is about to be removed
 *
 * Called with the list's lock held: it must not call a function of the list.
 */
typedef void (*AnalyticsProducerFunc)(AnalyticsProducer *producer);

/**
 * AnalyticsProducerForeachFunc:
 * @producer: (transfer none): a producer of the list
 * @user_data: the data that was passed to analytics_producer_list_foreach()
 *
 * Called with the list's lock held: it must not call a function of the list.
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

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PRODUCER_METER_MAX_NAME_BYTES:
 *
 * The bytes of a configuration name that tell sources apart, and one more that shows that the name is longer.
 */
#define PRODUCER_METER_MAX_NAME_BYTES 256

/**
 * PRODUCER_METER_MAX_SOURCES:
 *
 * The sources that are counted one by one.
 */
#define PRODUCER_METER_MAX_SOURCES 256

/**
 * ProducerMeter:
 *
 * The counters of one source: of all streams with one configuration name. Any thread can call the functions
 * of this component.
 */
typedef struct ProducerMeter ProducerMeter;

/**
 * ProducerCounts:
 * @source: the configuration name, in any bytes; %NULL in the sums over all sources
 * @streams: the open streams, one for each client
 * @messages: the messages that were passed on; one that goes to several clients counts for each
 * @bytes: the bytes of their frames
 * @dropped: the messages that began and were not passed on
 *
 * One source at a moment. All but the number of streams never decrease.
 */
typedef struct {
  gchar *source;
  guint streams;
  guint64 messages;
  guint64 bytes;
  guint64 dropped;
} ProducerCounts;

ProducerMeter *producer_meter_new(const gchar *source);

void producer_meter_free(ProducerMeter *self);

void producer_meter_add_message(ProducerMeter *self, gsize bytes);

void producer_meter_add_dropped(ProducerMeter *self);

GPtrArray *producer_meter_list(ProducerCounts *totals);

G_END_DECLS

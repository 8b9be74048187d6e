#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DESCRIPTOR_FILTER_MAX_CALLS:
 *
 * How many stream calls of a connection can wait for their descriptor: the number of open calls that the bus
 * allows a connection by default. With more, the reply to the oldest call is refused.
 */
#define DESCRIPTOR_FILTER_MAX_CALLS 128

/**
 * DESCRIPTOR_FILTER_LOG_INTERVAL_US:
 *
 * The shortest time between two lines about refused descriptors, in microseconds.
 */
#define DESCRIPTOR_FILTER_LOG_INTERVAL_US G_TIME_SPAN_SECOND

/**
 * DescriptorFilter:
 *
 * The state of a connection's filter. One thread at a time.
 */
typedef struct DescriptorFilter DescriptorFilter;

DescriptorFilter *descriptor_filter_new(void);

void descriptor_filter_free(DescriptorFilter *filter);

GDBusMessage *descriptor_filter_pass(DescriptorFilter *filter, GDBusMessage *message, gboolean incoming,
                                     GDBusMessage **answer);

void descriptor_filter_add(GDBusConnection *connection);

G_END_DECLS

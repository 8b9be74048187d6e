#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DESCRIPTOR_FILTER_MAX_CALLS:
 *
 * How many calls for a stream of a connection may wait for their descriptor. As many as dbus-daemon lets a
 * connection have open by default; of more, the oldest one gets no descriptor any more.
 */
#define DESCRIPTOR_FILTER_MAX_CALLS 128

/**
 * DESCRIPTOR_FILTER_LOG_INTERVAL_US:
 *
 * How long a line about refused descriptors keeps the next one back, in microseconds.
 */
#define DESCRIPTOR_FILTER_LOG_INTERVAL_US G_TIME_SPAN_SECOND

/**
 * DescriptorFilter:
 *
 * What a connection's filter remembers between two messages. One thread at a time.
 */
typedef struct DescriptorFilter DescriptorFilter;

DescriptorFilter *descriptor_filter_new(void);

void descriptor_filter_free(DescriptorFilter *filter);

GDBusMessage *descriptor_filter_pass(DescriptorFilter *filter, GDBusMessage *message, gboolean incoming,
                                     GDBusMessage **answer);

void descriptor_filter_add(GDBusConnection *connection);

G_END_DECLS

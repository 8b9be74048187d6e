/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * DESCRIPTOR_FILTER_MAX_CALLS:
 *
 * The number of a connection's stream calls that can wait for a descriptor: the default limit of the bus for
 * pending calls of a connection. With more, the reply to the oldest call is refused.
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
 * The state of a connection's filter. Any thread can call the functions of this component, one at a time for
 * one filter.
 */
typedef struct DescriptorFilter DescriptorFilter;

DescriptorFilter *descriptor_filter_new(void);

void descriptor_filter_free(DescriptorFilter *filter);

GDBusMessage *descriptor_filter_pass(DescriptorFilter *filter, GDBusMessage *message, gboolean incoming,
                                     GDBusMessage **reply);

void descriptor_filter_add(GDBusConnection *connection);

G_END_DECLS

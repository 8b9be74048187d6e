/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/**
 * PRODUCER_PROPERTIES_MAX_NAME_BYTES:
 *
 * The longest name of a producer.
 */
#define PRODUCER_PROPERTIES_MAX_NAME_BYTES 255

/**
 * PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES:
 *
 * The longest name of a producer for display.
 */
#define PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES 1024

/**
 * PRODUCER_PROPERTIES_MAX_CHANNELS:
 *
 * The number of video channels of a producer.
 */
#define PRODUCER_PROPERTIES_MAX_CHANNELS 256

/**
 * ProducerProperties:
 *
 * The announced properties of one producer.
 */
typedef struct ProducerProperties ProducerProperties;

ProducerProperties *producer_properties_new(GVariant *values);

void producer_properties_free(ProducerProperties *self);

void producer_properties_change(ProducerProperties *self, GVariant *changed, const gchar *const *invalidated);

const gchar *producer_properties_get_problem(const ProducerProperties *self);

const gchar *producer_properties_get_name(const ProducerProperties *self);

const gchar *producer_properties_get_nice_name(const ProducerProperties *self);

GArray *producer_properties_get_channels(const ProducerProperties *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(ProducerProperties, producer_properties_free)

G_END_DECLS

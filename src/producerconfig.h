/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PRODUCER_CONFIG_TEMPORARY_SUFFIX:
 *
 * The suffix of the temporary file for new content. The daemon overwrites a file of that name, and removes it
 * at start-up.
 */
#define PRODUCER_CONFIG_TEMPORARY_SUFFIX ".tessard-new"

/**
 * PRODUCER_CONFIG_MAX_NAME_BYTES:
 *
 * The longest configuration name that a call on the bus can set: all names together must fit into one
 * message. The file can have longer ones.
 */
#define PRODUCER_CONFIG_MAX_NAME_BYTES 256

/**
 * PRODUCER_CONFIG_RETRY_SECONDS:
 *
 * The interval of the retries when the file cannot be written.
 */
#define PRODUCER_CONFIG_RETRY_SECONDS 60

/* Any thread can call the functions of this component, except producer_config_setup() and
 * producer_config_free(), which are for the main thread. */

gboolean producer_config_setup(const gchar *path);

void producer_config_free(void);

gchar *producer_config_get_name(const gchar *producer, guint32 channel);

void producer_config_set_name(const gchar *producer, guint32 channel, const gchar *name);

guint producer_config_call_when_saved(GSourceFunc function, gpointer user_data);

GArray *producer_config_get_supported_channels(const gchar *producer);

G_END_DECLS

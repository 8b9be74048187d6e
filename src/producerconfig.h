#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PRODUCER_CONFIG_MAX_SCANNED_ENTRIES:
 *
 * How many entries of the file's folder are looked at for what a killed save left behind.
 */
#define PRODUCER_CONFIG_MAX_SCANNED_ENTRIES 1000

gboolean producer_config_setup(const gchar *path);

void producer_config_free(void);

gchar *producer_config_get_name(const gchar *producer, guint32 channel);

void producer_config_set_name(const gchar *producer, guint32 channel, const gchar *name);

GArray *producer_config_get_supported_channels(const gchar *producer);

G_END_DECLS

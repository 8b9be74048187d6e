#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PRODUCER_CONFIG_TEMPORARY_SUFFIX:
 *
 * What the file's name is extended by while its new content is written. A file of that name is the daemon's,
 * which removes it at its start and writes over it.
 */
#define PRODUCER_CONFIG_TEMPORARY_SUFFIX ".tessard-new"

/**
 * PRODUCER_CONFIG_MAX_NAME_BYTES:
 *
 * How long a configuration name may be that is asked for on the bus, where all names together have to fit
 * into one message. The file may hold longer ones.
 */
#define PRODUCER_CONFIG_MAX_NAME_BYTES 256

/**
 * PRODUCER_CONFIG_RETRY_SECONDS:
 *
 * How often a file that could not be written is tried again.
 */
#define PRODUCER_CONFIG_RETRY_SECONDS 60

gboolean producer_config_setup(const gchar *path);

void producer_config_free(void);

gchar *producer_config_get_name(const gchar *producer, guint32 channel);

void producer_config_set_name(const gchar *producer, guint32 channel, const gchar *name);

guint producer_config_call_when_saved(GSourceFunc function, gpointer user_data);

GArray *producer_config_get_supported_channels(const gchar *producer);

G_END_DECLS

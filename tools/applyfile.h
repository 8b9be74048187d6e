/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions can be called on any thread. */

/**
 * APPLY_FILE_MAX_BYTES:
 *
 * The longest file for "tessardctl apply".
 */
#define APPLY_FILE_MAX_BYTES (1024 * 1024)

GVariant *apply_file_read(const gchar *path, gsize *change_count, GError **error);
GVariant *apply_file_parse(const gchar *text, gsize size, const gchar *file_name, gsize *change_count,
                           GError **error);

#pragma once

#include <glib.h>

/**
 * APPLY_FILE_MAX_BYTES:
 *
 * How long a file for "tessardctl apply" may be.
 */
#define APPLY_FILE_MAX_BYTES (1024 * 1024)

/**
 * APPLY_FILE_MAX_DEPTH:
 *
 * How deep arrays and objects may stand in each other; the parser's stack is what it takes.
 */
#define APPLY_FILE_MAX_DEPTH 16

GVariant *apply_file_read(const gchar *path, gsize *change_count, GError **error);
GVariant *apply_file_parse(const gchar *text, gsize size, const gchar *file_name, gsize *change_count,
                           GError **error);

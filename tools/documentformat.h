/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions can be called on any thread. */

GString *document_format_line(const gchar *document, gsize size);
GString *document_format_indented(const gchar *document, gsize size);

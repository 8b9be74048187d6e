/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions are for the main thread. */

gboolean output_write(const gchar *text, GError **error);

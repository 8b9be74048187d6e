/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions can be called on any thread. */

gchar *printable_line(const gchar *text);
gchar *printable_lines(const gchar *text);

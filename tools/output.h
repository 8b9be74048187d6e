#pragma once

#include <glib.h>

gboolean output_write(const gchar *text, GError **error);

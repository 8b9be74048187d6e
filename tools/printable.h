#pragma once

#include <glib.h>

gchar *printable_line(const gchar *text);
gchar *printable_lines(const gchar *text);

#pragma once

#include <glib.h>

G_BEGIN_DECLS

GHashTable *request_read(GIOChannel *channel, gchar **failure);

G_END_DECLS

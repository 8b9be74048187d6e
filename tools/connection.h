#pragma once

#include <gio/gio.h>

GSocket *connection_open(const gchar *socket_path, const gchar *request, GCancellable *cancellable,
                         GError **error);

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

/* All functions can be called on any thread. */

GSocket *connection_open(const gchar *socket_path, const gchar *request, GCancellable *cancellable,
                         GError **error);

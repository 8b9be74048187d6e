/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * LISTENING_SOCKET_BACKLOG:
 *
 * The number of connections that the kernel queues until they are accepted.
 */
#define LISTENING_SOCKET_BACKLOG 10

gint listening_socket_open(const gchar *path);

void listening_socket_close(gint fd);

G_END_DECLS

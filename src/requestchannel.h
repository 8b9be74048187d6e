/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/* Any thread can call these functions and use a channel, one at a time for one channel. */

GIOChannel *request_channel_new(int fd, const gchar *text, gsize length, const gchar *failure);

void request_channel_discard_input(int fd);

G_END_DECLS

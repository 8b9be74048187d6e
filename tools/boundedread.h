/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions can be called on any thread. */

G_BEGIN_DECLS

GByteArray *bounded_read(int fd, guint max_bytes, GError **error);

G_END_DECLS

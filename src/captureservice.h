/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

gboolean capture_service_query_rotation(gint32 channel, guint32 *rotation, GCancellable *cancellable,
                                        GError **error);

G_END_DECLS

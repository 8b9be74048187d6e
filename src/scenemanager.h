/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

gboolean scene_manager_is_provider_running(gint timeout_ms, GCancellable *cancellable, GError **error);

G_END_DECLS

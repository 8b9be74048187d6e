#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

gint32 ptz_coordinator_query_move_capabilities(GCancellable *cancellable);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

gint32 ptz_coordinator_query_move_capabilities(void);

G_END_DECLS

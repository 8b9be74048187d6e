/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/* The functions of this component are for the main thread, at start-up. */

void terminal_show_log(void);

gboolean terminal_check_arguments(int argc, char **argv);

G_END_DECLS

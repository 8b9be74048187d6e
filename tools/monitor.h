/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions are for the main thread. */

G_BEGIN_DECLS

int monitor_command_run(int argc, char **argv);

G_END_DECLS

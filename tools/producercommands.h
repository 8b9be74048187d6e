/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* All functions are for the main thread. */

G_BEGIN_DECLS

int producers_command_run(int argc, char **argv);
int show_command_run(int argc, char **argv);
int enable_command_run(int argc, char **argv);
int disable_command_run(int argc, char **argv);
int apply_command_run(int argc, char **argv);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

int topics_command_run(int argc, char **argv);

G_END_DECLS

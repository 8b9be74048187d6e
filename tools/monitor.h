#pragma once

#include <glib.h>

G_BEGIN_DECLS

int monitor_command_run(int argc, char **argv);

G_END_DECLS

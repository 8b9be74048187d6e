/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/**
 * PRODUCE_WAIT_MS:
 *
 * The time for which a line waits until the receiver takes it, in milliseconds. Then lines are dropped.
 */
#define PRODUCE_WAIT_MS 5000

/**
 * PRODUCE_END_MS:
 *
 * The time for the last line and for the end of the registration, in milliseconds.
 */
#define PRODUCE_END_MS 5000

G_BEGIN_DECLS

int produce_command_run(int argc, char **argv);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/**
 * PRODUCE_WAIT_MS:
 *
 * The time for which lines wait until the receiver takes them, in milliseconds. Then lines are dropped.
 */
#define PRODUCE_WAIT_MS 5000

/**
 * PRODUCE_MAX_BATCH_LINES:
 *
 * How many lines the library gets before the receiver has taken all earlier ones.
 */
#define PRODUCE_MAX_BATCH_LINES 128

/**
 * PRODUCE_MAX_BATCH_BYTES:
 *
 * The length of these lines. The library always gets one line.
 */
#define PRODUCE_MAX_BATCH_BYTES (16 * 1024)

G_BEGIN_DECLS

int produce_command_run(int argc, char **argv);

G_END_DECLS

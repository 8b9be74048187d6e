/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/**
 * EMIT_MAX_LINE_BYTES:
 *
 * The length of the longest line of "tessardctl emit --lines". The receiver takes no longer events.
 */
#define EMIT_MAX_LINE_BYTES (64 * 1024)

/**
 * EMIT_WAIT_MS:
 *
 * The time for the receiver to take an event, or to list the topics, in milliseconds.
 */
#define EMIT_WAIT_MS 10000

G_BEGIN_DECLS

int emit_command_run(int argc, char **argv);
int topics_command_run(int argc, char **argv);

G_END_DECLS

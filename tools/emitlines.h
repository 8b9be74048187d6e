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
 * EMIT_MAX_PENDING:
 *
 * How many events of lines the receiver can have to take before the next line is read.
 */
#define EMIT_MAX_PENDING 256

int emit_lines(const gchar *bus_address);

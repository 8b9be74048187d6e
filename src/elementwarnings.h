/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * ELEMENT_WARNINGS_INTERVAL_US:
 *
 * The interval in which each kind of warning has one line, in microseconds.
 */
#define ELEMENT_WARNINGS_INTERVAL_US (60 * G_TIME_SPAN_SECOND)

/**
 * ELEMENT_WARNINGS_MAX_KINDS:
 *
 * The number of kinds of warnings that have separate lines. All others share one more.
 */
#define ELEMENT_WARNINGS_MAX_KINDS 32

void element_warnings_log(GstMessage *message);

G_END_DECLS

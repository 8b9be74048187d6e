#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

/**
 * ELEMENT_WARNINGS_INTERVAL_US:
 *
 * How long a warning is only counted after a line about its kind, in microseconds.
 */
#define ELEMENT_WARNINGS_INTERVAL_US (60 * G_TIME_SPAN_SECOND)

/**
 * ELEMENT_WARNINGS_MAX_KINDS:
 *
 * How many kinds of warnings have a line of their own in an interval. All others share one more.
 */
#define ELEMENT_WARNINGS_MAX_KINDS 32

void element_warnings_log(GstMessage *message);

G_END_DECLS

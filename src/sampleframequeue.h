/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * SAMPLE_FRAME_QUEUE_MAX_RUNNING:
 *
 * The number of sample frames that are converted at a time; the others wait.
 */
#define SAMPLE_FRAME_QUEUE_MAX_RUNNING 2

/**
 * SAMPLE_FRAME_QUEUE_MAX_SECONDS:
 *
 * The longest time of a conversion. After that it has failed, and the next one begins.
 */
#define SAMPLE_FRAME_QUEUE_MAX_SECONDS 10

/**
 * SAMPLE_FRAME_QUEUE_MAX_STUCK:
 *
 * The number of abandoned conversions that still occupy a thread. At this number the converter counts as
 * broken: further conversions fail until one of them returns.
 */
#define SAMPLE_FRAME_QUEUE_MAX_STUCK 8

/**
 * SAMPLE_FRAME_QUEUE_DESCRIPTORS:
 *
 * The largest number of descriptors that the pipeline of a conversion opens.
 */
#define SAMPLE_FRAME_QUEUE_DESCRIPTORS 8

/**
 * SAMPLE_FRAME_QUEUE_BACKOFF_MS:
 *
 * The back-off when there are too few descriptors or threads for a conversion.
 */
#define SAMPLE_FRAME_QUEUE_BACKOFF_MS 250

/**
 * SampleFrameConversion:
 *
 * A conversion that waits or runs. All functions of this component are for the main thread.
 */
typedef struct SampleFrameConversion SampleFrameConversion;

/**
 * SampleFrameFunc:
 * @xml: (transfer none) (nullable): the sample frame as ONVIF XML, or %NULL when it could not be converted
 * @user_data: the data that was passed to sample_frame_queue_add()
 *
 * Called on the main thread at the end of the conversion.
 */
typedef void (*SampleFrameFunc)(const gchar *xml, gpointer user_data);

SampleFrameConversion *sample_frame_queue_add(gchar *json, const gchar *producer_name, SampleFrameFunc func,
                                              gpointer user_data);

void sample_frame_queue_cancel(SampleFrameConversion *conversion);

G_END_DECLS

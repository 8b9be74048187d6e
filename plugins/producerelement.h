/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/base/gstbasetransform.h>

/* The element tessardproducer: the detections on the frames of a video as the items of a producer. */

G_BEGIN_DECLS

/**
 * TESSARD_PRODUCER_ELEMENT_MAX_RATE:
 *
 * The highest limit of items a second.
 */
#define TESSARD_PRODUCER_ELEMENT_MAX_RATE 1000

/**
 * TESSARD_PRODUCER_ELEMENT_STOP_MS:
 *
 * How long the change to READY waits until the receiver has taken the last items, in milliseconds.
 */
#define TESSARD_PRODUCER_ELEMENT_STOP_MS 500

#define TESSARD_TYPE_PRODUCER_ELEMENT (tessard_producer_element_get_type())

G_DECLARE_FINAL_TYPE(TessardProducerElement, tessard_producer_element, TESSARD, PRODUCER_ELEMENT,
                     GstBaseTransform)

#define TESSARD_TYPE_TRACKING (tessard_tracking_get_type())

GType tessard_tracking_get_type(void);

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerframe.h"

/* The frames of external producers as ONVIF metadata. */

namespace plugins
{

struct ProducerView {
  bool polygon = true;
  bool sample = false; /* write one tt:SampleFrame, an example of the producer's frames */
};

GstBuffer *producer_frame_to_fragment(const ProducerFrame &frame, const ProducerView &view, gint64 arrival);

} // namespace plugins

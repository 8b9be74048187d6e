#pragma once

#include "producerframe.h"

/* What the frames of producers look like as ONVIF metadata. */

namespace sim
{

struct ProducerView {
  bool polygon = true;
  bool sample = false; /* the one tt:SampleFrame that shows what a producer's frames are like */
};

GstBuffer *producer_frame_to_fragment(const ProducerFrame &frame, const ProducerView &view, gint64 arrival);

} /* namespace sim */

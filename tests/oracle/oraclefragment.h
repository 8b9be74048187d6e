/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerfragment.h"

namespace oracle
{

GstBuffer *frame_to_fragment(const plugins::ProducerFrame &frame, const plugins::ProducerView &view,
                             gint64 arrival);

} // namespace oracle

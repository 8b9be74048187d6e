/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

/* Selects the frames of a stream that are sent, up to a number in a second. */

namespace plugins
{

/* How much a frame may come too early, because its time is rounded or its source is not exact. */
constexpr GstClockTime RATE_LIMIT_TOLERANCE = GST_MSECOND;

class RateLimit
{
public:
  explicit RateLimit(double rate);

  bool take(GstClockTime running);

private:
  GstClockTime interval_;                   /* 0 without a limit */
  GstClockTime last_ = GST_CLOCK_TIME_NONE; /* running time of the last frame that was taken */
  GstClockTime due_ = 0;                    /* when the next one can be taken */
};

} // namespace plugins

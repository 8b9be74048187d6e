/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>
#include <optional>

/* The time at which a frame was taken, in microseconds since 1970. */

namespace plugins
{

/* A difference from the pipeline's clock beyond which the wall clock was set. */
constexpr gint64 FRAME_TIME_STEP_US = G_USEC_PER_SEC;

/* The relation of a pipeline's running time to the wall clock. */
class WallClock
{
public:
  void compare(GstClockTime running, gint64 utc);
  void reset();
  gint64 utc_at(GstClockTime running) const;

private:
  std::optional<gint64> offset_; /* the wall clock at the running time 0 */
};

std::optional<gint64> frame_time_of_reference(GstBuffer *buffer);

} // namespace plugins

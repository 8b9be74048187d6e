/* SPDX-License-Identifier: MIT */
#include "ratelimit.h"

#include <algorithm>

/* The times at which frames are due are a fixed interval apart, so that a rate that does not divide the one
 * of the stream is kept on average. After a pause, or a jump back, they begin with the next frame. */

namespace plugins
{

namespace
{

/* In nanoseconds: longer than any stream. */
constexpr double INTERVAL_MAX = 1e18;

GstClockTime
interval_of(double rate)
{
  return rate > 0 ? static_cast<GstClockTime>(std::min(GST_SECOND / rate, INTERVAL_MAX)) : 0;
}

} // namespace

/**
 * RateLimit:
 * @rate: frames a second; 0 for all
 */
RateLimit::RateLimit(double rate) : interval_(interval_of(rate))
{
}

/**
 * RateLimit::take:
 * @running: the running time of the next frame
 *
 * Returns: whether to send the frame
 */
bool
RateLimit::take(GstClockTime running)
{
  bool is_restart = !GST_CLOCK_TIME_IS_VALID(last_) || running < last_ || running >= due_ + interval_;
  if (!is_restart && running + RATE_LIMIT_TOLERANCE < due_) {
    return false;
  }
  due_ = (is_restart ? running : due_) + interval_;
  last_ = running;
  return true;
}

} // namespace plugins

/* SPDX-License-Identifier: MIT */
#include "ratebucket.h"

#include <algorithm>

/* The bucket counts time, so that no part of a token is lost between two calls. */

namespace receiver
{

/**
 * RateBucket:
 * @per_second: the tokens that come in a second, at most 1,000,000
 * @burst: the tokens of the full bucket
 */
RateBucket::RateBucket(gint64 per_second, gint64 burst)
    : cost_us_(G_USEC_PER_SEC / per_second), burst_us_(burst * cost_us_), filled_us_(burst_us_),
      time_(g_get_monotonic_time())
{
}

/**
 * RateBucket::has_token:
 *
 * Returns: whether take_token() can be called
 */
bool
RateBucket::has_token()
{
  refill();
  return filled_us_ >= cost_us_;
}

/**
 * RateBucket::take_token:
 *
 * Takes a token, which the bucket must have.
 */
void
RateBucket::take_token()
{
  filled_us_ -= cost_us_;
}

void
RateBucket::refill()
{
  const gint64 now = g_get_monotonic_time();

  filled_us_ = std::min(filled_us_ + now - time_, burst_us_);
  time_ = now;
}

} // namespace receiver

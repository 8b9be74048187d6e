/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace receiver
{

/* A token bucket, which is full at first. Main thread only. */
class RateBucket
{
public:
  RateBucket(gint64 per_second, gint64 burst);

  bool has_token();
  void take_token();

private:
  void refill();

  gint64 cost_us_;  /* the time in which a token comes */
  gint64 burst_us_; /* the time in which an empty bucket fills */
  gint64 filled_us_;
  gint64 time_; /* of filled_us_ */
};

} // namespace receiver

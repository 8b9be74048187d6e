/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace mqtt
{

/* The times between attempts to connect. Not for several threads at once. */
class Backoff
{
public:
  gint64 next_us();
  void reset();

private:
  gint64 longest_us_ = 0; /* the last time, before the random part of it */
};

} // namespace mqtt

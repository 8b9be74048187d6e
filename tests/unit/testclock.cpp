/* SPDX-License-Identifier: MIT */
#include "testclock.h"

#include <atomic>

namespace
{

std::atomic<gint64> advanced_us;
std::atomic<gint64> stopped_at; /* 0 while it goes */

} // namespace

/* The names are the linker's, and it requires that the first one be visible. */
extern "C" __attribute__((visibility("default"))) gint64 __wrap_g_get_monotonic_time();
extern "C" gint64 __real_g_get_monotonic_time();

gint64
__wrap_g_get_monotonic_time()
{
  const gint64 stopped = stopped_at;

  return (stopped != 0 ? stopped : __real_g_get_monotonic_time()) + advanced_us;
}

void
testclock::reset()
{
  advanced_us = 0;
  stopped_at = 0;
}

void
testclock::advance_ms(gint64 milliseconds)
{
  advanced_us += milliseconds * G_TIME_SPAN_MILLISECOND;
}

void
testclock::stop()
{
  stopped_at = __real_g_get_monotonic_time();
}

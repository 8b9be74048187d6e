/* SPDX-License-Identifier: MIT */
#include "testclock.h"

#include <atomic>

namespace
{

std::atomic<gint64> advanced_us;

} // namespace

/* The names are the linker's, and it requires that the first one be visible. */
extern "C" __attribute__((visibility("default"))) gint64 __wrap_g_get_monotonic_time();
extern "C" gint64 __real_g_get_monotonic_time();

gint64
__wrap_g_get_monotonic_time()
{
  return __real_g_get_monotonic_time() + advanced_us;
}

void
testclock::reset()
{
  advanced_us = 0;
}

void
testclock::advance_ms(gint64 milliseconds)
{
  advanced_us += milliseconds * G_TIME_SPAN_MILLISECOND;
}

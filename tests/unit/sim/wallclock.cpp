/* SPDX-License-Identifier: MIT */
#include "wallclock.h"

#include <atomic>
#include <ctime>

namespace
{

constexpr int NEVER = -1;

std::atomic<gint64> wall_clock_offset = 0;
std::atomic<gint64> later_offset = 0;
std::atomic<int> reads_until_change = NEVER;

} // namespace

void
set_wall_clock_offset(gint64 offset)
{
  reads_until_change = NEVER;
  wall_clock_offset = offset;
}

void
set_wall_clock_offset_after(int reads, gint64 offset)
{
  later_offset = offset;
  reads_until_change = reads;
}

/* The program's definition takes precedence over GLib's, in the plug-ins too. */
[[gnu::visibility("default")]] gint64
g_get_real_time()
{
  if (reads_until_change.load() != NEVER && reads_until_change-- == 0) {
    set_wall_clock_offset(later_offset);
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * G_USEC_PER_SEC + now.tv_nsec / 1000 + wall_clock_offset;
}

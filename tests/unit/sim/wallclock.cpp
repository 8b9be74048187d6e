#include "wallclock.h"

#include <atomic>
#include <ctime>

namespace
{

constexpr int NEVER = -1;

std::atomic<gint64> wall_clock_offset = 0;
std::atomic<gint64> later_offset = 0;
std::atomic<int> looks_until_later = NEVER;

} /* namespace */

void
set_wall_clock_offset(gint64 offset)
{
  looks_until_later = NEVER;
  wall_clock_offset = offset;
}

void
set_wall_clock_offset_after(int looks, gint64 offset)
{
  later_offset = offset;
  looks_until_later = looks;
}

/* The program's own definition comes before the library's, for the plug-ins too. */
[[gnu::visibility("default")]] gint64
g_get_real_time()
{
  if (looks_until_later.load() != NEVER && looks_until_later-- == 0) {
    set_wall_clock_offset(later_offset);
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * G_USEC_PER_SEC + now.tv_nsec / 1000 + wall_clock_offset;
}

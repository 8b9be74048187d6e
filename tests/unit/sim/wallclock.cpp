#include "wallclock.h"

#include <atomic>
#include <ctime>

namespace
{

std::atomic<gint64> wall_clock_offset = 0;

} /* namespace */

void
set_wall_clock_offset(gint64 offset)
{
  wall_clock_offset = offset;
}

/* The program's own definition comes before the library's, for the plug-ins too. */
[[gnu::visibility("default")]] gint64
g_get_real_time()
{
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * G_USEC_PER_SEC + now.tv_nsec / 1000 + wall_clock_offset;
}

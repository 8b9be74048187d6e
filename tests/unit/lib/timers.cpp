/* SPDX-License-Identifier: MIT */
#include "timers.h"

#include "testhost.h"
#include "testlist.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <pthread.h>

namespace
{

constexpr guint NEVER_MS = G_MAXUINT;

struct Timer {
  GSource *source;
  guint milliseconds;
};

std::mutex lock;
std::vector<Timer> set_timers;
testhost::List<guint> begun;

/* The thread sanitizer's GLib makes time-outs of other threads with the same function. */
bool
is_worker()
{
  char name[16] = {};

  pthread_getname_np(pthread_self(), name, sizeof name);
  return strcmp(name, "tessard") == 0;
}

/* Called with the lock held. */
void
forget_ended()
{
  const auto ended = std::stable_partition(set_timers.begin(), set_timers.end(), [](const Timer &timer) {
    return !g_source_is_destroyed(timer.source);
  });

  std::for_each(ended, set_timers.end(), [](const Timer &timer) { g_source_unref(timer.source); });
  set_timers.erase(ended, set_timers.end());
}

} // namespace

/* The names are the linker's, and it requires that the first one be visible. */
extern "C" __attribute__((visibility("default"))) GSource *__wrap_g_timeout_source_new(guint milliseconds);
extern "C" GSource *__real_g_timeout_source_new(guint milliseconds);

GSource *
__wrap_g_timeout_source_new(guint milliseconds)
{
  if (!is_worker()) {
    return __real_g_timeout_source_new(milliseconds);
  }
  GSource *source = __real_g_timeout_source_new(NEVER_MS);
  std::lock_guard guard(lock);

  set_timers.push_back({g_source_ref(source), milliseconds});
  begun.add(milliseconds);
  return source;
}

std::vector<guint>
timers::take_begun()
{
  return begun.take();
}

gsize
timers::count_set()
{
  std::lock_guard guard(lock);

  forget_ended();
  return set_timers.size();
}

bool
timers::try_to_fire(guint milliseconds)
{
  std::lock_guard guard(lock);
  forget_ended();
  const auto found = std::find_if(set_timers.begin(), set_timers.end(), [milliseconds](const Timer &timer) {
    return timer.milliseconds == milliseconds;
  });

  if (found == set_timers.end()) {
    return false;
  }
  g_source_set_ready_time(found->source, 0);
  g_source_unref(found->source);
  set_timers.erase(found);
  return true;
}

bool
timers::fire(guint milliseconds)
{
  return testhost::spin_until([milliseconds] { return try_to_fire(milliseconds); });
}

/* How the C library's allocator keeps and returns memory.
 *
 * By default the allocator raises its mapping threshold with each large block that is freed. Later large
 * blocks then come from heaps, where one small block that stays keeps everything below it, and each further
 * thread may get a heap of its own. A fixed threshold lets every large block go when it is freed; few heaps
 * leave few holes.
 *
 * What small blocks leave free is returned by a trim, which takes the lock of each heap while it goes through
 * it. A thread of its own trims, so that nobody waits for more than that. It trims twice for a request: at
 * once and an interval later, because what asks may still have to be freed. Requests that come meanwhile are
 * one.
 *
 * GLib before 2.76 has small blocks of its own, its slices, and keeps all that were ever in use at one time.
 * It can be told to take them from the C library's allocator instead, but only before its own initialisation,
 * which is over when main() begins.
 *
 * Another allocator, a sanitizer's for example, ignores all of this.
 */
#include "memory.h"

#include <malloc.h>
#include <utility>

namespace
{

constexpr guint TRIMS_FOR_A_REQUEST = 2;

GMutex lock;
GCond changed;
GThread *trimmer; /* the main thread's alone */
guint trims_left; /* guarded by the lock, like the next */
gboolean stopping;

/* With the lock held. FALSE when the thread has to end. */
gboolean
wait_for_request(gint64 not_before_us)
{
  while (!stopping && (trims_left == 0 || g_get_monotonic_time() < not_before_us)) {
    if (trims_left == 0) {
      g_cond_wait(&changed, &lock);
    } else {
      g_cond_wait_until(&changed, &lock, not_before_us);
    }
  }
  return !stopping;
}

gpointer
trim_on_request(gpointer user_data)
{
  gint64 not_before_us = 0;

  g_mutex_lock(&lock);
  while (wait_for_request(not_before_us)) {
    trims_left--;
    g_mutex_unlock(&lock);
    malloc_trim(0);
    not_before_us = g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND * MEMORY_TRIM_INTERVAL_MS;
    g_mutex_lock(&lock);
  }
  g_mutex_unlock(&lock);
  return nullptr;
}

#if !GLIB_CHECK_VERSION(2, 76, 0) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void
give_up_slices()
{
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  g_slice_set_config(G_SLICE_CONFIG_ALWAYS_MALLOC, TRUE);
  G_GNUC_END_IGNORE_DEPRECATIONS
}

/* What stands in this section of a program runs before the initialisation of any library. Nothing but such a
 * setting can be made there. */
[[gnu::used, gnu::section(".preinit_array")]] void (*const BEFORE_LIBRARIES)() = give_up_slices;
#endif

} // namespace

/**
 * memory_set_up:
 *
 * Fixes the allocator's mapping threshold and the number of its heaps. To be called first of all in main(),
 * before there is another thread. A program that has this function has no slices of GLib's from its start.
 */
void
memory_set_up(void)
{
  mallopt(M_MMAP_THRESHOLD, MEMORY_MMAP_THRESHOLD);
  mallopt(M_ARENA_MAX, MEMORY_MAX_ARENAS);
}

/**
 * memory_start_trimming:
 *
 * Starts the thread that trims for memory_trim_later(). If it cannot be started, nothing is ever trimmed.
 * Main thread.
 *
 * Warnings: "trimmer == NULL" is a precondition: it has not been started, or was stopped since.
 */
void
memory_start_trimming(void)
{
  g_return_if_fail(trimmer == NULL);

  trimmer = g_thread_try_new("trim", trim_on_request, nullptr, nullptr);
}

/**
 * memory_trim_later:
 *
 * Asks for what is free, and what is freed shortly, to be given back to the system. Never waits for that. At
 * most one trim begins within MEMORY_TRIM_INTERVAL_MS, however often this is called. Any thread.
 */
void
memory_trim_later(void)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  trims_left = TRIMS_FOR_A_REQUEST;
  g_cond_signal(&changed);
}

/**
 * memory_stop_trimming:
 *
 * Ends what memory_start_trimming() began, and waits for a trim that is under way. Main thread.
 */
void
memory_stop_trimming(void)
{
  if (trimmer == nullptr) {
    return;
  }
  g_mutex_lock(&lock);
  stopping = TRUE;
  g_cond_signal(&changed);
  g_mutex_unlock(&lock);
  g_thread_join(std::exchange(trimmer, nullptr));
  stopping = FALSE;
  trims_left = 0;
}

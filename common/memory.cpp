/* SPDX-License-Identifier: MIT */
/* Configures the C library's allocator and returns free memory to the system.
 *
 * By default the allocator raises its mapping threshold with each large block that is freed. Later large
 * blocks then come from heaps, which cannot shrink below a block that is still in use, and each thread can
 * get its own heap. With a fixed threshold, large blocks return to the system when they are freed; with few
 * heaps, less free memory lies between blocks that are in use.
 *
 * A trim returns the free memory of the heaps. It locks each heap, so it runs on a separate thread, and other
 * threads wait at most for one heap. A request causes two trims, one immediately and one after the interval,
 * because the caller's own memory may not be freed yet. Requests in between cause no further trims.
 *
 * For each thread the allocator keeps up to seven freed blocks of every small size. A trim does not return
 * them, and each can keep a page that is otherwise free. Only the thread itself can allocate them, and they
 * are kept again when it frees them. So threads that stay allocate these blocks and hand them over to a
 * thread that frees them and ends, for which the allocator keeps none.
 *
 * GLib before 2.76 has its own allocator for small blocks, the slices, which never returns memory. GLib can
 * use the C library's allocator instead, but only if this is set before GLib's initialisation, which is
 * complete when main() begins.
 *
 * Other allocators, for example a sanitizer's, ignore these settings.
 */
#include "memory.h"

#include <malloc.h>
#include <utility>

namespace
{

constexpr guint TRIMS_PER_REQUEST = 2;

/* The sizes of the freed blocks that the allocator keeps for a thread, and the number of each size. */
constexpr gsize SMALLEST_KEPT = 24;
constexpr gsize LARGEST_KEPT = 1032;
constexpr gsize STEP_OF_KEPT = 16;
constexpr gsize KEPT_PER_SIZE = 7;

struct Block {
  Block *next;
};

GMutex lock;
GCond changed;
GThread *trimmer; /* changed by the main thread, with the lock held */

/* Protected by the lock. */
guint trims_left;
guint trims_begun;
Block *handed_over;
gboolean is_main_thread_due; /* whether the main thread must hand its blocks over */
gboolean stopping;

/* Allocates the blocks that the allocator keeps for the calling thread, or as many others, and prepends them
 * to @rest. */
Block *
take_kept_blocks(Block *rest)
{
  for (gsize size = SMALLEST_KEPT; size <= LARGEST_KEPT; size += STEP_OF_KEPT) {
    for (gsize i = 0; i < KEPT_PER_SIZE; i++) {
      auto *block = static_cast<Block *>(g_malloc(size));
      block->next = std::exchange(rest, block);
    }
  }
  return rest;
}

gpointer
free_blocks(gpointer user_data)
{
  for (auto *block = static_cast<Block *>(user_data); block != nullptr;) {
    g_free(std::exchange(block, block->next));
  }
  return nullptr;
}

/* Takes ownership of the list. */
void
free_blocks_on_thread(Block *blocks)
{
  GThread *thread = blocks == nullptr ? nullptr : g_thread_try_new("free", free_blocks, blocks, nullptr);

  if (thread == nullptr) {
    free_blocks(blocks);
    return;
  }
  g_thread_join(thread);
}

gboolean
on_main_thread_due(gpointer)
{
  memory_hand_over_kept_blocks();

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  is_main_thread_due = FALSE;
  g_cond_signal(&changed);
  return G_SOURCE_REMOVE;
}

/* Waits until the main thread has handed its blocks over. FALSE when the calling thread must end. Called with
 * the lock held. */
gboolean
wait_for_main_thread()
{
  g_autoptr(GSource) source = g_idle_source_new();

  /* With the priority of an idle source, a busy main loop would never dispatch it. */
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, on_main_thread_due, nullptr, nullptr);
  is_main_thread_due = TRUE;
  g_source_attach(source, nullptr);
  while (!stopping && is_main_thread_due) {
    g_cond_wait(&changed, &lock);
  }
  g_source_destroy(source);
  return !stopping;
}

/* FALSE when the calling thread must end. Called with the lock held. */
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

/* Waits for the next trim and takes the blocks that were handed over for it. FALSE when the calling thread
 * must end. */
gboolean
begin_trim(gint64 not_before_us, Block **blocks)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  if (!wait_for_request(not_before_us) || !wait_for_main_thread()) {
    return FALSE;
  }
  *blocks = std::exchange(handed_over, nullptr);
  trims_left--;
  trims_begun++;
  return TRUE;
}

gpointer
trim_on_request(gpointer user_data)
{
  gint64 not_before_us = 0;
  Block *blocks = nullptr;

  while (begin_trim(not_before_us, &blocks)) {
    free_blocks_on_thread(blocks);
    malloc_trim(0);
    not_before_us = g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND * MEMORY_TRIM_INTERVAL_MS;
  }
  return nullptr;
}

#if !GLIB_CHECK_VERSION(2, 76, 0) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void
disable_slices()
{
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  g_slice_set_config(G_SLICE_CONFIG_ALWAYS_MALLOC, TRUE);
  G_GNUC_END_IGNORE_DEPRECATIONS
}

/* Functions in this section run before the initialisation of any library. They must do no more than such a
 * setting. */
[[gnu::used, gnu::section(".preinit_array")]] void (*const BEFORE_LIBRARIES)() = disable_slices;
#endif

} // namespace

/**
 * memory_set_up:
 *
 * Sets the allocator's mapping threshold and the number of its heaps. Must be called first in main(), before
 * another thread exists. GLib uses no slices in a program that links this component.
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
 * Starts the thread that trims for memory_trim_later(). If it cannot be started, there are no trims.
 *
 * Warnings: "trimmer == NULL" is a precondition: the thread is not running.
 */
void
memory_start_trimming(void)
{
  g_return_if_fail(trimmer == NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  trimmer = g_thread_try_new("trim", trim_on_request, nullptr, nullptr);
}

/**
 * memory_trim_later:
 *
 * Requests a trim now and one after the interval. Does not wait for them. At most one trim begins within
 * MEMORY_TRIM_INTERVAL_MS, and none before the default main context is iterated.
 */
void
memory_trim_later(void)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  trims_left = TRIMS_PER_REQUEST;
  g_cond_signal(&changed);
}

/**
 * memory_hand_over_kept_blocks:
 *
 * Hands the freed blocks that the allocator keeps for the calling thread over to the next trim. Makes 450
 * allocations, at most once before each requested trim; otherwise, and without the thread that trims, has no
 * effect. Long-running threads call this after each piece of work, except the main thread, which the trim
 * thread waits for.
 */
void
memory_hand_over_kept_blocks(void)
{
  static thread_local guint handed_over_for = G_MAXUINT;

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  if (trimmer == nullptr || trims_left == 0 || std::exchange(handed_over_for, trims_begun) == trims_begun) {
    return;
  }
  handed_over = take_kept_blocks(handed_over);
}

/**
 * memory_free_kept_blocks:
 *
 * Frees the blocks that the allocator keeps for the calling thread, so that later trims can return them.
 * Starts a thread and waits for its end. For threads that can be idle for long.
 */
void
memory_free_kept_blocks(void)
{
  free_blocks_on_thread(take_kept_blocks(nullptr));
}

/**
 * memory_stop_trimming:
 *
 * Stops the thread after the current trim, if there is one.
 */
void
memory_stop_trimming(void)
{
  if (trimmer == nullptr) {
    return;
  }
  GThread *thread = nullptr;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    thread = std::exchange(trimmer, nullptr);
    stopping = TRUE;
    g_cond_signal(&changed);
  }
  g_thread_join(thread);
  free_blocks(std::exchange(handed_over, nullptr));
  stopping = FALSE;
  trims_left = 0;
}

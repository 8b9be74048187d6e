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
 * For each thread the allocator keeps up to seven freed blocks of every small size. No trim returns them, and
 * each can keep a page that is otherwise free. Only the thread itself gets them, by allocating, and if it
 * frees them, the allocator keeps them again. So threads that stay take them, and a thread that ends frees
 * them: for that one the allocator keeps nothing.
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

/* The freed blocks that the allocator keeps for a thread: their sizes, and how many of each. */
constexpr gsize SMALLEST_KEPT = 24;
constexpr gsize LARGEST_KEPT = 1032;
constexpr gsize STEP_OF_KEPT = 16;
constexpr gsize KEPT_OF_A_SIZE = 7;

struct Block {
  Block *next;
};

GMutex lock;
GCond changed;
GThread *trimmer; /* the main thread's alone */
guint trims_left; /* guarded by the lock, like all that follow */
guint trims_begun;
Block *handed_over;
gboolean main_thread_asked;
gboolean stopping;

/* The blocks that the allocator keeps for the calling thread, or as many others, before @rest. */
Block *
take_kept_blocks(Block *rest)
{
  for (gsize size = SMALLEST_KEPT; size <= LARGEST_KEPT; size += STEP_OF_KEPT) {
    for (gsize i = 0; i < KEPT_OF_A_SIZE; i++) {
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

/* Takes the list. */
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
answer_trimmer(gpointer)
{
  memory_hand_over_kept_blocks();

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  main_thread_asked = FALSE;
  g_cond_signal(&changed);
  return G_SOURCE_REMOVE;
}

/* With the lock held. Waits until the main thread has handed its blocks over. FALSE when this thread has to
 * end. */
gboolean
ask_main_thread()
{
  g_autoptr(GSource) source = g_idle_source_new();

  /* A loop that always has something to do dispatches this in its turn. */
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, answer_trimmer, nullptr, nullptr);
  main_thread_asked = TRUE;
  g_source_attach(source, nullptr);
  while (!stopping && main_thread_asked) {
    g_cond_wait(&changed, &lock);
  }
  g_source_destroy(source);
  return !stopping;
}

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
  while (wait_for_request(not_before_us) && ask_main_thread()) {
    Block *blocks = std::exchange(handed_over, nullptr);
    trims_left--;
    trims_begun++;
    g_mutex_unlock(&lock);
    free_blocks_on_thread(blocks);
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
 * most one trim begins within MEMORY_TRIM_INTERVAL_MS, however often this is called, and none before the
 * default main context has been iterated. Any thread.
 */
void
memory_trim_later(void)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  trims_left = TRIMS_FOR_A_REQUEST;
  g_cond_signal(&changed);
}

/**
 * memory_hand_over_kept_blocks:
 *
 * Hands over the freed blocks that the allocator keeps for the calling thread, for the next trim to return.
 * Takes effect once before each trim, and only while a trim is wanted: 450 allocations then. Threads that
 * stay call this when they have finished a piece of work. The main thread need not: it is asked before each
 * trim. Any thread.
 */
void
memory_hand_over_kept_blocks(void)
{
  static thread_local guint handed_over_for = G_MAXUINT;

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  if (trims_left == 0 || std::exchange(handed_over_for, trims_begun) == trims_begun) {
    return;
  }
  handed_over = take_kept_blocks(handed_over);
}

/**
 * memory_free_kept_blocks:
 *
 * Frees the freed blocks that the allocator keeps for the calling thread, for later trims to return. Starts a
 * thread and waits for its end. For threads that may have nothing to do for long. Any thread.
 */
void
memory_free_kept_blocks(void)
{
  free_blocks_on_thread(take_kept_blocks(nullptr));
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
  free_blocks(std::exchange(handed_over, nullptr));
  stopping = FALSE;
  trims_left = 0;
}

/* SPDX-License-Identifier: MIT */
// Hand-overs between threads under GLib's own locks: thread pools, queues and one-time initialisation. The
// sanitizer gets exactly the order that the lock inside makes.
#include "real.h"

#include <glib.h>
#include <sanitizer/tsan_interface.h>

#undef g_once_init_enter
#undef g_once_init_leave

namespace
{

// The pool runs this instead of the function that it was made with.
struct PoolWork {
  GFunc func;
  gpointer user_data;
};

void
run_item(gpointer item, gpointer user_data)
{
  auto *work = static_cast<PoolWork *>(user_data);
  __tsan_acquire(work);
  work->func(item, work->user_data);
  __tsan_release(work);
}

gpointer
acquire_item(GAsyncQueue *queue, gpointer item)
{
  __tsan_acquire(queue);
  return item;
}

} // namespace

INTERPOSED GThreadPool *
g_thread_pool_new_full(GFunc func, gpointer user_data, GDestroyNotify item_free_func, gint max_threads,
                       gboolean exclusive, GError **error)
{
  FIND_REAL(g_thread_pool_new_full);
  auto *work = new PoolWork{func, user_data};
  GThreadPool *pool = real(run_item, work, item_free_func, max_threads, exclusive, error);
  if (pool == nullptr)
    delete work;
  return pool;
}

INTERPOSED GThreadPool *
g_thread_pool_new(GFunc func, gpointer user_data, gint max_threads, gboolean exclusive, GError **error)
{
  return g_thread_pool_new_full(func, user_data, nullptr, max_threads, exclusive, error);
}

INTERPOSED gboolean
g_thread_pool_push(GThreadPool *pool, gpointer data, GError **error)
{
  FIND_REAL(g_thread_pool_push);
  __tsan_release(pool->user_data);
  return real(pool, data, error);
}

// Without a wait the pool still needs its work.
INTERPOSED void
g_thread_pool_free(GThreadPool *pool, gboolean immediate, gboolean wait)
{
  FIND_REAL(g_thread_pool_free);
  auto *work = static_cast<PoolWork *>(pool->user_data);
  __tsan_acquire(work);
  real(pool, immediate, wait);
  if (!wait)
    return;
  __tsan_acquire(work);
  delete work;
}

INTERPOSED void
g_async_queue_push(GAsyncQueue *queue, gpointer data)
{
  FIND_REAL(g_async_queue_push);
  __tsan_release(queue);
  real(queue, data);
}

INTERPOSED gpointer
g_async_queue_pop(GAsyncQueue *queue)
{
  FIND_REAL(g_async_queue_pop);
  return acquire_item(queue, real(queue));
}

INTERPOSED gpointer
g_async_queue_try_pop(GAsyncQueue *queue)
{
  FIND_REAL(g_async_queue_try_pop);
  return acquire_item(queue, real(queue));
}

INTERPOSED gpointer
g_async_queue_timeout_pop(GAsyncQueue *queue, guint64 timeout)
{
  FIND_REAL(g_async_queue_timeout_pop);
  return acquire_item(queue, real(queue, timeout));
}

INTERPOSED gboolean
g_once_init_enter(volatile void *location)
{
  FIND_REAL(g_once_init_enter);
  gboolean first = real(location);
  if (!first)
    __tsan_acquire(const_cast<void *>(location));
  return first;
}

INTERPOSED void
g_once_init_leave(volatile void *location, gsize result)
{
  FIND_REAL(g_once_init_leave);
  __tsan_release(const_cast<void *>(location));
  real(location, result);
}

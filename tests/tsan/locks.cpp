/* SPDX-License-Identifier: MIT */
// GLib's locks: some are futexes, which the sanitizer does not see; the others are POSIX locks inside the
// library, which is not instrumented.
#include "real.h"

#include <cstring>
#include <dlfcn.h>
#include <glib.h>
#include <sanitizer/tsan_interface.h>

namespace
{

constexpr unsigned PLAIN = 0;
constexpr unsigned RECURSIVE = __tsan_mutex_write_reentrant;
constexpr unsigned READER = __tsan_mutex_read_lock;
constexpr unsigned WRITER = 0;

template <typename Lock>
void
init(void (*real)(Lock *), Lock *lock, unsigned kind)
{
  real(lock);
  __tsan_mutex_create(lock, kind);
}

template <typename Lock>
void
clear(void (*real)(Lock *), Lock *lock)
{
  __tsan_mutex_destroy(lock, 0);
  real(lock);
}

template <typename Lock>
void
lock(void (*real)(Lock *), Lock *lock, unsigned kind)
{
  __tsan_mutex_pre_lock(lock, kind);
  real(lock);
  __tsan_mutex_post_lock(lock, kind, 0);
}

template <typename Lock>
gboolean
try_lock(gboolean (*real)(Lock *), Lock *lock, unsigned kind)
{
  const unsigned flags = kind | __tsan_mutex_try_lock;
  __tsan_mutex_pre_lock(lock, flags);
  gboolean locked = real(lock);
  __tsan_mutex_post_lock(lock, locked ? flags : flags | __tsan_mutex_try_lock_failed, 0);
  return locked;
}

template <typename Lock>
void
unlock(void (*real)(Lock *), Lock *lock, unsigned kind)
{
  __tsan_mutex_pre_unlock(lock, kind);
  real(lock);
  __tsan_mutex_post_unlock(lock, kind);
}

bool
is_of_gio(void *address)
{
  Dl_info info;

  return dladdr(address, &info) != 0 && strstr(info.dli_fname, "/libgio-2.0.so") != nullptr;
}

// GDBus counts the references to its workers itself, which the sanitizer does not see. The thread that drops
// the last reference clears the locks, after all work under them. No lock is taken here: it would be part of
// the lock order.
void
order_by_unseen_count(GMutex *mutex)
{
  __tsan_acquire(mutex);
}

// A wait releases the mutex and takes it again.
class Wait
{
public:
  explicit Wait(GMutex *mutex) : mutex_(mutex)
  {
    __tsan_mutex_pre_unlock(mutex_, PLAIN);
    __tsan_mutex_post_unlock(mutex_, PLAIN);
    __tsan_mutex_pre_lock(mutex_, PLAIN);
  }
  ~Wait()
  {
    __tsan_mutex_post_lock(mutex_, PLAIN, 0);
  }
  Wait(const Wait &) = delete;
  Wait &operator=(const Wait &) = delete;

private:
  GMutex *mutex_;
};

} // namespace

INTERPOSED void
g_mutex_init(GMutex *mutex)
{
  FIND_REAL(g_mutex_init);
  init(real, mutex, PLAIN);
}

INTERPOSED void
g_mutex_clear(GMutex *mutex)
{
  FIND_REAL(g_mutex_clear);
  if (is_of_gio(__builtin_return_address(0))) {
    order_by_unseen_count(mutex);
  }
  clear(real, mutex);
}

INTERPOSED void
g_mutex_lock(GMutex *mutex)
{
  FIND_REAL(g_mutex_lock);
  lock(real, mutex, PLAIN);
}

INTERPOSED gboolean
g_mutex_trylock(GMutex *mutex)
{
  FIND_REAL(g_mutex_trylock);
  return try_lock(real, mutex, PLAIN);
}

INTERPOSED void
g_mutex_unlock(GMutex *mutex)
{
  FIND_REAL(g_mutex_unlock);
  unlock(real, mutex, PLAIN);
}

INTERPOSED void
g_cond_wait(GCond *cond, GMutex *mutex)
{
  FIND_REAL(g_cond_wait);
  Wait wait(mutex);
  real(cond, mutex);
}

INTERPOSED gboolean
g_cond_wait_until(GCond *cond, GMutex *mutex, gint64 end_time)
{
  FIND_REAL(g_cond_wait_until);
  Wait wait(mutex);
  return real(cond, mutex, end_time);
}

INTERPOSED void
g_rec_mutex_init(GRecMutex *mutex)
{
  FIND_REAL(g_rec_mutex_init);
  init(real, mutex, RECURSIVE);
}

INTERPOSED void
g_rec_mutex_clear(GRecMutex *mutex)
{
  FIND_REAL(g_rec_mutex_clear);
  clear(real, mutex);
}

INTERPOSED void
g_rec_mutex_lock(GRecMutex *mutex)
{
  FIND_REAL(g_rec_mutex_lock);
  lock(real, mutex, RECURSIVE);
}

INTERPOSED gboolean
g_rec_mutex_trylock(GRecMutex *mutex)
{
  FIND_REAL(g_rec_mutex_trylock);
  return try_lock(real, mutex, RECURSIVE);
}

INTERPOSED void
g_rec_mutex_unlock(GRecMutex *mutex)
{
  FIND_REAL(g_rec_mutex_unlock);
  unlock(real, mutex, RECURSIVE);
}

INTERPOSED void
g_rw_lock_init(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_init);
  init(real, rw_lock, PLAIN);
}

INTERPOSED void
g_rw_lock_clear(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_clear);
  clear(real, rw_lock);
}

INTERPOSED void
g_rw_lock_writer_lock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_writer_lock);
  lock(real, rw_lock, WRITER);
}

INTERPOSED gboolean
g_rw_lock_writer_trylock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_writer_trylock);
  return try_lock(real, rw_lock, WRITER);
}

INTERPOSED void
g_rw_lock_writer_unlock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_writer_unlock);
  unlock(real, rw_lock, WRITER);
}

INTERPOSED void
g_rw_lock_reader_lock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_reader_lock);
  lock(real, rw_lock, READER);
}

INTERPOSED gboolean
g_rw_lock_reader_trylock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_reader_trylock);
  return try_lock(real, rw_lock, READER);
}

INTERPOSED void
g_rw_lock_reader_unlock(GRWLock *rw_lock)
{
  FIND_REAL(g_rw_lock_reader_unlock);
  unlock(real, rw_lock, READER);
}

/* SPDX-License-Identifier: MIT */
#include "selftest.h"

namespace
{

struct Shared {
  GMutex mutex; // like a static mutex, these two are not initialised
  GMutex other_mutex;
  GCond cond;
  GRecMutex rec_mutex;
  GRWLock rw_lock;
  bool ready;
  int value;
};

Shared shared;

void
add()
{
  shared.value++;
}

void
add_with_mutex()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
  add();
}

void
add_with_other_mutex()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.other_mutex);
  add();
}

void
add_when_tried()
{
  while (!g_mutex_trylock(&shared.mutex))
    g_thread_yield();
  add();
  g_mutex_unlock(&shared.mutex);
}

void
add_with_recursive_mutex()
{
  g_autoptr(GRecMutexLocker) outer = g_rec_mutex_locker_new(&shared.rec_mutex);
  {
    g_autoptr(GRecMutexLocker) inner = g_rec_mutex_locker_new(&shared.rec_mutex);
  }
  add();
}

void
add_as_writer()
{
  g_autoptr(GRWLockWriterLocker) locker = g_rw_lock_writer_locker_new(&shared.rw_lock);
  add();
}

void
add_as_reader()
{
  g_autoptr(GRWLockReaderLocker) locker = g_rw_lock_reader_locker_new(&shared.rw_lock);
  add();
}

void
set_ready()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
  add();
  shared.ready = true;
  g_cond_signal(&shared.cond);
}

void
add_when_ready()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
  while (!shared.ready)
    g_cond_wait(&shared.cond, &shared.mutex);
  add();
}

void
add_when_ready_or_late()
{
  gint64 deadline = g_get_monotonic_time() + 10 * G_TIME_SPAN_SECOND;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
  while (!shared.ready && g_cond_wait_until(&shared.cond, &shared.mutex, deadline)) {
  }
  add();
}

void
add_when_waited_in_vain()
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
    g_cond_wait_until(&shared.cond, &shared.mutex, g_get_monotonic_time());
  }
  add();
}

void
in_two_threads(void (*first)(), void (*second)())
{
  Thread thread(first);
  Thread other_thread(second);
}

// The other thread holds the mutex all the time, so a failed attempt to lock it gives no order.
void
add_when_tried_in_vain()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&shared.mutex);
  add();
  Thread thread([] {
    Thread other_thread([] {
      EXPECT_FALSE(g_mutex_trylock(&shared.mutex));
      add();
    });
    add();
  });
}

void
lock_in_both_orders()
{
  {
    g_autoptr(GMutexLocker) outer = g_mutex_locker_new(&shared.mutex);
    g_autoptr(GMutexLocker) inner = g_mutex_locker_new(&shared.other_mutex);
  }
  g_autoptr(GMutexLocker) outer = g_mutex_locker_new(&shared.other_mutex);
  g_autoptr(GMutexLocker) inner = g_mutex_locker_new(&shared.mutex);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Locks, SelfTest,
    testing::Values(
        Case{"Nothing", [] { in_two_threads(add, add); }, RACE},
        Case{"Mutex", [] { in_two_threads(add_with_mutex, add_with_mutex); }, NO_REPORT},
        Case{"MutexOnOneSide", [] { in_two_threads(add_with_mutex, add); }, RACE},
        Case{"TwoMutexes", [] { in_two_threads(add_with_mutex, add_with_other_mutex); }, RACE},
        Case{"TriedMutex", [] { in_two_threads(add_when_tried, add_with_mutex); }, NO_REPORT},
        Case{"MutexTriedInVain", add_when_tried_in_vain, RACE},
        Case{"RecursiveMutex", [] { in_two_threads(add_with_recursive_mutex, add_with_recursive_mutex); },
             NO_REPORT},
        Case{"Writers", [] { in_two_threads(add_as_writer, add_as_writer); }, NO_REPORT},
        Case{"Readers", [] { in_two_threads(add_as_reader, add_as_reader); }, RACE},
        Case{"Condition", [] { in_two_threads(set_ready, add_when_ready); }, NO_REPORT},
        Case{"ConditionWithDeadline", [] { in_two_threads(set_ready, add_when_ready_or_late); }, NO_REPORT},
        Case{"WaitInVain", [] { in_two_threads(add_when_waited_in_vain, add_when_waited_in_vain); }, RACE},
        Case{"OrderOfMutexes", lock_in_both_orders, LOCK_ORDER}),
    case_name);

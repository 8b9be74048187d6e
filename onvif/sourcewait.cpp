/* SPDX-License-Identifier: MIT */
#include "sourcewait.h"

#include "metadata.h"

#include <utility>

namespace onvif
{

SourceWait::SourceWait()
{
  g_mutex_init(&lock_);
  g_cond_init(&changed_);
}

SourceWait::~SourceWait()
{
  g_cond_clear(&changed_);
  g_mutex_clear(&lock_);
}

/**
 * SourceWait::clear:
 *
 * Discards a pending sync point and a call of wake(). Called when a source starts: its first buffer has the
 * complete state anyway.
 */
void
SourceWait::clear()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  sync_requested_ = false;
  is_woken_ = false;
}

/**
 * SourceWait::set_flushing:
 * @flushing: whether the source has to return from its create function immediately
 *
 * Any thread.
 */
void
SourceWait::set_flushing(bool flushing)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  flushing_ = flushing;
  g_cond_signal(&changed_);
}

/**
 * SourceWait::handle_event:
 * @event: an event that was sent to the source
 *
 * Ends the wait if @event is a sync point. Several sync points before the wait ends count as one. Any thread.
 *
 * Returns: whether @event is a sync point
 */
bool
SourceWait::handle_event(GstEvent *event)
{
  if (!is_sync_point_event(event)) {
    return false;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  sync_requested_ = true;
  g_cond_signal(&changed_);
  return true;
}

/**
 * SourceWait::wake:
 *
 * Ends the wait, or the next one. Any thread.
 */
void
SourceWait::wake()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  is_woken_ = true;
  g_cond_signal(&changed_);
}

/**
 * SourceWait::wait_until:
 * @deadline: end of the wait, on the clock of g_get_monotonic_time()
 *
 * Waits for the deadline, a sync point, wake() or flushing. Streaming thread only.
 *
 * Returns: what ended the wait; flushing has priority over a sync point, a sync point over wake(), and
 * wake() over the deadline
 */
WakeReason
SourceWait::wait_until(gint64 deadline)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  bool due = false;
  while (!flushing_ && !sync_requested_ && !is_woken_ && !due) {
    due = !g_cond_wait_until(&changed_, &lock_, deadline);
  }
  if (flushing_) {
    return WakeReason::FLUSHING;
  }
  const bool is_woken = std::exchange(is_woken_, false);
  if (std::exchange(sync_requested_, false)) {
    return WakeReason::SYNC_POINT;
  }
  return is_woken ? WakeReason::WOKEN : WakeReason::DEADLINE;
}

} // namespace onvif

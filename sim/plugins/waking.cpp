#include "waking.h"

#include "metadata.h"

#include <utility>

namespace sim
{

Waking::Waking()
{
  g_mutex_init(&lock_);
  g_cond_init(&changed_);
}

Waking::~Waking()
{
  g_cond_clear(&changed_);
  g_mutex_clear(&lock_);
}

/**
 * Waking::forget_sync_point:
 *
 * Drops a sync point that nobody has been woken for yet. For the start of a source, which shows everything
 * anyway.
 */
void
Waking::forget_sync_point()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  sync_requested_ = false;
}

/**
 * Waking::set_flushing:
 * @flushing: whether the source has to return from its create function at once
 *
 * May be called from any thread.
 */
void
Waking::set_flushing(bool flushing)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  flushing_ = flushing;
  g_cond_signal(&changed_);
}

/**
 * Waking::accept_event:
 * @event: an event that was sent to the source
 *
 * Wakes the source if @event asks for a sync point. Sync points that come before the source is awake count as
 * one. May be called from any thread.
 *
 * Returns: whether @event asks for a sync point
 */
bool
Waking::accept_event(GstEvent *event)
{
  if (!onvif::is_sync_point_event(event)) {
    return false;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  sync_requested_ = true;
  g_cond_signal(&changed_);
  return true;
}

/**
 * Waking::wait_until:
 * @deadline: when there will be something to do, a time of g_get_monotonic_time()
 *
 * Sleeps until the first of the reasons to wake. For the streaming thread alone.
 *
 * Returns: the reason; the wish to stop goes before a sync point, and that before the deadline
 */
Wake
Waking::wait_until(gint64 deadline)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  bool due = false;
  while (!flushing_ && !sync_requested_ && !due) {
    due = !g_cond_wait_until(&changed_, &lock_, deadline);
  }
  if (flushing_) {
    return Wake::FLUSHING;
  }
  return std::exchange(sync_requested_, false) ? Wake::SYNC_POINT : Wake::DUE;
}

} /* namespace sim */

#pragma once

#include <gst/gst.h>

/* What wakes a live source that sleeps in its create function: a deadline, a sync point, or the wish to stop.
 * A source has one of these and forwards three of its base class's functions to it:
 *
 *   unlock       set_flushing(true)
 *   unlock_stop  set_flushing(false)
 *   event        accept_event(), and to the parent class what it does not accept
 *
 * These are helpers instead of a common base class because every plug-in has its own copy of this code, one
 * process may load several of them, and the name of a class can only be registered once. */

namespace sim
{

enum class Wake {
  FLUSHING,
  SYNC_POINT,
  DUE,
};

class Waking
{
public:
  Waking();
  ~Waking();
  Waking(const Waking &) = delete;
  Waking &operator=(const Waking &) = delete;

  void forget_sync_point();
  void set_flushing(bool flushing);
  bool accept_event(GstEvent *event);

  Wake wait_until(gint64 deadline);

private:
  GMutex lock_; /* guards all below */
  GCond changed_;
  bool flushing_ = false;
  bool sync_requested_ = false;
};

} /* namespace sim */

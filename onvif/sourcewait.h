/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

/* The wait of a live source in its create function. A deadline, a sync point, another thread or flushing ends
 * it. A source has one instance and forwards three functions of its base class:
 *
 *   unlock       set_flushing(true)
 *   unlock_stop  set_flushing(false)
 *   event        handle_event(), and the parent class's function for all other events
 *
 * GStreamer 1.26 also calls unlock when the source is paused, and stops the task of a source that returns
 * GST_FLOW_FLUSHING, even if the source plays again by then. Two further functions of the source therefore
 * differ from those of a source that only flushes:
 *
 *   change_state  from paused to playing, set_flushing(false) comes first
 *   create        when FLUSHING ended the wait, it calls gst_base_src_wait_playing() and waits again if that
 *                 returns GST_FLOW_OK
 *
 * A common base class is not possible: every plug-in has its own copy of this code, one process may load
 * several plug-ins, and GObject registers a class name once. */

namespace onvif
{

enum class WakeReason {
  FLUSHING,
  SYNC_POINT,
  WOKEN,
  DEADLINE,
};

class SourceWait
{
public:
  SourceWait();
  ~SourceWait();
  SourceWait(const SourceWait &) = delete;
  SourceWait &operator=(const SourceWait &) = delete;

  void clear();
  void set_flushing(bool flushing);
  bool handle_event(GstEvent *event);
  void wake();

  WakeReason wait_until(gint64 deadline);

private:
  GMutex lock_; /* guards all below */
  GCond changed_;
  bool flushing_ = false;
  bool sync_requested_ = false;
  bool is_woken_ = false;
};

} // namespace onvif

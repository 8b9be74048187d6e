// What reference counts order: all that a thread has done with an object before it drops its reference goes
// before what the thread that drops the last one does with it.
#include "real.h"

#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

namespace
{

void
order_before_last_unref(gpointer object)
{
  if (object == nullptr)
    return;
  __tsan_release(object);
  __tsan_acquire(object);
}

} // namespace

INTERPOSED void
g_object_unref(gpointer object)
{
  FIND_REAL(g_object_unref);
  order_before_last_unref(object);
  real(object);
}

INTERPOSED void
gst_mini_object_unref(GstMiniObject *object)
{
  FIND_REAL(gst_mini_object_unref);
  order_before_last_unref(object);
  real(object);
}

// What reference counts order: all that a thread has done with an object before it drops its reference goes
// before what the thread that drops the last one does with it. A reference that is not the last is dropped
// right here, so that whoever then finds himself the last comes after everybody else's release for certain.
// That leaves out what the libraries do of their own at this point, the notification of toggle references,
// which nothing here has.
#include "real.h"

#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

namespace
{

gboolean
drop_unless_last(gpointer object, gint *count)
{
  __tsan_release(object);
  for (gint seen = g_atomic_int_get(count); seen > 1; seen = g_atomic_int_get(count)) {
    if (g_atomic_int_compare_and_exchange(count, seen, seen - 1))
      return TRUE;
  }
  __tsan_acquire(object);
  return FALSE;
}

} // namespace

INTERPOSED void
g_object_unref(gpointer object)
{
  FIND_REAL(g_object_unref);
  if (!G_IS_OBJECT(object) ||
      !drop_unless_last(object, reinterpret_cast<gint *>(&G_OBJECT(object)->ref_count)))
    real(object);
}

INTERPOSED void
gst_mini_object_unref(GstMiniObject *object)
{
  FIND_REAL(gst_mini_object_unref);
  if (object == nullptr || !drop_unless_last(object, &object->refcount))
    real(object);
}

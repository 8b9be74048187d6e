/* SPDX-License-Identifier: MIT */
// The order of reference counts: all that a thread does with an object before it drops its reference happens
// before the thread that drops the last reference frees the object. A reference that is not the last is
// dropped here, so that the thread with the last one follows all other releases. The libraries would also
// notify toggle references at this point; no object of the tests has one.
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

/* The end of saves of the producers' file, for the tests and the fuzz targets that look at what they led to.
 */
#pragma once

#include "producerconfig.h"

namespace saves
{

inline gboolean
set_saved(gpointer saved)
{
  *static_cast<bool *>(saved) = true;
  return G_SOURCE_REMOVE;
}

/* Runs the default main context until every change that was made is saved, or could not be. */
inline void
wait()
{
  bool saved = false;

  producer_config_call_when_saved(set_saved, &saved);
  while (!saved) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

/* A change and its save. */
inline void
set_name(const gchar *producer, guint32 channel, const gchar *name)
{
  producer_config_set_name(producer, channel, name);
  wait();
}

} // namespace saves

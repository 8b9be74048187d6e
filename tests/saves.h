/* SPDX-License-Identifier: MIT */
/* Waits for saves of the producers' file, for the unit tests and the fuzz targets. */
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

/* Runs the default main context until each change is saved or its save has failed. */
inline void
wait()
{
  bool saved = false;

  producer_config_call_when_saved(set_saved, &saved);
  while (!saved) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

/* Makes a change and waits for its save. */
inline void
set_name(const gchar *producer, guint32 channel, const gchar *name)
{
  producer_config_set_name(producer, channel, name);
  wait();
}

} // namespace saves

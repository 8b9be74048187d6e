/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* The main loop of a command and its end: by an outcome, or by SIGINT or SIGTERM. A second signal ends the
 * loop at once. For the main thread. */
class CommandEnd
{
public:
  /* Called once, when the end begins. finish() follows when everything is done. */
  using BeginCallback = void (*)(gpointer user_data);

  CommandEnd(BeginCallback begin_callback, gpointer callback_data);
  CommandEnd(const CommandEnd &) = delete;
  CommandEnd &operator=(const CommandEnd &) = delete;
  ~CommandEnd();

  const GError *run();
  void begin(GError *error);
  void finish();
  gboolean has_begun() const;
  void set_outcome(GError *error);

private:
  static gboolean on_signal(gpointer end);

  BeginCallback on_begin;
  gpointer user_data;
  GMainLoop *loop;
  guint interrupted;
  guint terminated;
  gboolean begun = FALSE;
  gboolean signalled = FALSE;
  GError *outcome = nullptr;
};

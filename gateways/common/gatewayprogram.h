/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

/* What the programs of all gateways do from their start to their end. All functions are for the main thread.
 */

namespace gateway
{

/* The exit status for a command line or a configuration that is wrong. */
constexpr int EXIT_USAGE = 2;

void set_up_process(const char *name);
int fail(int status, const char *message);
int print_version(const char *version);

bool refuse_option(const char *message, GError **error);
bool check_option_number(const char *option, gint value, gint first, gint last, GError **error);

/* The default main loop, which ends with SIGINT or SIGTERM. A signal before run() counts, too. */
class MainLoop
{
public:
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop &) = delete;
  MainLoop &operator=(const MainLoop &) = delete;

  void run();

private:
  static gboolean on_signal(gpointer user_data);

  GMainLoop *loop_;
  guint interrupted_;
  guint terminated_;
};

} // namespace gateway

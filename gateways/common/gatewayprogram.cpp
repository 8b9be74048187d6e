/* SPDX-License-Identifier: MIT */
#include "gatewayprogram.h"

#include "memory.h"

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <glib-unix.h>

namespace gateway
{

/**
 * set_up_process:
 * @name: the program's name, a constant
 *
 * To be called first in main(). A peer that closes its connection does not end the program.
 */
void
set_up_process(const char *name)
{
  memory_set_up();
  setlocale(LC_ALL, "");
  g_set_prgname(name);
  signal(SIGPIPE, SIG_IGN);
}

/**
 * fail:
 * @status: the exit status
 * @message: what is wrong
 *
 * Tells the user why the program ends.
 *
 * Returns: @status
 */
int
fail(int status, const char *message)
{
  g_printerr("%s: %s\n", g_get_prgname(), message);
  if (status == EXIT_USAGE) {
    g_printerr("Try '%s --help'.\n", g_get_prgname());
  }
  return status;
}

/**
 * print_version:
 * @version: the program's version
 *
 * Returns: the exit status of success
 */
int
print_version(const char *version)
{
  g_print("%s %s\n", g_get_prgname(), version);
  return EXIT_SUCCESS;
}

MainLoop::MainLoop()
    : loop_(g_main_loop_new(nullptr, FALSE)), interrupted_(g_unix_signal_add(SIGINT, on_signal, loop_)),
      terminated_(g_unix_signal_add(SIGTERM, on_signal, loop_))
{
}

MainLoop::~MainLoop()
{
  g_source_remove(interrupted_);
  g_source_remove(terminated_);
  g_main_loop_unref(loop_);
}

/**
 * MainLoop::run:
 *
 * Returns when a signal has arrived.
 */
void
MainLoop::run()
{
  g_main_loop_run(loop_);
}

gboolean
MainLoop::on_signal(gpointer user_data)
{
  g_main_loop_quit(static_cast<GMainLoop *>(user_data));
  return G_SOURCE_CONTINUE;
}

/**
 * refuse_option:
 * @message: what is wrong with an option, for the user
 * @error: return location for an error of %G_OPTION_ERROR
 *
 * Returns: false
 */
bool
refuse_option(const char *message, GError **error)
{
  g_set_error_literal(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, message);
  return false;
}

/**
 * check_option_number:
 * @option: the option, as the user writes it
 * @value: its value
 * @first: the lowest value that is allowed
 * @last: the highest one
 * @error: return location for an error of %G_OPTION_ERROR, whose message is for the user
 *
 * Returns: whether the value is allowed
 */
bool
check_option_number(const char *option, gint value, gint first, gint last, GError **error)
{
  if (value >= first && value <= last) {
    return true;
  }
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, "The value of %s is not from %d to %d.",
              option, first, last);
  return false;
}

} // namespace gateway

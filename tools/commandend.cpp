/* SPDX-License-Identifier: MIT */
#include "commandend.h"

#include <csignal>
#include <glib-unix.h>

/**
 * CommandEnd:
 * @begin_callback: called when the end begins
 * @callback_data: for @begin_callback
 */
CommandEnd::CommandEnd(BeginCallback begin_callback, gpointer callback_data)
    : on_begin(begin_callback), user_data(callback_data), loop(g_main_loop_new(nullptr, FALSE)),
      interrupted(g_unix_signal_add(SIGINT, on_signal, this)),
      terminated(g_unix_signal_add(SIGTERM, on_signal, this))
{
}

CommandEnd::~CommandEnd()
{
  g_source_remove(terminated);
  g_source_remove(interrupted);
  g_main_loop_unref(loop);
  g_clear_error(&outcome);
}

/**
 * CommandEnd::run:
 *
 * Runs the main loop until finish().
 *
 * Returns: (nullable): the error of %TESSARDCTL_ERROR that ended the command
 */
const GError *
CommandEnd::run()
{
  g_main_loop_run(loop);
  return outcome;
}

/**
 * CommandEnd::begin:
 * @error: (transfer full) (nullable): the outcome, %NULL for success
 *
 * Begins the end. Only the first call counts.
 */
void
CommandEnd::begin(GError *error)
{
  g_autoptr(GError) owned = error;

  if (begun) {
    return;
  }
  begun = TRUE;
  outcome = g_steal_pointer(&owned);
  on_begin(user_data);
}

/**
 * CommandEnd::finish:
 *
 * Ends the main loop.
 */
void
CommandEnd::finish()
{
  g_main_loop_quit(loop);
}

gboolean
CommandEnd::has_begun() const
{
  return begun;
}

/**
 * CommandEnd::set_outcome:
 * @error: (transfer full): an outcome, which counts unless there is one
 */
void
CommandEnd::set_outcome(GError *error)
{
  g_autoptr(GError) owned = error;

  if (outcome == nullptr) {
    outcome = g_steal_pointer(&owned);
  }
}

/* An interrupt often comes with the end of the input, because it ends the program before the pipe too. */
gboolean
CommandEnd::on_signal(gpointer end)
{
  auto *self = static_cast<CommandEnd *>(end);

  if (self->signalled) {
    self->finish();
  } else {
    self->signalled = TRUE;
    self->begin(nullptr);
  }
  return G_SOURCE_CONTINUE;
}

/* SPDX-License-Identifier: MIT */
#include "output.h"
#include "command.h"

#include <cstring>
#include <gio/gunixoutputstream.h>
#include <unistd.h>

/**
 * output_write:
 * @text: (transfer none): the text
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Writes a text to standard output and blocks until its reader has taken it. A reader that hangs up is no
 * error.
 *
 *
 * Returns: %FALSE when the text could not be written
 */
gboolean
output_write(const gchar *text, GError **error)
{
  g_autoptr(GOutputStream) output = g_unix_output_stream_new(STDOUT_FILENO, FALSE);
  g_autoptr(GError) cause = nullptr;

  if (g_output_stream_write_all(output, text, strlen(text), nullptr, nullptr, &cause) ||
      g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE)) {
    return TRUE;
  }
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not write to standard output: %s.",
              cause->message);
  return FALSE;
}

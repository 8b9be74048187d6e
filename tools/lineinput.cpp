/* SPDX-License-Identifier: MIT */
#include "lineinput.h"
#include "command.h"

#include <array>
#include <cerrno>
#include <glib-unix.h>
#include <unistd.h>

namespace
{

constexpr gsize READ_BYTES = 65536;

} // namespace

/**
 * LineInput:
 * @max_line_bytes: the length of the longest line
 * @more_callback: called when there are more lines, and at the end of standard input
 * @callback_data: for @more_callback
 *
 * Reads nothing before set_reading().
 */
LineInput::LineInput(gsize max_line_bytes, MoreCallback more_callback, gpointer callback_data)
    : on_more(more_callback), user_data(callback_data), cutter(max_line_bytes)
{
}

LineInput::~LineInput()
{
  set_reading(FALSE);
}

/**
 * LineInput::set_reading:
 * @reading: whether standard input is read when it has data; without that, its writer is held up
 */
void
LineInput::set_reading(gboolean reading)
{
  if (!reading || ended) {
    g_clear_handle_id(&watch, g_source_remove);
  } else if (watch == 0) {
    watch =
        g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_input, this);
  }
}

/**
 * LineInput::pop:
 *
 * Returns: the next line that is read; unset if there is none yet, or none any more
 */
std::optional<Line>
LineInput::pop()
{
  return cutter.pop();
}

/**
 * LineInput::has_ended:
 *
 * Returns: whether standard input has ended, so that no line follows those that are read
 */
gboolean
LineInput::has_ended() const
{
  return ended;
}

gboolean
LineInput::on_input(gint fd, GIOCondition condition, gpointer user_data)
{
  static_cast<LineInput *>(user_data)->read_more();
  return G_SOURCE_CONTINUE;
}

void
LineInput::read_more()
{
  std::array<gchar, READ_BYTES> bytes;
  const gssize count = read(STDIN_FILENO, bytes.data(), bytes.size());

  if (count > 0) {
    cutter.push({bytes.data(), static_cast<gsize>(count)});
    on_more(nullptr, user_data);
  } else if (count == 0) {
    cutter.finish();
    ended = TRUE;
    set_reading(FALSE);
    on_more(nullptr, user_data);
  } else if (errno != EAGAIN && errno != EINTR) {
    on_more(g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read standard input: %s.",
                        g_strerror(errno)),
            user_data);
  }
}

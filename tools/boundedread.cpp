/* SPDX-License-Identifier: MIT */
#include "boundedread.h"

#include <gio/gunixinputstream.h>
#include <unistd.h>

/**
 * bounded_read:
 * @fd: (transfer full): the descriptor to read; standard input stays open
 * @max_bytes: how many bytes there may be
 * @error: return location for an error of %G_IO_ERROR
 *
 * Reads to the end, at most one byte more than @max_bytes. Blocks until then.
 *
 * Returns: (transfer full) (nullable): the bytes; more than @max_bytes if there are too many
 */
GByteArray *
bounded_read(int fd, guint max_bytes, GError **error)
{
  g_autoptr(GInputStream) input = g_unix_input_stream_new(fd, fd != STDIN_FILENO);
  g_autoptr(GByteArray) bytes = g_byte_array_sized_new(max_bytes + 1);
  gsize size = 0;

  g_byte_array_set_size(bytes, max_bytes + 1);
  if (!g_input_stream_read_all(input, bytes->data, bytes->len, &size, nullptr, error)) {
    return nullptr;
  }
  g_byte_array_set_size(bytes, static_cast<guint>(size));
  return g_steal_pointer(&bytes);
}

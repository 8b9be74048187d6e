/* SPDX-License-Identifier: MIT */
#include "channelwriter.h"

#include <cerrno>
#include <glib-unix.h>
#include <unistd.h>

/**
 * ChannelWriter::ChannelWriter:
 * @channel: the video channel
 * @on_written: called when the rest of a message is written that write() has not written
 * @on_end: called when the receiver has closed the channel, which is closed here too
 * @user_data: for the callbacks
 */
ChannelWriter::ChannelWriter(guint32 channel, Callback written_callback, Callback end_callback, gpointer data)
    : number(channel), on_written(written_callback), on_end(end_callback), user_data(data)
{
}

ChannelWriter::~ChannelWriter()
{
  close();
}

guint32
ChannelWriter::channel() const
{
  return number;
}

/**
 * ChannelWriter::open:
 * @descriptor: (transfer full): the write end
 *
 * Opens the channel, which must be closed. The mode of @descriptor becomes non-blocking, which does not
 * affect the receiver.
 */
void
ChannelWriter::open(int descriptor)
{
  fd = descriptor;
  g_unix_set_fd_nonblocking(fd, TRUE, nullptr);
  hang_up_source = g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), on_hang_up, this);
}

/**
 * ChannelWriter::close:
 *
 * Closes the channel. The rest of a message is lost.
 */
void
ChannelWriter::close()
{
  g_clear_handle_id(&writable_source, g_source_remove);
  g_clear_handle_id(&hang_up_source, g_source_remove);
  if (fd >= 0) {
    ::close(fd);
  }
  fd = -1;
  pending.clear();
}

gboolean
ChannelWriter::is_open() const
{
  return fd >= 0;
}

/**
 * ChannelWriter::is_writing:
 *
 * Returns: whether a part of a message is not written yet
 */
gboolean
ChannelWriter::is_writing() const
{
  return !pending.empty();
}

/**
 * ChannelWriter::write:
 * @message: a message
 *
 * Writes what the channel takes now; the main loop writes the rest. The channel must be open, without the
 * rest of an earlier message.
 */
void
ChannelWriter::write(const std::string &message)
{
  pending = message;
  if (write_some() && !pending.empty()) {
    writable_source = g_unix_fd_add(fd, G_IO_OUT, on_writable, this);
  }
}

/* Without this watch, the end of the channel would not be noticed before the next message. */
gboolean
ChannelWriter::on_hang_up(gint descriptor, GIOCondition condition, gpointer data)
{
  auto *self = static_cast<ChannelWriter *>(data);

  self->close();
  self->on_end(self, self->user_data);
  return G_SOURCE_REMOVE;
}

gboolean
ChannelWriter::on_writable(gint descriptor, GIOCondition condition, gpointer data)
{
  auto *self = static_cast<ChannelWriter *>(data);

  if (!self->write_some()) {
    return G_SOURCE_REMOVE;
  }
  if (!self->pending.empty()) {
    return G_SOURCE_CONTINUE;
  }
  self->writable_source = 0;
  self->on_written(self, self->user_data);
  return G_SOURCE_REMOVE;
}

/* Returns: whether the channel is still open */
gboolean
ChannelWriter::write_some()
{
  const gssize written = ::write(fd, pending.data(), pending.size());

  if (written >= 0) {
    pending.erase(0, written);
    return TRUE;
  }
  if (errno == EAGAIN || errno == EINTR) {
    return TRUE;
  }
  close();
  on_end(this, user_data);
  return FALSE;
}

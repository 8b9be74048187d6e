/* SPDX-License-Identifier: MIT */
/* The receiver can leave with messages in the pipe that it has not read. The pipe outlives its read end, so
 * that these can be counted.
 */
#include "channelpipe.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr gsize DEFAULT_CAPACITY = 65536;

std::string
make_message(const std::string &text)
{
  const guint32 length = static_cast<guint32>(text.size());
  std::string message(sizeof length, '\0');

  memcpy(message.data(), &length, sizeof length);
  return message.append(text);
}

} // namespace

/**
 * ChannelPipe::ChannelPipe:
 * @channel: the video channel
 * @message_queue: has the items; outlives this object, as @pipe_client does
 * @pipe_client: called for what happens to them
 */
ChannelPipe::ChannelPipe(guint32 channel, MessageQueue *message_queue, Client *pipe_client)
    : number(channel), queue(message_queue), client(pipe_client)
{
}

ChannelPipe::~ChannelPipe()
{
  close();
}

guint32
ChannelPipe::channel() const
{
  return number;
}

gboolean
ChannelPipe::is_open() const
{
  return fd >= 0;
}

/**
 * ChannelPipe::is_writing:
 *
 * Returns: whether a message is taken from the queue and not completely written
 */
gboolean
ChannelPipe::is_writing() const
{
  return !pending.empty();
}

/**
 * ChannelPipe::open:
 * @descriptor: (transfer full): the write end
 *
 * Opens the channel, which must be closed. The mode of @descriptor becomes non-blocking, which does not
 * affect the receiver.
 */
void
ChannelPipe::open(int descriptor)
{
  fd = descriptor;
  g_unix_set_fd_nonblocking(fd, TRUE, nullptr);
  const int size = fcntl(fd, F_GETPIPE_SZ);
  capacity = size > 0 ? static_cast<gsize>(size) : DEFAULT_CAPACITY;
  hang_up.watch_fd(fd, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), [this] { end(); });
}

/**
 * ChannelPipe::close:
 *
 * Closes the channel.
 *
 * Returns: the messages that the receiver has not read. While it is there, it still reads those that are
 * written
 */
LostMessages
ChannelPipe::close()
{
  if (fd < 0) {
    return {};
  }
  const LostMessages lost = {is_writing() ? 1U : 0U, count_unread()};
  writable.clear();
  hang_up.clear();
  ::close(fd);
  fd = -1;
  pending.clear();
  ends.clear();
  written = 0;
  return lost;
}

/**
 * ChannelPipe::write_queued:
 *
 * Writes what the pipe takes now; the worker writes the rest.
 */
void
ChannelPipe::write_queued()
{
  while (fd >= 0) {
    if (pending.empty()) {
      take_next();
    }
    if (pending.empty() || !write_some()) {
      break;
    }
  }
}

void
ChannelPipe::take_next()
{
  guint expired = 0;
  const std::optional<std::string> text = queue->pop(&expired);

  if (expired > 0) {
    client->items_passed(0, expired);
  }
  if (text.has_value()) {
    pending = make_message(*text);
  } else {
    writable.clear();
  }
}

/* Returns: whether the message is completely written */
gboolean
ChannelPipe::write_some()
{
  const gssize count = ::write(fd, pending.data(), pending.size());

  if (count < 0 && errno != EAGAIN && errno != EINTR) {
    end();
    return FALSE;
  }
  if (count > 0) {
    pending.erase(0, static_cast<gsize>(count));
    written += static_cast<guint64>(count);
  }
  if (pending.empty()) {
    remember_message();
    client->items_passed(1, 0);
    return TRUE;
  }
  if (!writable.is_set()) {
    writable.watch_fd(fd, G_IO_OUT, [this] { write_queued(); });
  }
  return FALSE;
}

void
ChannelPipe::remember_message()
{
  ends.push_back(written);
  while (ends.front() + capacity < written) {
    ends.pop_front();
  }
}

void
ChannelPipe::end()
{
  client->channel_closed(this, close());
}

guint
ChannelPipe::count_unread() const
{
  int unread = 0;

  if (ioctl(fd, FIONREAD, &unread) != 0) {
    return 0;
  }
  const guint64 read = written - static_cast<guint64>(unread);
  return static_cast<guint>(
      std::count_if(ends.begin(), ends.end(), [read](guint64 end) { return end > read; }));
}

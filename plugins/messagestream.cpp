/* SPDX-License-Identifier: MIT */
#include "messagestream.h"

#include "receiverevent.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plugins
{

namespace
{

constexpr gsize LENGTH_BYTES = sizeof(guint32);
constexpr gsize BUFFER_BYTES = LENGTH_BYTES + RECEIVER_EVENT_MAX_BYTES;

} // namespace

/**
 * MessageStream:
 * @fd: (transfer full): a usable descriptor
 * @context: the main context that reads it
 * @deliver: called with each message
 * @ended: called once, when the stream has ended; destroys the stream
 */
MessageStream::MessageStream(int fd, GMainContext *context, Deliver deliver, Ended ended)
    : fd_(fd), deliver_(std::move(deliver)), ended_(std::move(ended)),
      source_(g_unix_fd_source_new(fd, G_IO_IN)), buffer_(BUFFER_BYTES + simdjson::SIMDJSON_PADDING)
{
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  g_source_set_callback(source_, G_SOURCE_FUNC(on_readable), this, nullptr);
  g_source_attach(source_, context);
}

MessageStream::~MessageStream()
{
  g_source_destroy(source_);
  g_source_unref(source_);
  close(fd_);
}

/**
 * MessageStream::is_usable:
 * @fd: a descriptor from another process
 *
 * Returns: whether it is a pipe; reading others can block in spite of O_NONBLOCK
 */
bool
MessageStream::is_usable(int fd)
{
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

gboolean
MessageStream::on_readable(gint, GIOCondition, gpointer user_data)
{
  auto *self = static_cast<MessageStream *>(user_data);
  const char *reason = self->read_some();
  if (reason != nullptr) {
    const Ended ended = self->ended_;
    ended(reason); /* destroys the stream */
  }
  return G_SOURCE_CONTINUE;
}

/* Returns: (nullable): why the stream ends */
const char *
MessageStream::read_some()
{
  const ssize_t count = read(fd_, buffer_.data() + filled_, BUFFER_BYTES - filled_);
  if (count < 0) {
    return errno == EAGAIN || errno == EINTR ? nullptr : "it cannot be read";
  }
  if (count == 0) {
    return "the receiver has closed it";
  }
  filled_ += static_cast<gsize>(count);
  return deliver_all();
}

/* The longest message fits in the buffer, so there is always room to read. */
const char *
MessageStream::deliver_all()
{
  gsize at = 0;
  guint32 length = 0;
  while (filled_ - at >= LENGTH_BYTES) {
    std::memcpy(&length, buffer_.data() + at, LENGTH_BYTES);
    if (length > RECEIVER_EVENT_MAX_BYTES) {
      return "a message is too long";
    }
    if (filled_ - at - LENGTH_BYTES < length) {
      break;
    }
    if (!deliver_({buffer_.data() + at + LENGTH_BYTES, length})) {
      return "a message is malformed";
    }
    at += LENGTH_BYTES + length;
  }
  std::memmove(buffer_.data(), buffer_.data() + at, filled_ - at);
  filled_ -= at;
  return nullptr;
}

} // namespace plugins

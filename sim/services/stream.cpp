/* SPDX-License-Identifier: MIT */
#include "stream.h"

#include <cerrno>
#include <unistd.h>

/* One GSource waits until the descriptor is writable or until a time, and always for the reader to close its
 * end. The descriptor is non-blocking and each dispatch writes once, so a stream never blocks the main loop.
 */

namespace sim
{

namespace
{

constexpr auto NOTHING = static_cast<GIOCondition>(0);
constexpr gint64 IMMEDIATELY = 0;
constexpr gint64 NO_TIME = -1;

} // namespace

struct Stream::Source {
  GSource base;
  Stream *stream;
  gpointer tag; /* of the descriptor */
};

/**
 * Stream:
 * @fd: (transfer full): the write end, non-blocking
 * @feed: the messages; outlives the stream
 * @pieces: the pieces to write; outlives the stream and may change
 * @ended: called when the stream has ended; destroys the stream
 */
Stream::Stream(int fd, Feed *feed, const Pieces &pieces, Ended ended)
    : fd_(fd), pieces_(pieces), ended_(std::move(ended))
{
  static GSourceFuncs functions = {nullptr, nullptr, on_ready, nullptr, nullptr, nullptr};

  source_ = reinterpret_cast<Source *>(g_source_new(&functions, sizeof(Source)));
  source_->stream = this;
  source_->tag = g_source_add_unix_fd(&source_->base, fd, NOTHING);
  messages_ = feed->open([this] { wake(); });
  g_source_set_ready_time(&source_->base, IMMEDIATELY);
  g_source_attach(&source_->base, nullptr);
}

Stream::~Stream()
{
  g_source_destroy(&source_->base);
  g_source_unref(&source_->base);
  close(fd_);
}

gboolean
Stream::on_ready(GSource *base, GSourceFunc callback, gpointer user_data)
{
  auto *source = reinterpret_cast<Source *>(base);
  Stream *stream = source->stream;
  const guint condition = g_source_query_unix_fd(base, source->tag);

  if ((condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) != 0 || !stream->advance()) {
    stream->ended_(stream); /* destroys the stream */
  }
  return G_SOURCE_CONTINUE;
}

void
Stream::wait_for(GIOCondition condition, gint64 ready_time)
{
  g_source_modify_unix_fd(&source_->base, source_->tag, condition);
  g_source_set_ready_time(&source_->base, ready_time);
}

void
Stream::wait_for_message()
{
  const gint64 due = messages_->has_ended() ? IMMEDIATELY : messages_->due();

  wait_for(NOTHING, due == NEVER ? NO_TIME : due);
}

/* While a message is being written, no notification is necessary: the stream requests the next message
 * afterwards. */
void
Stream::wake()
{
  if (message_.is_sent()) {
    g_source_set_ready_time(&source_->base, IMMEDIATELY);
  }
}

/* Returns: whether the stream has not ended */
bool
Stream::advance()
{
  if (!message_.is_sent()) {
    return write_piece();
  }
  if (messages_->has_ended()) {
    return false;
  }
  if (!take_next()) {
    wait_for_message();
    return true;
  }
  return write_piece();
}

bool
Stream::take_next()
{
  if (messages_->due() > g_get_monotonic_time()) {
    return false;
  }
  SharedText text = messages_->next();
  if (text == nullptr) {
    return false;
  }
  message_ = Message(std::move(text));
  return true;
}

/* Returns: whether the reader has not closed its end */
bool
Stream::write_piece()
{
  const std::span<const iovec> rest = message_.rest(pieces_.bytes > 0 ? pieces_.bytes : G_MAXSIZE);
  const ssize_t written = writev(fd_, rest.data(), static_cast<int>(rest.size()));

  if (written < 0) {
    const bool later = errno == EAGAIN || errno == EINTR;
    wait_for(G_IO_OUT, NO_TIME);
    return later;
  }
  message_.advance(static_cast<gsize>(written));
  if (message_.is_sent()) {
    message_ = {};
    wait_for_message();
  } else if (pieces_.bytes > 0) {
    wait_for(NOTHING,
             g_get_monotonic_time() + static_cast<gint64>(pieces_.pause_ms) * G_TIME_SPAN_MILLISECOND);
  } else {
    wait_for(G_IO_OUT, NO_TIME);
  }
  return true;
}

} // namespace sim

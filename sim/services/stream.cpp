#include "stream.h"

#include <cerrno>
#include <unistd.h>

/* One source of the main loop does everything: it waits for the descriptor to take more, or for a time, and
 * always for the reader to go. The descriptor never blocks, and one turn of the loop writes once, so a stream
 * holds up nobody. */

namespace sim
{

namespace
{

constexpr auto NOTHING = static_cast<GIOCondition>(0);
constexpr gint64 AT_ONCE = 0;
constexpr gint64 NO_TIME = -1;

} /* namespace */

struct Stream::Source {
  GSource base;
  Stream *stream;
  gpointer tag; /* of the descriptor */
};

/**
 * Stream:
 * @fd: (transfer full): where to write, a descriptor that does not block
 * @feed: what to tell; outlives the stream
 * @pieces: how to write; outlives the stream and may change
 * @ended: called when the stream is over; it destroys the stream
 */
Stream::Stream(int fd, Feed *feed, const Pieces &pieces, Ended ended)
    : fd_(fd), pieces_(pieces), ended_(std::move(ended))
{
  static GSourceFuncs functions = {nullptr, nullptr, on_ready, nullptr, nullptr, nullptr};

  source_ = reinterpret_cast<Source *>(g_source_new(&functions, sizeof(Source)));
  source_->stream = this;
  source_->tag = g_source_add_unix_fd(&source_->base, fd, NOTHING);
  teller_ = feed->open([this] { wake(); });
  g_source_set_ready_time(&source_->base, AT_ONCE);
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

  if ((condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) != 0 || !stream->go_on()) {
    stream->ended_(stream); /* which destroys it */
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
Stream::wait_for_teller()
{
  const gint64 due = teller_->has_ended() ? AT_ONCE : teller_->due();

  wait_for(NOTHING, due == NEVER ? NO_TIME : due);
}

/* A stream with a message on its way asks its teller by itself, later. */
void
Stream::wake()
{
  if (message_.is_sent()) {
    g_source_set_ready_time(&source_->base, AT_ONCE);
  }
}

/* Returns: whether the stream is not over */
bool
Stream::go_on()
{
  if (!message_.is_sent()) {
    return write_piece();
  }
  if (teller_->has_ended()) {
    return false;
  }
  if (!take_next()) {
    wait_for_teller();
    return true;
  }
  return write_piece();
}

bool
Stream::take_next()
{
  if (teller_->due() > g_get_monotonic_time()) {
    return false;
  }
  SharedText text = teller_->next();
  if (text == nullptr) {
    return false;
  }
  message_ = Message(std::move(text));
  return true;
}

/* Returns: whether the reader is still there */
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
    wait_for_teller();
  } else if (pieces_.bytes > 0) {
    wait_for(NOTHING,
             g_get_monotonic_time() + static_cast<gint64>(pieces_.pause_ms) * G_TIME_SPAN_MILLISECOND);
  } else {
    wait_for(G_IO_OUT, NO_TIME);
  }
  return true;
}

} /* namespace sim */

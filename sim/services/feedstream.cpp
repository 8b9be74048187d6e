/* SPDX-License-Identifier: MIT */
#include "feedstream.h"

namespace sim
{

namespace
{

constexpr gint64 IMMEDIATELY = 0;
constexpr gint64 NO_TIME = -1;

} // namespace

struct FeedStream::Timer {
  GSource base;
  FeedStream *stream;
};

/**
 * FeedStream:
 * @fd: (transfer full): the write end, non-blocking
 * @label: names the stream in the log
 * @feed: the messages; outlives the stream
 * @pieces: the pieces to write; outlives the stream and may change
 * @ended: called when the stream has ended; destroys the stream
 */
FeedStream::FeedStream(int fd, std::string label, Feed *feed, const Pieces &pieces, Ended ended)
    : Stream(fd, std::move(label), std::move(ended)), pieces_(pieces)
{
  static GSourceFuncs functions = {nullptr, nullptr, on_due, nullptr, nullptr, nullptr};

  timer_ = reinterpret_cast<Timer *>(g_source_new(&functions, sizeof(Timer)));
  timer_->stream = this;
  messages_ = feed->open([this] { wake(); });
  g_source_set_ready_time(&timer_->base, IMMEDIATELY);
  g_source_attach(&timer_->base, nullptr);
}

FeedStream::~FeedStream()
{
  g_source_destroy(&timer_->base);
  g_source_unref(&timer_->base);
}

FeedStream::Chunks
FeedStream::chunks() const
{
  const auto pause_us = static_cast<gint64>(pieces_.pause_ms) * G_TIME_SPAN_MILLISECOND;

  return pieces_.bytes > 0 ? Chunks{pieces_.bytes, pause_us} : Stream::chunks();
}

/* While a message is being written, no wake-up is necessary: on_idle() follows. */
void
FeedStream::wake()
{
  if (is_idle()) {
    g_source_set_ready_time(&timer_->base, IMMEDIATELY);
  }
}

void
FeedStream::on_idle()
{
  const gint64 due = messages_->has_ended() ? IMMEDIATELY : messages_->due();

  g_source_set_ready_time(&timer_->base, due == NEVER ? NO_TIME : due);
}

gboolean
FeedStream::on_due(GSource *base, GSourceFunc callback, gpointer user_data)
{
  FeedStream *stream = reinterpret_cast<Timer *>(base)->stream;

  g_source_set_ready_time(base, NO_TIME);
  if (stream->is_idle()) {
    stream->send_next();
  }
  return G_SOURCE_CONTINUE;
}

void
FeedStream::send_next()
{
  if (messages_->has_ended()) {
    finish();
    return;
  }
  const SharedText text = messages_->due() <= g_get_monotonic_time() ? messages_->next() : nullptr;
  if (text != nullptr) {
    send(text);
  } else {
    on_idle();
  }
}

} // namespace sim

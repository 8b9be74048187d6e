/* SPDX-License-Identifier: MIT */
#pragma once

#include "feed.h"
#include "receiver/stream.h"

namespace sim
{

/* The pieces in which messages are written. */
struct Pieces {
  static constexpr gsize MAX_BYTES = MAX_TEXT_BYTES;
  static constexpr guint MAX_PAUSE_MS = 60 * 1000;

  gsize bytes = 0; /* 0: each message in one piece */
  guint pause_ms = 0;
};

/* A stream of the receiver that gets its messages from a feed, and can write them in pieces. It sends the
 * next message when the previous one is written, so that its queue drops none. Main thread only. */
class FeedStream : public receiver::Stream
{
public:
  FeedStream(int fd, std::string label, Feed *feed, const Pieces &pieces, Ended ended);
  ~FeedStream() override;

protected:
  Chunks chunks() const override;
  void on_idle() override;

private:
  struct Timer;

  static gboolean on_due(GSource *base, GSourceFunc callback, gpointer user_data);

  void wake();
  void send_next();

  const Pieces &pieces_;
  std::unique_ptr<MessageSource> messages_;
  Timer *timer_; /* owned; ready when the next message is due */
};

} // namespace sim

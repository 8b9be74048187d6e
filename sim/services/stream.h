/* SPDX-License-Identifier: MIT */
#pragma once

#include "feed.h"

namespace sim
{

/* The pieces in which messages are written. */
struct Pieces {
  static constexpr gsize MAX_BYTES = Message::MAX_TEXT_BYTES;
  static constexpr guint MAX_PAUSE_MS = 60 * 1000;

  gsize bytes = 0; /* 0: each message in one piece */
  guint pause_ms = 0;
};

/* The write end of one stream. It ends when the reader closes its end or when there are no more messages, and
 * then notifies its owner; the owner may also destroy it before. It writes one message at a time. Main thread
 * only. */
class Stream
{
public:
  using Ended = std::function<void(Stream *stream)>;

  Stream(int fd, Feed *feed, const Pieces &pieces, Ended ended);
  ~Stream();
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

private:
  struct Source;

  static gboolean on_ready(GSource *base, GSourceFunc callback, gpointer user_data);

  void wait_for(GIOCondition condition, gint64 ready_time);
  void wait_for_message();
  void wake();
  bool advance();
  bool take_next();
  bool write_piece();

  const int fd_; /* owned */
  const Pieces &pieces_;
  const Ended ended_;
  std::unique_ptr<MessageSource> messages_;
  Message message_; /* the message that is being written */
  Source *source_;  /* owned */
};

} // namespace sim

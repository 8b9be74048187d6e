#pragma once

#include "feed.h"

namespace sim
{

/* In which pieces messages are written. */
struct Pieces {
  static constexpr gsize MAX_BYTES = Message::MAX_TEXT_BYTES;
  static constexpr guint MAX_PAUSE_MS = 60 * 1000;

  gsize bytes = 0; /* none: whole */
  guint pause_ms = 0;
};

/* The written end of one stream. It lives until its reader goes or its teller has ended, which it tells its
 * owner, or until the owner destroys it. There is one message on its way at most. Main thread only. */
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
  void wait_for_teller();
  void wake();
  bool go_on();
  bool take_next();
  bool write_piece();

  const int fd_; /* owned */
  const Pieces &pieces_;
  const Ended ended_;
  std::unique_ptr<Teller> teller_;
  Message message_; /* what is on its way */
  Source *source_;  /* owned */
};

} /* namespace sim */

/* SPDX-License-Identifier: MIT */
#pragma once

#include "message.h"

#include <deque>
#include <functional>
#include <string>

namespace receiver
{

/* The write end of one stream, with a queue of messages for its reader. It ends when the reader closes its
 * end, or when the queue is written after finish(), and then notifies its owner; the owner may also destroy
 * it before. Main thread only. */
class Stream
{
public:
  using Ended = std::function<void(Stream *stream)>;

  Stream(int fd, std::string label, Ended ended);
  virtual ~Stream();
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  void send(const SharedText &text);
  void finish();
  virtual void abort(const char *reason);
  bool is_idle() const;
  virtual gsize queued_bytes() const;

protected:
  /* The pieces in which messages are written. */
  struct Chunks {
    gsize bytes;     /* of one write, at most */
    gint64 pause_us; /* after a write that does not complete a message */
  };

  virtual Chunks chunks() const;

  /* Called when the queue has become empty, and the stream has not ended. */
  virtual void on_idle();

  /* Called when messages are dropped. */
  virtual void on_dropped();

private:
  struct Source;

  struct Queued {
    SharedText text;
    gint64 time; /* when it was queued */
  };

  static gboolean on_ready(GSource *base, GSourceFunc callback, gpointer user_data);

  void wait_for(GIOCondition condition, gint64 ready_time);
  void end_soon();
  void advance();
  bool write_piece();
  void take_begun(Message *message);
  void drop_old();
  bool is_too_much() const;
  void note_dropped();
  void log_dropped(const char *what);

  const int fd_; /* owned */
  const std::string label_;
  const Ended ended_;
  Message current_;          /* the message of which a byte is written, until it is sent */
  std::deque<Queued> queue_; /* the messages after it */
  gsize queued_bytes_ = 0;   /* of current_ and queue_, with their lengths */
  guint64 dropped_ = 0;      /* since the queue was empty */
  gint64 deadline_ = -1;     /* by which the stream has ended, after finish() */
  bool ending_ = false;
  Source *source_; /* owned */
};

bool stream_open_pair(int fds[2], GError **error);

} // namespace receiver

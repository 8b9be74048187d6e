/* SPDX-License-Identifier: MIT */
#pragma once

#include "messagequeue.h"
#include "worker.h"

#include <deque>
#include <string>

/* Messages of a channel that has been closed. */
struct LostMessages {
  guint unwritten = 0; /* not completely written */
  guint unread = 0;    /* written, and not completely read as far as is known */
};

/* The write end of a receiver's channel: passes the items of a queue to it, as whole messages. For the
 * worker. */
class ChannelPipe
{
public:
  /* Called from sources of the worker, and from within write_queued(). */
  class Client
  {
  public:
    /* So many items are in the pipe, and so many are dropped because of their age. */
    virtual void items_passed(guint written, guint expired) = 0;
    /* The receiver has closed the channel, which is closed here too. */
    virtual void channel_closed(ChannelPipe *pipe, const LostMessages &lost) = 0;

  protected:
    ~Client() = default;
  };

  ChannelPipe(guint32 channel, MessageQueue *queue, Client *client);
  ChannelPipe(const ChannelPipe &) = delete;
  ChannelPipe &operator=(const ChannelPipe &) = delete;
  ~ChannelPipe();

  guint32 channel() const;
  gboolean is_open() const;
  gboolean is_writing() const;
  void open(int descriptor);
  LostMessages close();
  void write_queued();

private:
  void take_next();
  gboolean write_some();
  void remember_message();
  void end();
  guint count_unread() const;

  const guint32 number;
  MessageQueue *const queue;
  Client *const client;
  int fd = -1;
  gsize capacity = 0;
  std::string pending;      /* the rest of the message that is being written */
  guint64 written = 0;      /* bytes since the channel was opened */
  std::deque<guint64> ends; /* of the messages that can be unread: the number of bytes with each */
  WorkerSource hang_up;
  WorkerSource writable;
};

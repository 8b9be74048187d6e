/* SPDX-License-Identifier: MIT */
#pragma once

#include "messagesplitter.h"

namespace receiver
{

/* The read end of a channel that an application has open. It is read whether or not the channel has streams.
 * It ends when the application closes its end or writes invalid data, and then notifies its owner; the owner
 * may also destroy it before. Main thread only. */
class Inlet
{
public:
  using Ended = std::function<void(Inlet *inlet)>;

  Inlet(int fd, std::string label, MessageSplitter::Deliver deliver, Ended ended);
  ~Inlet();
  Inlet(const Inlet &) = delete;
  Inlet &operator=(const Inlet &) = delete;

  bool drain();

private:
  struct Source;

  static gboolean on_ready(GSource *base, GSourceFunc callback, gpointer user_data);

  bool read_some();
  bool take(std::string_view bytes);
  bool check_time();
  bool at_end();
  bool fail(const char *reason);

  const int fd_; /* owned */
  const std::string label_;
  const MessageSplitter::Deliver deliver_;
  const Ended ended_;
  MessageSplitter splitter_;
  bool is_dry_ = false; /* whether the last read found nothing */
  Source *source_;      /* owned */
};

} // namespace receiver

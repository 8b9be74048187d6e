/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>
#include <string_view>
#include <vector>

namespace plugins
{

/* The read end of the receiver's stream of events. It never blocks. It ends when the other end is closed or
 * the data are invalid, and then notifies its owner; the owner may also destroy it before. Thread of the main
 * context only. */
class MessageStream
{
public:
  /* @text: valid during the call, and followed by the bytes that simdjson reads.
   *
   * Returns: whether the message is valid */
  using Deliver = std::function<bool(std::string_view text)>;
  using Ended = std::function<void(const char *reason)>;

  MessageStream(int fd, GMainContext *context, Deliver deliver, Ended ended);
  ~MessageStream();
  MessageStream(const MessageStream &) = delete;
  MessageStream &operator=(const MessageStream &) = delete;

  static bool is_usable(int fd);

private:
  static gboolean on_readable(gint fd, GIOCondition condition, gpointer user_data);

  const char *read_some();
  const char *deliver_all();

  const int fd_; /* owned */
  const Deliver deliver_;
  const Ended ended_;
  GSource *source_; /* owned */
  std::vector<char> buffer_;
  gsize filled_ = 0;
};

} // namespace plugins

/* SPDX-License-Identifier: MIT */
#pragma once

#include "message.h"

#include <deque>
#include <map>
#include <optional>

/* Frames that wait for the broker. Not for several threads at once. */

namespace mqtt
{

class FrameQueue
{
public:
  explicit FrameQueue(gint64 interval_us);

  gsize push(Message frame, bool is_away);
  gsize keep_newest();
  bool put_back(Message frame);
  std::optional<Message> pop(gint64 now_us, gint64 *due_us);

private:
  struct Module {
    std::deque<Message> frames;
    gint64 due_us = 0; /* when a frame may be sent */
  };
  using Modules = std::map<std::string, Module>;

  bool make_place();
  void pop_oldest(Module *module);
  gsize cut(Module *module, gsize frames_max);
  Message take(Modules::iterator module, gint64 now_us);

  gint64 interval_us_;
  Modules modules_;
  std::string last_; /* the topic from which a frame was taken last */
  gsize bytes_ = 0;
};

} // namespace mqtt

/* SPDX-License-Identifier: MIT */
#pragma once

#include "linesplitter.h"
#include "replay.h"

namespace sim
{

/* Sends each line of a descriptor to all open streams, like an application: the descriptor is always read,
 * and a stream gets no line from before it was opened. At the end of the input the streams stay open; with
 * the option "once" they end. */
class InputFeed : public Feed
{
public:
  InputFeed(int fd, const ReplayOptions &options);
  ~InputFeed() override;
  InputFeed(const InputFeed &) = delete;
  InputFeed &operator=(const InputFeed &) = delete;

  void start(const Deliver &deliver) override;
  std::unique_ptr<MessageSource> open(Notify notify) override;
  std::string sample_frame() const override;

private:
  class Listener;

  static gboolean on_readable(gint fd, GIOCondition condition, gpointer user_data);

  void read_some();
  void deliver_lines();
  void end();

  const int fd_;
  const ReplayOptions &options_;
  Deliver deliver_;
  std::vector<Listener *> listeners_; /* owned by their streams */
  LineSplitter splitter_;
  gsize reported_drops_ = 0;
  bool at_end_ = false;
  guint watch_ = 0;
};

} // namespace sim

#pragma once

#include "linesplitter.h"
#include "replay.h"

namespace sim
{

/* Tells what comes on a descriptor, line by line, to all streams that are open. It reads only while there are
 * streams and each has taken the line before. At the end of the input the streams stay, or end with the
 * pace's "once". */
class InputFeed : public Feed
{
public:
  InputFeed(int fd, const Pace &pace);
  ~InputFeed() override;
  InputFeed(const InputFeed &) = delete;
  InputFeed &operator=(const InputFeed &) = delete;

  std::unique_ptr<Teller> open(Wake wake) override;
  std::string sample_frame() const override;

private:
  class Listener;

  static gboolean on_readable(gint fd, GIOCondition condition, gpointer user_data);

  void go_on();
  bool is_anybody_waited_for() const;
  void read_some();
  void set_watching(bool watching);

  const int fd_;
  const Pace &pace_;
  std::vector<Listener *> listeners_; /* each is its stream's */
  LineSplitter splitter_;
  gsize told_dropped_ = 0;
  bool at_end_ = false;
  guint watch_ = 0;
};

} /* namespace sim */

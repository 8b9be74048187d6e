/* SPDX-License-Identifier: MIT */
#pragma once

#include "budget.h"
#include "description.h"
#include "inlet.h"

#include <map>
#include <memory>

namespace receiver
{

/* One producer: its description, the channels that its application has open, and their streams. A message on
 * a channel goes to every stream of this channel. Main thread only. */
class Producer
{
public:
  using Finished = std::function<void(Producer *producer)>;

  Producer(Description description, Budget *budget);
  virtual ~Producer();
  Producer(const Producer &) = delete;
  Producer &operator=(const Producer &) = delete;

  const std::string &name() const;
  const Description &description() const;
  void describe(Description description);
  virtual std::string sample_frame() const;

  int open_stream(gint32 channel, GError **error);
  int open_channel(guint32 channel, GError **error);
  void close_channels();
  void send(const SharedText &text);
  void finish(Finished finished);
  void hang_up();
  gsize stream_count() const;

protected:
  virtual bool supports(gint64 channel) const;
  virtual bool open_pair(int fds[2], GError **error) const;
  virtual std::unique_ptr<Stream> make_stream(int fd, std::string label, Stream::Ended ended);

private:
  struct Channel {
    std::unique_ptr<Inlet> inlet; /* nullptr while no application has the channel open */
    std::vector<std::unique_ptr<Stream>> streams;
  };

  bool check_channel(gint64 channel, GError **error) const;
  bool check_streams(gint32 channel, GError **error) const;
  bool check_open_channels(gint64 channel, GError **error);
  std::string label(gint64 channel) const;
  static void finish_streams(Channel *channel);
  void deliver(Channel *channel, const SharedText &text);
  void close_channel(gint64 channel);
  void remove_stream(gint64 channel, Stream *stream);
  void tidy(gint64 channel);
  gsize open_channel_count() const;

  Description description_;
  Budget *budget_;
  std::map<gint64, Channel> channels_;
  Finished finished_; /* set after finish() */
};

} // namespace receiver

/* SPDX-License-Identifier: MIT */
#include "producer.h"

#include "error.h"
#include "receiverlimits.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace receiver
{

namespace
{

bool
make_nonblocking(int fd)
{
  return fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == 0;
}

bool
refuse_for_shortage(GError **error)
{
  return refuse(error, Error::NO_DESCRIPTOR, "There is no descriptor: %s", g_strerror(errno));
}

} // namespace

/**
 * Producer:
 * @description: a valid description
 * @budget: (transfer none): the resources that all producers share; outlives the producer
 */
Producer::Producer(Description description, Budget *budget)
    : description_(std::move(description)), budget_(budget)
{
}

Producer::~Producer()
{
  close_channels();
  hang_up();
}

const std::string &
Producer::name() const
{
  return description_.name;
}

const Description &
Producer::description() const
{
  return description_;
}

/**
 * Producer::describe:
 * @description: a valid description with the same name
 *
 * Replaces the description. Streams of channels that are not supported any more end.
 */
void
Producer::describe(Description description)
{
  description_ = std::move(description);
  std::vector<gint64> gone;
  for (auto &[number, channel] : channels_) {
    if (!supports(number)) {
      gone.push_back(number);
      finish_streams(&channel);
    }
  }
  for (const gint64 number : gone) {
    close_channel(number);
  }
}

void
Producer::finish_streams(Channel *channel)
{
  for (const auto &stream : channel->streams) {
    stream->finish();
  }
}

/**
 * Producer::sample_frame:
 *
 * Returns: the sample frame in JSON, in UTF-8
 */
std::string
Producer::sample_frame() const
{
  return description_.sample_frame;
}

bool
Producer::supports(gint64 channel) const
{
  return std::find(description_.channels.begin(), description_.channels.end(), channel) !=
         description_.channels.end();
}

bool
Producer::check_channel(gint64 channel, GError **error) const
{
  return supports(channel) ||
         refuse(error, Error::UNSUPPORTED_CHANNEL, "%s does not support channel %" G_GINT64_FORMAT,
                name().c_str(), channel);
}

bool
Producer::check_streams(gint32 channel, GError **error) const
{
  const auto found = channels_.find(channel);

  if (found != channels_.end() && found->second.streams.size() >= RECEIVER_MAX_CHANNEL_STREAMS) {
    return refuse(error, Error::LIMIT_EXCEEDED, "Channel %d of %s has %d streams", channel, name().c_str(),
                  RECEIVER_MAX_CHANNEL_STREAMS);
  }
  return budget_->stream_count() < RECEIVER_MAX_STREAMS ||
         refuse(error, Error::LIMIT_EXCEEDED, "There are %d streams", RECEIVER_MAX_STREAMS);
}

std::string
Producer::label(gint64 channel) const
{
  return name() + ", channel " + std::to_string(channel);
}

bool
Producer::open_pair(int fds[2], GError **error) const
{
  return stream_open_pair(fds, error);
}

std::unique_ptr<Stream>
Producer::make_stream(int fd, std::string label, Stream::Ended ended)
{
  return std::make_unique<Stream>(fd, std::move(label), std::move(ended));
}

/**
 * Producer::open_stream:
 * @channel: a video channel, whether or not an application has it open
 * @error: set if the channel is not supported, there are too many streams, or there is no descriptor
 *
 * Opens a stream. It ends when its reader closes the descriptor, or with the producer.
 *
 * Returns: (transfer full): the descriptor of the read end, or -1
 */
int
Producer::open_stream(gint32 channel, GError **error)
{
  int fds[2] = {-1, -1};

  if (!check_channel(channel, error) || !check_streams(channel, error) || !open_pair(fds, error)) {
    return -1;
  }
  std::unique_ptr<Stream> stream =
      make_stream(fds[1], "A stream of " + label(channel),
                  [this, channel](Stream *ended) { remove_stream(channel, ended); });
  budget_->add(stream.get());
  channels_[channel].streams.push_back(std::move(stream));
  return fds[0];
}

gsize
Producer::open_channel_count() const
{
  return static_cast<gsize>(std::count_if(channels_.begin(), channels_.end(),
                                          [](const auto &entry) { return entry.second.inlet != nullptr; }));
}

/* An application can close a channel and open it again before the receiver has read to its end. */
bool
Producer::check_open_channels(gint64 channel, GError **error)
{
  const auto found = channels_.find(channel);

  if (found != channels_.end() && found->second.inlet != nullptr) {
    if (found->second.inlet->drain()) {
      return refuse(error, Error::CHANNEL_OPEN, "Channel %" G_GINT64_FORMAT " of %s is open", channel,
                    name().c_str());
    }
    close_channel(channel);
  }
  const gsize limit =
      RECEIVER_MAX_OPEN_CHANNELS - (open_channel_count() > 0 ? RECEIVER_OPEN_CHANNELS_KEPT : 0);
  return budget_->open_channels < limit ||
         refuse(error, Error::LIMIT_EXCEEDED, "There are %zu open channels", budget_->open_channels);
}

/**
 * Producer::open_channel:
 * @channel: a video channel
 * @error: set if the channel is not supported or open, there are too many open channels, or there is no
 * descriptor
 *
 * Opens a channel for its application.
 *
 * Returns: (transfer full): the descriptor of the write end, or -1
 */
int
Producer::open_channel(guint32 channel, GError **error)
{
  int fds[2] = {-1, -1};

  if (!check_channel(channel, error) || !check_open_channels(channel, error)) {
    return -1;
  }
  if (pipe2(fds, O_CLOEXEC) != 0) {
    refuse_for_shortage(error);
    return -1;
  }
  make_nonblocking(fds[0]);
  Channel &opened = channels_[channel];
  opened.inlet = std::make_unique<Inlet>(
      fds[0], label(channel), [this, &opened](const SharedText &text) { deliver(&opened, text); },
      [this, channel](Inlet *ended) { close_channel(channel); });
  budget_->open_channels++;
  return fds[1];
}

void
Producer::deliver(Channel *channel, const SharedText &text)
{
  for (const auto &stream : channel->streams) {
    stream->send(text);
  }
  budget_->keep_queued_bytes();
}

/**
 * Producer::send:
 * @text: the text of a message
 *
 * Sends a message to the streams of all channels.
 */
void
Producer::send(const SharedText &text)
{
  for (auto &[number, channel] : channels_) {
    deliver(&channel, text);
  }
}

/* Closes the read end of the application's channel. Streams stay open. */
void
Producer::close_channel(gint64 channel)
{
  const auto found = channels_.find(channel);

  if (found != channels_.end() && found->second.inlet != nullptr) {
    found->second.inlet = nullptr;
    budget_->open_channels--;
    tidy(channel);
  }
}

/**
 * Producer::close_channels:
 *
 * Reads the data that the application has written, and closes all its open channels. Streams stay open.
 */
void
Producer::close_channels()
{
  std::vector<gint64> numbers;

  for (const auto &[number, channel] : channels_) {
    if (channel.inlet != nullptr) {
      channel.inlet->drain();
      numbers.push_back(number);
    }
  }
  for (const gint64 number : numbers) {
    close_channel(number);
  }
}

/**
 * Producer::finish:
 * @finished: called once, when the last stream has ended; also before this function returns. Destroys the
 * producer
 *
 * Closes all channels, and ends every stream when its queue is written.
 */
void
Producer::finish(Finished finished)
{
  close_channels();
  for (auto &[number, channel] : channels_) {
    finish_streams(&channel);
  }
  if (channels_.empty()) {
    finished(this);
  } else {
    finished_ = std::move(finished);
  }
}

/**
 * Producer::hang_up:
 *
 * Ends all streams immediately, even within a message.
 */
void
Producer::hang_up()
{
  for (auto &[number, channel] : channels_) {
    for (const auto &stream : channel.streams) {
      budget_->remove(stream.get());
    }
    channel.streams.clear();
  }
  std::erase_if(channels_, [](const auto &entry) { return entry.second.inlet == nullptr; });
}

/**
 * Producer::stream_count:
 *
 * Returns: the number of open streams
 */
gsize
Producer::stream_count() const
{
  gsize count = 0;

  for (const auto &[number, channel] : channels_) {
    count += channel.streams.size();
  }
  return count;
}

/* Called when a stream has ended; the last one of a producer that finishes destroys the producer. */
void
Producer::remove_stream(gint64 channel, Stream *stream)
{
  budget_->remove(stream);
  std::erase_if(channels_[channel].streams, [stream](const auto &entry) { return entry.get() == stream; });
  tidy(channel);
  if (finished_ != nullptr && channels_.empty()) {
    const Finished finished = std::move(finished_);
    finished(this);
  }
}

/* Deletes a channel without an inlet and streams. */
void
Producer::tidy(gint64 channel)
{
  const auto found = channels_.find(channel);

  if (found->second.inlet == nullptr && found->second.streams.empty()) {
    channels_.erase(found);
  }
}

} // namespace receiver

/* SPDX-License-Identifier: MIT */
#include "inputfeed.h"

#include "sceneitem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <glib-unix.h>
#include <unistd.h>

/* Other processes may share the descriptor, for example a terminal, so its mode is not changed. It is read
 * once each time poll() reports data. */

namespace sim
{

namespace
{

constexpr gsize READ_BYTES = 65536;

} // namespace

/* The messages of one stream. */
class InputFeed::Listener : public MessageSource
{
public:
  Listener(InputFeed *feed, Notify notify) : feed_(feed), notify_(std::move(notify))
  {
    feed_->listeners_.push_back(this);
  }

  ~Listener() override
  {
    std::erase(feed_->listeners_, this);
    feed_->advance();
  }

  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  bool has_ended() const override
  {
    return feed_->at_end_ && line_ == nullptr && feed_->options_.once;
  }

  gint64 due() override
  {
    return line_ != nullptr ? g_get_monotonic_time() : NEVER;
  }

  SharedText next() override
  {
    SharedText line = std::move(line_);

    line_ = nullptr;
    feed_->advance();
    return line;
  }

  bool has_line() const
  {
    return line_ != nullptr;
  }

  void deliver(SharedText line)
  {
    line_ = std::move(line);
    notify_();
  }

  void notify_end()
  {
    notify_();
  }

private:
  InputFeed *feed_;
  const Notify notify_;
  SharedText line_; /* the line that the stream has not taken yet */
};

/**
 * InputFeed:
 * @fd: (transfer none): the descriptor to read
 * @options: whether the streams end with the input; outlive the feed
 */
InputFeed::InputFeed(int fd, const ReplayOptions &options) : fd_(fd), options_(options)
{
}

InputFeed::~InputFeed()
{
  set_watching(false);
}

std::unique_ptr<MessageSource>
InputFeed::open(Notify notify)
{
  auto listener = std::make_unique<Listener>(this, std::move(notify));

  advance();
  return listener;
}

std::string
InputFeed::sample_frame() const
{
  return scene_example_item(std::nullopt, true);
}

bool
InputFeed::is_line_pending() const
{
  return std::any_of(listeners_.begin(), listeners_.end(),
                     [](const Listener *listener) { return listener->has_line(); });
}

/* Delivers the next line when every stream has taken the previous one. */
void
InputFeed::advance()
{
  if (listeners_.empty() || is_line_pending()) {
    set_watching(false);
    return;
  }
  const std::optional<SharedText> line = splitter_.pop();
  if (splitter_.dropped() > reported_drops_) {
    reported_drops_ = splitter_.dropped();
    g_printerr("simcamera: left out a line longer than %" G_GSIZE_FORMAT " bytes\n", Message::MAX_TEXT_BYTES);
  }
  set_watching(!line.has_value() && !at_end_);
  for (Listener *listener : listeners_) {
    if (line.has_value()) {
      listener->deliver(*line);
    } else if (at_end_) {
      listener->notify_end();
    }
  }
}

gboolean
InputFeed::on_readable(gint fd, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<InputFeed *>(user_data);

  self->read_some();
  return G_SOURCE_CONTINUE;
}

void
InputFeed::read_some()
{
  std::array<char, READ_BYTES> bytes;
  const ssize_t count = read(fd_, bytes.data(), bytes.size());

  if (count > 0) {
    splitter_.push({bytes.data(), static_cast<gsize>(count)});
  } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
    at_end_ = true;
    splitter_.finish();
  }
  advance();
}

void
InputFeed::set_watching(bool watching)
{
  if (watching && watch_ == 0) {
    watch_ = g_unix_fd_add(fd_, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_readable, this);
  } else if (!watching) {
    g_clear_handle_id(&watch_, g_source_remove);
  }
}

} // namespace sim

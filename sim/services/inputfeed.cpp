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

/* A stream has no messages of its own, but it may end with the input. */
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
  }

  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  bool has_ended() const override
  {
    return feed_->at_end_ && feed_->options_.once;
  }

  gint64 due() override
  {
    return NEVER;
  }

  SharedText next() override
  {
    return nullptr;
  }

  void notify_end() const
  {
    notify_();
  }

private:
  InputFeed *feed_;
  const Notify notify_;
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
  g_clear_handle_id(&watch_, g_source_remove);
}

void
InputFeed::start(const Deliver &deliver)
{
  deliver_ = deliver;
  watch_ = g_unix_fd_add(fd_, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_readable, this);
}

std::unique_ptr<MessageSource>
InputFeed::open(Notify notify)
{
  return std::make_unique<Listener>(this, std::move(notify));
}

std::string
InputFeed::sample_frame() const
{
  return scene_example_item(std::nullopt, true);
}

gboolean
InputFeed::on_readable(gint fd, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<InputFeed *>(user_data);

  self->read_some();
  return self->at_end_ ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void
InputFeed::read_some()
{
  std::array<char, READ_BYTES> bytes;
  const ssize_t count = read(fd_, bytes.data(), bytes.size());

  if (count > 0) {
    splitter_.push({bytes.data(), static_cast<gsize>(count)});
    deliver_lines();
  } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
    splitter_.finish();
    deliver_lines();
    end();
  }
}

void
InputFeed::deliver_lines()
{
  while (const std::optional<SharedText> line = splitter_.pop()) {
    deliver_(*line);
  }
  if (splitter_.dropped() > reported_drops_) {
    reported_drops_ = splitter_.dropped();
    g_printerr("simcamera: left out a line longer than %" G_GSIZE_FORMAT " bytes\n", MAX_TEXT_BYTES);
  }
}

void
InputFeed::end()
{
  at_end_ = true;
  watch_ = 0;
  for (const Listener *listener : listeners_) {
    listener->notify_end();
  }
}

} // namespace sim

#include "inputfeed.h"

#include "sceneitem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <glib-unix.h>
#include <unistd.h>

/* The descriptor may be shared with other processes, a terminal for example, and is therefore left in the
 * mode that it has: it is read once each time that it has something. */

namespace sim
{

namespace
{

constexpr gsize READ_BYTES = 65536;

} /* namespace */

/* One stream's ear. */
class InputFeed::Listener : public Teller
{
public:
  Listener(InputFeed *feed, Wake wake) : feed_(feed), wake_(std::move(wake))
  {
    feed_->listeners_.push_back(this);
  }

  ~Listener() override
  {
    std::erase(feed_->listeners_, this);
    feed_->go_on();
  }

  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  bool has_ended() const override
  {
    return feed_->at_end_ && line_ == nullptr && feed_->pace_.once;
  }

  gint64 due() override
  {
    return line_ != nullptr ? g_get_monotonic_time() : NEVER;
  }

  SharedText next() override
  {
    SharedText line = std::move(line_);

    line_ = nullptr;
    feed_->go_on();
    return line;
  }

  bool has_line() const
  {
    return line_ != nullptr;
  }

  void give(SharedText line)
  {
    line_ = std::move(line);
    wake_();
  }

  void tell_end()
  {
    wake_();
  }

private:
  InputFeed *feed_;
  const Wake wake_;
  SharedText line_; /* waits for its stream; unset if there is none */
};

/**
 * InputFeed:
 * @fd: (transfer none): what to read
 * @pace: whether the streams end with the input; outlives the feed
 */
InputFeed::InputFeed(int fd, const Pace &pace) : fd_(fd), pace_(pace)
{
}

InputFeed::~InputFeed()
{
  set_watching(false);
}

std::unique_ptr<Teller>
InputFeed::open(Wake wake)
{
  auto listener = std::make_unique<Listener>(this, std::move(wake));

  go_on();
  return listener;
}

std::string
InputFeed::sample_frame() const
{
  return scene_example_item(std::nullopt, true);
}

bool
InputFeed::is_anybody_waited_for() const
{
  return std::any_of(listeners_.begin(), listeners_.end(),
                     [](const Listener *listener) { return listener->has_line(); });
}

/* Tells the next line as soon as everybody is ready for it. */
void
InputFeed::go_on()
{
  if (listeners_.empty() || is_anybody_waited_for()) {
    set_watching(false);
    return;
  }
  const std::optional<SharedText> line = splitter_.pop();
  if (splitter_.dropped() > told_dropped_) {
    told_dropped_ = splitter_.dropped();
    g_printerr("simcamera: left out a line longer than %" G_GSIZE_FORMAT " bytes\n", Message::MAX_TEXT_BYTES);
  }
  set_watching(!line.has_value() && !at_end_);
  for (Listener *listener : listeners_) {
    if (line.has_value()) {
      listener->give(*line);
    } else if (at_end_) {
      listener->tell_end();
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
  go_on();
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

} /* namespace sim */

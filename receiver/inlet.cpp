/* SPDX-License-Identifier: MIT */
#include "inlet.h"

#include "receiverlimits.h"

#include <array>
#include <cerrno>
#include <syslog.h>
#include <unistd.h>

/* One GSource waits for input, and for the time by which an unfinished message must be complete. Each
 * dispatch reads once, so that an application that writes without a pause delays no other source. */

namespace receiver
{

namespace
{

constexpr auto INPUT = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
constexpr gint64 NO_DEADLINE = -1;
constexpr int MIB = 1 << 20;

const char *
reason_of(MessageSplitter::Fault fault)
{
  static_assert(RECEIVER_MAX_MESSAGE_BYTES == MIB);
  return fault == MessageSplitter::Fault::TOO_LONG ? "a message is longer than 1 MiB"
                                                   : "a message is not UTF-8 text";
}

} // namespace

struct Inlet::Source {
  GSource base;
  Inlet *inlet;
};

/**
 * Inlet:
 * @fd: (transfer full): the read end, non-blocking
 * @label: names the channel in the log
 * @deliver: called with each message
 * @ended: called when the inlet has ended; destroys the inlet
 */
Inlet::Inlet(int fd, std::string label, MessageSplitter::Deliver deliver, Ended ended)
    : fd_(fd), label_(std::move(label)), deliver_(std::move(deliver)), ended_(std::move(ended))
{
  static GSourceFuncs functions = {nullptr, nullptr, on_ready, nullptr, nullptr, nullptr};

  source_ = reinterpret_cast<Source *>(g_source_new(&functions, sizeof(Source)));
  source_->inlet = this;
  g_source_add_unix_fd(&source_->base, fd, INPUT);
  g_source_attach(&source_->base, nullptr);
}

Inlet::~Inlet()
{
  g_source_destroy(&source_->base);
  g_source_unref(&source_->base);
  close(fd_);
}

/**
 * Inlet::drain:
 *
 * Reads the data that the application has written so far, at most %RECEIVER_DRAIN_BYTES. Does not call the
 * @ended of the constructor.
 *
 * Returns: whether the inlet has not ended; otherwise the caller destroys it
 */
bool
Inlet::drain()
{
  is_dry_ = false;
  for (gsize bytes = 0; bytes < RECEIVER_DRAIN_BYTES && !is_dry_; bytes += RECEIVER_READ_BYTES) {
    if (!read_some()) {
      return false;
    }
  }
  return true;
}

gboolean
Inlet::on_ready(GSource *base, GSourceFunc callback, gpointer user_data)
{
  Inlet *inlet = reinterpret_cast<Source *>(base)->inlet;

  if (!inlet->read_some() || !inlet->check_time()) {
    const Ended ended = inlet->ended_;
    ended(inlet); /* destroys the inlet */
  }
  return G_SOURCE_CONTINUE;
}

/* Returns: whether the inlet has not ended */
bool
Inlet::read_some()
{
  static std::array<char, RECEIVER_READ_BYTES> bytes;
  const ssize_t count = read(fd_, bytes.data(), bytes.size());

  if (count > 0) {
    return take({bytes.data(), static_cast<gsize>(count)});
  }
  if (count == 0) {
    return at_end();
  }
  is_dry_ = true;
  return errno == EAGAIN || errno == EINTR || fail(g_strerror(errno));
}

bool
Inlet::take(std::string_view bytes)
{
  const guint64 completed = splitter_.completed();
  const bool had_unfinished = splitter_.has_unfinished();
  const MessageSplitter::Fault fault = splitter_.push(bytes, deliver_);

  if (fault != MessageSplitter::Fault::NONE) {
    return fail(reason_of(fault));
  }
  if (!splitter_.has_unfinished()) {
    g_source_set_ready_time(&source_->base, NO_DEADLINE);
  } else if (!had_unfinished || splitter_.completed() > completed) {
    g_source_set_ready_time(&source_->base,
                            g_get_monotonic_time() + RECEIVER_MESSAGE_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND);
  }
  return true;
}

/* Returns: whether there is no unfinished message, or it is within its time limit */
bool
Inlet::check_time()
{
  const gint64 ready_time = g_source_get_ready_time(&source_->base);

  static_assert(RECEIVER_MESSAGE_TIMEOUT_MS == 10 * 1000);
  return ready_time == NO_DEADLINE || ready_time > g_get_monotonic_time() ||
         fail("a message is not complete after 10 s");
}

bool
Inlet::at_end()
{
  if (splitter_.has_unfinished()) {
    return fail("the application closed it within a message");
  }
  return false;
}

bool
Inlet::fail(const char *reason)
{
  syslog(LOG_WARNING, "%s: ended, because %s", label_.c_str(), reason);
  return false;
}

} // namespace receiver

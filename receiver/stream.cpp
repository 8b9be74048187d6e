/* SPDX-License-Identifier: MIT */
#include "stream.h"

#include "error.h"
#include "receiverlimits.h"

#include <cerrno>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

/* One GSource waits until the descriptor is writable or until a time, and always for the reader to close its
 * end. The descriptor is non-blocking, so a reader that does not read blocks no other stream. send() writes
 * a message immediately; only the bytes that the descriptor does not accept wait in the queue.
 *
 * Dropped messages: the oldest ones, because a reader that reads again needs the new ones. First those that
 * are older than RECEIVER_QUEUE_MAX_AGE_MS are dropped, then as many as necessary to keep the queue within
 * RECEIVER_QUEUE_MAX_BYTES and RECEIVER_QUEUE_MAX_MESSAGES. A partly written message is never dropped,
 * because the reader could not find the start of the next one; nor is the newest, so that a long message can
 * be queued.
 *
 * A stream ends only in its own dispatch, so that no stream ends while a message is sent to all streams of a
 * channel. */

namespace receiver
{

namespace
{

constexpr auto NOTHING = static_cast<GIOCondition>(0);
constexpr gint64 IMMEDIATELY = 0;
constexpr gint64 NO_TIME = -1;
constexpr gint64 MAX_AGE_US = RECEIVER_QUEUE_MAX_AGE_MS * G_TIME_SPAN_MILLISECOND;

} // namespace

struct Stream::Source {
  GSource base;
  Stream *stream;
  gpointer tag; /* of the descriptor */
};

/**
 * Stream:
 * @fd: (transfer full): the write end, non-blocking
 * @label: names the stream in the log
 * @ended: called when the stream has ended; destroys the stream
 */
Stream::Stream(int fd, std::string label, Ended ended)
    : fd_(fd), label_(std::move(label)), ended_(std::move(ended))
{
  static GSourceFuncs functions = {nullptr, nullptr, on_ready, nullptr, nullptr, nullptr};

  source_ = reinterpret_cast<Source *>(g_source_new(&functions, sizeof(Source)));
  source_->stream = this;
  source_->tag = g_source_add_unix_fd(&source_->base, fd, NOTHING);
  g_source_attach(&source_->base, nullptr);
}

Stream::~Stream()
{
  if (dropped_ > 0) {
    log_dropped("has ended");
  }
  g_source_destroy(&source_->base);
  g_source_unref(&source_->base);
  close(fd_);
}

/**
 * Stream::send:
 * @text: the text of a message
 *
 * Writes the message, or queues it. If the queue is full, messages are dropped.
 */
void
Stream::send(const SharedText &text)
{
  if (ending_ || deadline_ != NO_TIME) {
    return;
  }
  const bool was_idle = is_idle();
  queue_.push_back({text, g_get_monotonic_time()});
  queued_bytes_ += Message(text).size();
  if (was_idle) {
    advance();
  } else {
    drop_old();
  }
}

/**
 * Stream::finish:
 *
 * Ends the stream when the queue is written, or after %RECEIVER_QUEUE_MAX_AGE_MS. Nothing more is sent.
 */
void
Stream::finish()
{
  if (ending_ || deadline_ != NO_TIME) {
    return;
  }
  deadline_ = g_get_monotonic_time() + MAX_AGE_US;
  if (is_idle()) {
    end_soon();
  } else {
    wait_for(G_IO_OUT, deadline_);
  }
}

/**
 * Stream::abort:
 * @reason: the reason, for the log
 *
 * Ends the stream, even within a message.
 */
void
Stream::abort(const char *reason)
{
  if (ending_) {
    return;
  }
  syslog(LOG_WARNING, "%s: ends, because %s", label_.c_str(), reason);
  current_ = {};
  queue_.clear();
  queued_bytes_ = 0;
  end_soon();
}

/**
 * Stream::is_idle:
 *
 * Returns: whether all messages are written
 */
bool
Stream::is_idle() const
{
  return current_.is_sent() && queue_.empty();
}

/**
 * Stream::queued_bytes:
 *
 * Returns: the bytes of the messages that are not written, with their lengths
 */
gsize
Stream::queued_bytes() const
{
  return queued_bytes_;
}

Stream::Chunks
Stream::chunks() const
{
  return {G_MAXSIZE, 0};
}

void
Stream::on_idle()
{
}

void
Stream::on_dropped()
{
}

gboolean
Stream::on_ready(GSource *base, GSourceFunc callback, gpointer user_data)
{
  auto *source = reinterpret_cast<Source *>(base);
  Stream *stream = source->stream;
  const guint condition = g_source_query_unix_fd(base, source->tag);
  const bool is_late = stream->deadline_ != NO_TIME && stream->deadline_ <= g_get_monotonic_time();

  if ((condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) != 0 || stream->ending_ || is_late) {
    const Ended ended = stream->ended_;
    ended(stream); /* destroys the stream */
    return G_SOURCE_CONTINUE;
  }
  stream->drop_old();
  stream->advance();
  return G_SOURCE_CONTINUE;
}

void
Stream::wait_for(GIOCondition condition, gint64 ready_time)
{
  g_source_modify_unix_fd(&source_->base, source_->tag, condition);
  g_source_set_ready_time(&source_->base, ready_time);
}

void
Stream::end_soon()
{
  ending_ = true;
  wait_for(NOTHING, IMMEDIATELY);
}

/* Writes until the descriptor accepts no more. */
void
Stream::advance()
{
  while (!is_idle()) {
    if (!write_piece()) {
      return;
    }
  }
  if (dropped_ > 0) {
    log_dropped("is read again");
    dropped_ = 0;
  }
  if (deadline_ != NO_TIME) {
    end_soon();
    return;
  }
  wait_for(NOTHING, NO_TIME);
  on_idle();
}

/* Returns: whether a message is complete; otherwise the stream waits, or has ended */
bool
Stream::write_piece()
{
  Message message = current_.is_sent() ? Message(queue_.front().text) : current_;
  const Chunks limits = chunks();
  const std::span<const iovec> rest = message.rest(limits.bytes);
  const ssize_t written = writev(fd_, rest.data(), static_cast<int>(rest.size()));

  if (written < 0 && errno != EAGAIN && errno != EINTR) {
    end_soon();
    return false;
  }
  if (written > 0) {
    message.advance(static_cast<gsize>(written));
    take_begun(&message);
  }
  if (written > 0 && current_.is_sent()) {
    return true;
  }
  if (written > 0 && limits.pause_us > 0) {
    wait_for(NOTHING, g_get_monotonic_time() + limits.pause_us);
  } else {
    wait_for(G_IO_OUT, deadline_);
  }
  return false;
}

/* @message: the current message, or the first of the queue, of which a byte is written now */
void
Stream::take_begun(Message *message)
{
  if (current_.is_sent()) {
    queue_.pop_front();
  }
  if (message->is_sent()) {
    queued_bytes_ -= message->size();
    current_ = {};
  } else {
    current_ = *message;
  }
}

/* Drops the oldest messages of which no byte is written, but never the newest. */
void
Stream::drop_old()
{
  const guint64 before = dropped_;

  while (queue_.size() > 1 && is_too_much()) {
    queued_bytes_ -= Message(queue_.front().text).size();
    queue_.pop_front();
    note_dropped();
  }
  if (dropped_ != before) {
    on_dropped();
  }
}

bool
Stream::is_too_much() const
{
  return queued_bytes_ > RECEIVER_QUEUE_MAX_BYTES || queue_.size() > RECEIVER_QUEUE_MAX_MESSAGES ||
         queue_.front().time < g_get_monotonic_time() - MAX_AGE_US;
}

void
Stream::note_dropped()
{
  if (dropped_ == 0) {
    syslog(LOG_WARNING, "%s: is not read, messages are dropped", label_.c_str());
  }
  dropped_++;
}

void
Stream::log_dropped(const char *what)
{
  syslog(LOG_WARNING, "%s: %s, %" G_GUINT64_FORMAT " messages were dropped", label_.c_str(), what, dropped_);
}

/**
 * stream_open_pair:
 * @fds: (out): the read end, blocking, and the write end, non-blocking and for a stream
 * @error: set if there is no descriptor
 *
 * Returns: whether @fds are open
 */
bool
stream_open_pair(int fds[2], GError **error)
{
  if (pipe2(fds, O_CLOEXEC) != 0) {
    return refuse(error, Error::NO_DESCRIPTOR, "There is no descriptor: %s", g_strerror(errno));
  }
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  fcntl(fds[1], F_SETPIPE_SZ, RECEIVER_STREAM_PIPE_BYTES);
  return true;
}

} // namespace receiver

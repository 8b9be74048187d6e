/* SPDX-License-Identifier: MIT */
#include "events.h"

#include "error.h"
#include "receiverlimits.h"

#include <algorithm>

namespace receiver
{

/**
 * Events:
 * @budget: (transfer none): the resources that all streams share; outlives the events
 */
Events::Events(Budget *budget)
    : budget_(budget), store_([this](const SharedText &text, guint64 property) { deliver(text, property); })
{
}

Events::~Events()
{
  g_clear_handle_id(&removal_, g_source_remove);
  for (const auto &stream : streams_) {
    budget_->remove(stream.get());
  }
}

/**
 * Events::store:
 *
 * Returns: (transfer none): the topics and states; what is emitted there goes to all streams
 */
EventStore *
Events::store()
{
  return &store_;
}

/**
 * Events::open_stream:
 * @error: set if there are too many streams, or there is no descriptor
 *
 * Opens a stream of the present states and of all events from now on. It ends when its reader closes the
 * descriptor.
 *
 * Returns: (transfer full): the descriptor of the read end, or -1
 */
int
Events::open_stream(GError **error)
{
  int fds[2] = {-1, -1};

  if (streams_.size() >= RECEIVER_MAX_EVENT_STREAMS || budget_->stream_count() >= RECEIVER_MAX_STREAMS) {
    refuse(error, Error::LIMIT_EXCEEDED, "There are %zu streams of events", streams_.size());
    return -1;
  }
  if (!stream_open_pair(fds, error)) {
    return -1;
  }
  streams_.push_back(std::make_unique<EventStream>(
      fds[1], [this](Stream *ended) { remove_stream(ended); }, &store_));
  budget_->add(streams_.back().get());
  streams_.back()->send_states();
  return fds[0];
}

void
Events::deliver(const SharedText &text, guint64 property)
{
  for (const auto &stream : streams_) {
    stream->send_event(text, property);
  }
  budget_->keep_queued_bytes();
}

void
Events::remove_stream(Stream *stream)
{
  budget_->remove(stream);
  std::erase_if(streams_, [stream](const auto &entry) { return entry.get() == stream; });
}

/**
 * Events::application_disconnected:
 * @sender: an application whose connection has closed
 *
 * Removes its topics and deletes its properties after %RECEIVER_GRACE_SECONDS.
 */
void
Events::application_disconnected(const std::string &sender)
{
  store_.disconnect(sender);
  if (removal_ == 0) {
    schedule_removal();
  }
}

void
Events::schedule_removal()
{
  const std::optional<gint64> next = store_.next_removal();

  removal_ = 0;
  if (next.has_value()) {
    const gint64 wait_us = std::max<gint64>(*next - g_get_monotonic_time(), 0);
    removal_ = g_timeout_add(static_cast<guint>(wait_us / G_TIME_SPAN_MILLISECOND) + 1, on_removal, this);
  }
}

gboolean
Events::on_removal(gpointer user_data)
{
  auto *self = static_cast<Events *>(user_data);

  self->store_.remove_overdue();
  self->schedule_removal();
  return G_SOURCE_REMOVE;
}

} // namespace receiver

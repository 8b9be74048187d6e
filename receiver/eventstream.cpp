/* SPDX-License-Identifier: MIT */
#include "eventstream.h"

#include "receiverlimits.h"

/* The states can be longer than a stream's queue. So the stream makes the next one when the last one is
 * written. An event of a property whose state is still to be sent is left out, because the state has it. The
 * other events wait until all states are sent.
 *
 * A reader that does not read loses events as in every stream, or when too many wait for the states. Then it
 * cannot know any more which properties exist. The stream sends nothing until its queue is empty, then
 * EVENTS_RESYNC, and the states again. */

namespace receiver
{

/**
 * EventStream:
 * @fd: (transfer full): the write end, non-blocking
 * @ended: called when the stream has ended; destroys the stream
 * @store: (transfer none): the states; outlives the stream
 */
EventStream::EventStream(int fd, Ended ended, const EventStore *store)
    : Stream(fd, "A stream of events", std::move(ended)), store_(store), last_(store->newest_property())
{
}

/**
 * EventStream::send_states:
 *
 * Sends the present states. Call it once, before any other function.
 */
void
EventStream::send_states()
{
  on_idle();
}

/**
 * EventStream::send_event:
 * @text: an event
 * @property: the number of its property, or 0
 *
 * Sends the event, unless the reader gets it as a state.
 */
void
EventStream::send_event(const SharedText &text, guint64 property)
{
  if (is_aborted_ || has_lost_) {
    return;
  }
  if (!is_sending_states_) {
    send(text);
  } else if (property <= sent_ || property > last_) {
    keep(text);
  }
}

void
EventStream::keep(const SharedText &text)
{
  waiting_.push_back(text);
  waiting_bytes_ += Message(text).size();
  if (waiting_bytes_ > RECEIVER_QUEUE_MAX_BYTES || waiting_.size() > RECEIVER_QUEUE_MAX_MESSAGES) {
    discard_waiting();
    has_lost_ = true;
  }
}

void
EventStream::discard_waiting()
{
  waiting_.clear();
  waiting_bytes_ = 0;
}

void
EventStream::abort(const char *reason)
{
  is_aborted_ = true;
  discard_waiting();
  Stream::abort(reason);
}

gsize
EventStream::queued_bytes() const
{
  return Stream::queued_bytes() + waiting_bytes_;
}

void
EventStream::on_dropped()
{
  has_lost_ = true;
}

/* send() calls this function when the message is written, so a loop sends the states instead of a recursion.
 */
void
EventStream::on_idle()
{
  if (is_in_loop_) {
    return;
  }
  is_in_loop_ = true;
  while (is_idle() && send_next()) {
  }
  is_in_loop_ = false;
}

/* Returns: whether there was something to send */
bool
EventStream::send_next()
{
  if (!is_sending_states_ && !has_lost_) {
    return false;
  }
  if (!is_sending_states_) {
    has_lost_ = false;
    is_sending_states_ = true;
    sent_ = 0;
    last_ = store_->newest_property();
    send(shared_text_count(EVENTS_RESYNC));
    return true;
  }
  const std::optional<EventStore::State> state = store_->state_after(sent_, last_);
  if (state.has_value()) {
    sent_ = state->property;
    send(shared_text_count(state->text));
    return true;
  }
  is_sending_states_ = false;
  send(shared_text_count(EVENTS_CURRENT));
  send_waiting();
  return true;
}

void
EventStream::send_waiting()
{
  for (const SharedText &text : waiting_) {
    send(text);
  }
  discard_waiting();
}

} // namespace receiver

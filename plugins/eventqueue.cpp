/* SPDX-License-Identifier: MIT */
#include "eventqueue.h"

namespace plugins
{

namespace
{

bool
is_deletion(const ReceiverEvent &event)
{
  return event.message.operation == OPERATION_DELETED;
}

/* In one element, a prefix has one namespace. */
bool
add_namespaces(const ReceiverEvent &event, std::map<std::string, std::string> *namespaces)
{
  for (const auto &[prefix, uri] : event.namespaces) {
    if (namespaces->try_emplace(prefix, uri).first->second != uri) {
      return false;
    }
  }
  return true;
}

} // namespace

/**
 * EventQueue::add:
 * @event: an event
 */
void
EventQueue::add(const SharedEvent &event)
{
  if (needs_states_ && !is_deletion(*event)) {
    return;
  }
  events_.push_back({event, event->size});
  bytes_ += event->size;
  if (!needs_states_ && is_too_long()) {
    drop_all_but_deletions();
    needs_states_ = true;
  }
  while (is_too_long()) {
    bytes_ -= events_.front().bytes;
    events_.pop_front();
  }
}

bool
EventQueue::is_too_long() const
{
  return events_.size() > EVENT_QUEUE_MAX_EVENTS || bytes_ > EVENT_QUEUE_MAX_BYTES;
}

void
EventQueue::drop_all_but_deletions()
{
  std::erase_if(events_, [](const Queued &queued) { return !is_deletion(*queued.event); });
  bytes_ = 0;
  for (const Queued &queued : events_) {
    bytes_ += queued.bytes;
  }
}

/**
 * EventQueue::add_states:
 * @states: the present states
 */
void
EventQueue::add_states(const std::vector<SharedEvent> &states)
{
  if (events_.size() + states.size() > EVENT_QUEUE_MAX_EVENTS) {
    drop_all_but_deletions();
  }
  for (const SharedEvent &state : states) {
    events_.push_back({state, 0});
  }
  needs_states_ = false;
}

/**
 * EventQueue::take_batch:
 *
 * Takes the next events, of which no two have different namespaces for a prefix.
 *
 * Returns: the events for one buffer
 */
std::vector<SharedEvent>
EventQueue::take_batch()
{
  std::vector<SharedEvent> batch;
  std::map<std::string, std::string> namespaces;
  gsize bytes = 0;
  while (!events_.empty() && batch.size() < EVENT_BATCH_MAX_EVENTS) {
    const Queued &next = events_.front();
    bytes += next.event->size;
    if (!batch.empty() && (bytes > EVENT_BATCH_MAX_BYTES || !add_namespaces(*next.event, &namespaces))) {
      return batch;
    }
    add_namespaces(*next.event, &namespaces);
    batch.push_back(next.event);
    bytes_ -= next.bytes;
    events_.pop_front();
  }
  return batch;
}

/**
 * EventQueue::clear:
 *
 * Drops all events.
 */
void
EventQueue::clear()
{
  events_.clear();
  bytes_ = 0;
  needs_states_ = false;
}

/**
 * EventQueue::is_empty:
 *
 * Returns: whether no event waits
 */
bool
EventQueue::is_empty() const
{
  return events_.empty();
}

/**
 * EventQueue::needs_states:
 *
 * Returns: whether events were dropped and the states have to follow
 */
bool
EventQueue::needs_states() const
{
  return needs_states_;
}

} // namespace plugins

/* SPDX-License-Identifier: MIT */
#include "eventtable.h"

/* A reader that gets the states and then all published events knows at any time which properties exist. Three
 * things take a property away: its event Deleted; the receiver's states after a loss, which do not have it
 * any more; and the end of the receiver. The last two become an event Deleted with the last data. */

namespace plugins
{

namespace
{

SharedEvent
with_operation(const SharedEvent &event, const char *operation)
{
  if (event->message.operation == operation) {
    return event;
  }
  auto copy = std::make_shared<ReceiverEvent>(*event);
  copy->message.operation = operation;
  return copy;
}

bool
is_same(const ReceiverEvent &one, const ReceiverEvent &other)
{
  const auto same_item = [](const onvif::EventItem &left, const onvif::EventItem &right) {
    return left.name == right.name && left.value == right.value;
  };
  return one.message.utc == other.message.utc && one.namespaces == other.namespaces &&
         std::equal(one.message.data.begin(), one.message.data.end(), other.message.data.begin(),
                    other.message.data.end(), same_item);
}

/* Twice what a property counts at the receiver in addition to texts and items. */
static_assert(sizeof(ReceiverEvent) <= 2 * 128);

gsize
cost_of(const ReceiverEvent &event)
{
  return sizeof event + event.size +
         (event.message.source.size() + event.message.data.size()) * sizeof(onvif::EventItem);
}

} // namespace

/**
 * EventTable:
 * @publish: called with each event for readers
 */
EventTable::EventTable(Publish publish) : publish_(std::move(publish))
{
}

/**
 * EventTable::apply:
 * @message: the next message of the receiver
 *
 * Returns: %false if the states exceed a limit, or the message cannot come now
 */
bool
EventTable::apply(const ReceiverMessage &message)
{
  switch (message.kind) {
  case ReceiverMessage::Kind::EVENT:
    return apply_event(message.event);
  case ReceiverMessage::Kind::CURRENT:
    if (is_current_) {
      return false;
    }
    complete();
    return true;
  case ReceiverMessage::Kind::RESYNC:
    if (!is_current_) {
      return false;
    }
    is_current_ = false;
    for (auto &[property, entry] : entries_) {
      entry.is_stale = true;
    }
    return true;
  }
  return false;
}

bool
EventTable::apply_event(const SharedEvent &event)
{
  if (event->property.empty()) {
    publish_(event);
    return true;
  }
  if (event->message.operation != OPERATION_DELETED) {
    return set_state(event);
  }
  const auto found = entries_.find(event->property);
  if (found != entries_.end()) {
    remove(found);
    publish_(event);
  }
  return true;
}

/* A property that readers know already changes, even if it is new to the receiver. */
bool
EventTable::set_state(const SharedEvent &event)
{
  const auto found = entries_.find(event->property);
  const gsize before = found != entries_.end() ? cost_of(*found->second.state) : 0;
  const gsize after = cost_of(*event);
  if ((found == entries_.end() && entries_.size() >= EVENT_TABLE_MAX_PROPERTIES) ||
      bytes_ - before + after > EVENT_TABLE_MAX_BYTES) {
    return false;
  }
  const SharedEvent state = with_operation(event, OPERATION_INITIALIZED);
  const bool is_known =
      found != entries_.end() && found->second.is_stale && is_same(*found->second.state, *event);
  bytes_ += after - before;
  entries_[event->property] = {state, false};
  if (!is_known) {
    publish_(before != 0 ? event : state);
  }
  return true;
}

/* The receiver has sent all states. */
void
EventTable::complete()
{
  is_current_ = true;
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const auto next = std::next(entry);
    if (entry->second.is_stale) {
      auto gone = std::make_shared<ReceiverEvent>(*with_operation(entry->second.state, OPERATION_DELETED));
      gone->message.utc = g_get_real_time();
      remove(entry);
      publish_(gone);
    }
    entry = next;
  }
}

void
EventTable::remove(std::map<std::string, Entry>::iterator entry)
{
  bytes_ -= cost_of(*entry->second.state);
  entries_.erase(entry);
}

/**
 * EventTable::clear:
 *
 * Deletes all properties: the receiver has gone.
 */
void
EventTable::clear()
{
  for (auto &[property, entry] : entries_) {
    entry.is_stale = true;
  }
  complete();
  is_current_ = false;
}

/**
 * EventTable::is_current:
 *
 * Returns: whether the receiver has sent all states
 */
bool
EventTable::is_current() const
{
  return is_current_;
}

/**
 * EventTable::states:
 *
 * Returns: the present states, each with the operation Initialized
 */
std::vector<SharedEvent>
EventTable::states() const
{
  std::vector<SharedEvent> states;
  states.reserve(entries_.size());
  for (const auto &[property, entry] : entries_) {
    states.push_back(entry.state);
  }
  return states;
}

} // namespace plugins

/* SPDX-License-Identifier: MIT */
/* A property has an entry until the broker has acknowledged its deletion, so that a broker that comes back
 * gets that, too. The deletion of a property that the broker cannot have is forgotten while the broker is
 * away.
 */
#include "statetable.h"

#include "mqttlimits.h"

namespace mqtt
{

namespace
{

constexpr std::string_view TIME_BEGIN = "{\"UtcTime\":\"";

/* Returns: the text of an event without its time, which is first in it */
std::string_view
without_time(std::string_view event)
{
  if (!event.starts_with(TIME_BEGIN)) {
    return event;
  }
  gsize end = event.find('"', TIME_BEGIN.size());
  return end == event.npos ? event : event.substr(end);
}

} // namespace

bool
StateTable::has(const std::string &topic) const
{
  return states_.contains(topic);
}

/**
 * StateTable::fits:
 * @topic: the topic of a property
 * @payload: its state
 *
 * Returns: whether set() keeps the limits
 */
bool
StateTable::fits(const std::string &topic, const std::string &payload) const
{
  auto found = states_.find(topic);
  gsize before = found == states_.end() ? 0 : topic.size() + found->second.payload.size();
  return (found != states_.end() || states_.size() < MQTT_STATES_MAX) &&
         bytes_ - before + topic.size() + payload.size() <= MQTT_STATES_BYTES_MAX;
}

/**
 * StateTable::set:
 * @topic: the topic of a property
 * @payload: its state; empty if it is deleted
 * @is_initial: whether the daemon has sent it to show all properties
 *
 * Returns: whether to publish it
 */
bool
StateTable::set(const std::string &topic, const std::string &payload, bool is_initial)
{
  auto [entry, is_new] = states_.try_emplace(topic);
  State *state = &entry->second;
  state->is_seen = true;
  if (is_new) {
    bytes_ += topic.size();
    state->is_sent = payload.empty(); /* by an earlier run of this program */
  } else if ((is_initial || payload.empty()) && without_time(state->payload) == without_time(payload)) {
    return false;
  }
  replace_payload(&*entry, payload);
  return true;
}

/**
 * StateTable::mark_all_unseen:
 *
 * A new stream of the daemon begins.
 */
void
StateTable::mark_all_unseen()
{
  for (auto &[topic, state] : states_) {
    state.is_seen = false;
  }
}

/**
 * StateTable::delete_unseen:
 * @on_deleted: called for each property that the stream has not shown
 */
void
StateTable::delete_unseen(const StateFunction &on_deleted)
{
  for (auto &entry : states_) {
    if (!entry.second.is_seen && !entry.second.payload.empty()) {
      replace_payload(&entry, {});
      on_deleted(entry.first, entry.second.payload);
    }
  }
}

/**
 * StateTable::add_waiting:
 * @topic: the topic of a known property
 *
 * A message of the property waits for the broker.
 */
void
StateTable::add_waiting(const std::string &topic)
{
  states_.find(topic)->second.waiting++;
}

/**
 * StateTable::mark_sent:
 * @topic: the topic of a property
 *
 * The broker may have a state of the property.
 */
void
StateTable::mark_sent(const std::string &topic)
{
  states_.find(topic)->second.is_sent = true;
}

/**
 * StateTable::drop_waiting:
 * @topic: the topic of a property
 *
 * A message of the property does not wait for the broker any more.
 */
void
StateTable::drop_waiting(const std::string &topic)
{
  auto found = states_.find(topic);
  found->second.waiting--;
  if (found->second.waiting == 0 && found->second.payload.empty()) {
    erase(found);
  }
}

/**
 * StateTable::drop_all_waiting:
 *
 * The broker is away, and no message waits for it.
 */
void
StateTable::drop_all_waiting()
{
  for (auto entry = states_.begin(); entry != states_.end();) {
    auto current = entry++;
    current->second.waiting = 0;
    forget_if_over(current);
  }
}

/**
 * StateTable::forget_unsent:
 * @topic: the topic of a property of which no message waits
 *
 * Forgets a deleted property of which the broker has no state.
 */
void
StateTable::forget_unsent(const std::string &topic)
{
  forget_if_over(states_.find(topic));
}

/* Forgets a property that is deleted and not at the broker. */
void
StateTable::forget_if_over(States::iterator entry)
{
  const State &state = entry->second;
  if (state.payload.empty() && !state.is_sent && state.waiting == 0) {
    erase(entry);
  }
}

void
StateTable::erase(States::iterator entry)
{
  bytes_ -= entry->first.size() + entry->second.payload.size();
  states_.erase(entry);
}

void
StateTable::replace_payload(States::value_type *entry, const std::string &payload)
{
  bytes_ += payload.size();
  bytes_ -= entry->second.payload.size();
  entry->second.payload = payload;
}

/**
 * StateTable::foreach:
 * @function: called for each property, also for those that are deleted; must not change the table
 */
void
StateTable::foreach (const StateFunction &function) const
{
  for (const auto &[topic, state] : states_) {
    function(topic, state.payload);
  }
}

} // namespace mqtt

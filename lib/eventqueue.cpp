/* SPDX-License-Identifier: MIT */
/* While the receiver is away, only the last state of each property counts. Of all other events, the newest
 * stay, and so do the newest deletions: an application can delete any number of properties one after the
 * other.
 */
#include "eventqueue.h"

#include <algorithm>
#include <utility>

namespace
{

gboolean
is_deletion(const Event &event)
{
  return event.is_property && event.operation == EVENT_DELETED;
}

gboolean
is_no_property(const Event &event)
{
  return !event.is_property;
}

} // namespace

/**
 * event_key:
 * @event: an event
 *
 * Returns: a text that two events have in common if they are of the same property
 */
std::string
event_key(const Event &event)
{
  std::string key = event.topic;

  for (const auto &[name, value] : event.source) {
    key.append(1, '\0').append(name).append(1, '\0').append(value);
  }
  return key;
}

gboolean
EventQueue::is_empty() const
{
  return events.empty();
}

/**
 * EventQueue::has_property:
 * @key: a property
 *
 * Returns: whether a state of the property waits
 */
gboolean
EventQueue::has_property(const std::string &key) const
{
  return std::any_of(events.begin(), events.end(),
                     [&key](const Event &event) { return event.is_property && event_key(event) == key; });
}

/**
 * EventQueue::push:
 * @event: an event
 * @is_away: whether the receiver is away
 *
 * Returns: the events that are dropped for it
 */
std::vector<Event>
EventQueue::push(Event event, gboolean is_away)
{
  std::vector<Event> dropped;

  if (event.is_property && (is_away || events.size() >= TESSARD_EVENTS_MAX_QUEUED)) {
    remove_property(event_key(event), &dropped);
  }
  count(event, 1);
  if (!event.is_property && others > TESSARD_EVENTS_MAX_QUEUED) {
    remove_oldest(is_no_property, &dropped);
  } else if (is_deletion(event) && deletions > TESSARD_EVENTS_MAX_PROPERTIES) {
    remove_oldest(is_deletion, &dropped);
  }
  events.push_back(std::move(event));
  return dropped;
}

/**
 * EventQueue::put_back:
 * @event: an event that is older than those of the queue
 */
void
EventQueue::put_back(Event event)
{
  count(event, 1);
  events.push_front(std::move(event));
}

/**
 * EventQueue::pop:
 *
 * Returns: the oldest event; the queue must not be empty
 */
Event
EventQueue::pop()
{
  Event event = std::move(events.front());

  events.pop_front();
  count(event, -1);
  return event;
}

/**
 * EventQueue::clear:
 *
 * Returns: the events that are dropped
 */
std::vector<Event>
EventQueue::clear()
{
  std::vector<Event> dropped(std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));

  events.clear();
  others = 0;
  deletions = 0;
  return dropped;
}

/* Counts an event that comes or goes. */
void
EventQueue::count(const Event &event, gint change)
{
  others += is_no_property(event) ? change : 0;
  deletions += is_deletion(event) ? change : 0;
}

void
EventQueue::remove_property(const std::string &key, std::vector<Event> *dropped)
{
  const auto kept = std::stable_partition(events.begin(), events.end(), [&key](const Event &event) {
    return !event.is_property || event_key(event) != key;
  });

  std::for_each(kept, events.end(), [this](const Event &event) { count(event, -1); });
  std::move(kept, events.end(), std::back_inserter(*dropped));
  events.erase(kept, events.end());
}

void
EventQueue::remove_oldest(gboolean (*matches)(const Event &event), std::vector<Event> *dropped)
{
  const auto oldest = std::find_if(events.begin(), events.end(), matches);

  count(*oldest, -1);
  dropped->push_back(std::move(*oldest));
  events.erase(oldest);
}

/* SPDX-License-Identifier: MIT */
#pragma once

#include <deque>
#include <functional>
#include <glib.h>
#include <map>
#include <string>
#include <vector>

/**
 * TESSARD_EVENTS_MAX_QUEUED:
 *
 * How many events that are no states of properties can wait for the receiver. Then the oldest are dropped.
 */
#define TESSARD_EVENTS_MAX_QUEUED 1000

/**
 * TESSARD_EVENTS_MAX_PROPERTIES:
 *
 * How many properties an object can have. The receiver accepts no more of an application. As many deletions
 * of properties can wait for the receiver.
 */
#define TESSARD_EVENTS_MAX_PROPERTIES 1024

/* The operation that ends a property. */
#define EVENT_DELETED "Deleted"

using EventItems = std::map<std::string, std::string>;

struct Event {
  /* Called on any thread with the error, or NULL. */
  using Function = std::function<void(const GError *error)>;

  std::string topic;
  gboolean is_property = FALSE;
  std::string operation;
  EventItems source;
  EventItems data;
  gint64 time = 0; /* microseconds since 1970 */
  guint64 serial = 0;
  Function function; /* can be empty */
};

/* The property that an event belongs to: its topic and source. */
std::string event_key(const Event &event);

/* Events that wait for the receiver. Not for several threads at once. */
class EventQueue
{
public:
  gboolean is_empty() const;
  gboolean has_property(const std::string &key) const;
  std::vector<Event> push(Event event, gboolean is_away);
  void put_back(Event event);
  Event pop();
  std::vector<Event> clear();

private:
  void count(const Event &event, gint change);
  void remove_property(const std::string &key, std::vector<Event> *dropped);
  void remove_oldest(gboolean (*matches)(const Event &event), std::vector<Event> *dropped);

  std::deque<Event> events;
  gint others = 0;    /* those that are no states of properties */
  gint deletions = 0; /* those of properties */
};

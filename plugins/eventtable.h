/* SPDX-License-Identifier: MIT */
#pragma once

#include "receiverevent.h"

#include <functional>
#include <set>

namespace plugins
{

/* The limits of the present states. They hold all that the receiver can send: it has as many properties, and
 * half of the bytes, of which each property counts the same texts and items, and 128 in addition. */
constexpr gsize EVENT_TABLE_MAX_PROPERTIES = 8192;
constexpr gsize EVENT_TABLE_MAX_BYTES = 32 * 1024 * 1024;

/* The present states of all properties, and the events that bring a reader from one state to the next. */
class EventTable
{
public:
  using Publish = std::function<void(const SharedEvent &event)>;

  explicit EventTable(Publish publish);
  EventTable(const EventTable &) = delete;
  EventTable &operator=(const EventTable &) = delete;

  bool apply(const ReceiverMessage &message);
  void clear();

  bool is_current() const;
  std::vector<SharedEvent> states() const;

private:
  struct Entry {
    SharedEvent state; /* with the operation Initialized */
    bool is_stale;     /* since the receiver sends the states again */
  };

  bool apply_event(const SharedEvent &event);
  bool set_state(const SharedEvent &event);
  void complete();
  void remove(std::map<std::string, Entry>::iterator entry);

  const Publish publish_;
  std::map<std::string, Entry> entries_; /* by property */
  gsize bytes_ = 0;
  bool is_current_ = false;
};

} // namespace plugins

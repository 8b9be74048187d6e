/* SPDX-License-Identifier: MIT */
#pragma once

#include "receiverevent.h"

#include <deque>

namespace plugins
{

/* The events that wait for one element. The states that it sends at its start and at a sync point are not
 * counted in bytes, because the table of states holds them. */
constexpr gsize EVENT_QUEUE_MAX_EVENTS = 16384;
constexpr gsize EVENT_QUEUE_MAX_BYTES = 4 * 1024 * 1024;

/* What an element sends in one buffer; one event is always possible. */
constexpr gsize EVENT_BATCH_MAX_EVENTS = 512;
constexpr gsize EVENT_BATCH_MAX_BYTES = 256 * 1024;

/* The events that wait for one element. If there are too many, it loses all but those that delete properties,
 * and needs the states again. */
class EventQueue
{
public:
  void add(const SharedEvent &event);
  void add_states(const std::vector<SharedEvent> &states);
  std::vector<SharedEvent> take_batch();
  void clear();

  bool is_empty() const;
  bool needs_states() const;

private:
  struct Queued {
    SharedEvent event;
    gsize bytes;
  };

  void drop_all_but_deletions();
  bool is_too_long() const;

  std::deque<Queued> events_;
  gsize bytes_ = 0;
  bool needs_states_ = false;
};

} // namespace plugins

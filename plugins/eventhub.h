/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventqueue.h"
#include "eventtable.h"

#include <gio/gio.h>

namespace plugins
{

class EventReader;

/* The receiver's events, for all elements of the process: one thread, one connection to the bus, one stream
 * and one table of states, while there is an element that runs. Any thread. */
class EventHub
{
public:
  static std::shared_ptr<EventHub> get();

  EventHub();
  ~EventHub();
  EventHub(const EventHub &) = delete;
  EventHub &operator=(const EventHub &) = delete;

private:
  friend class EventReader;

  static gpointer run(gpointer user_data);

  bool deliver(std::string_view text);
  void begin();
  void clear();
  void publish(const SharedEvent &event);
  void settle();

  GMainContext *context_;        /* owned */
  GMainLoop *loop_;              /* owned */
  GCancellable *cancellable_;    /* owned */
  simdjson::dom::parser parser_; /* of the thread */

  GMutex lock_; /* guards the rest, and the queues of all readers */
  std::set<EventReader *> readers_;
  bool is_settled_ = false; /* whether the states are known, or there is no receiver */
  EventTable table_;

  GThread *thread_; /* joined; started last */
};

/* One element's view of the events. */
class EventReader
{
public:
  using Wake = std::function<void()>;

  explicit EventReader(Wake wake);
  ~EventReader();
  EventReader(const EventReader &) = delete;
  EventReader &operator=(const EventReader &) = delete;

  bool is_settled() const;
  void begin();
  void add_states();
  std::vector<SharedEvent> take_batch(bool *has_more);

private:
  friend class EventHub;

  const Wake wake_;
  const std::shared_ptr<EventHub> hub_;
  EventQueue queue_; /* guarded by the hub's lock */
};

} // namespace plugins

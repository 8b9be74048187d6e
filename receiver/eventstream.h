/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventstore.h"
#include "stream.h"

namespace receiver
{

/* One stream of events: the present states, then the events. Main thread only. */
class EventStream : public Stream
{
public:
  EventStream(int fd, Ended ended, const EventStore *store);

  void send_states();
  void send_event(const SharedText &text, guint64 property);
  void abort(const char *reason) override;
  gsize queued_bytes() const override;

protected:
  void on_idle() override;
  void on_dropped() override;

private:
  bool send_next();
  void send_waiting();
  void keep(const SharedText &text);
  void discard_waiting();

  const EventStore *store_;
  bool is_sending_states_ = true;
  bool is_in_loop_ = false;
  bool has_lost_ = false; /* events, so that the states follow again */
  bool is_aborted_ = false;
  guint64 sent_ = 0;               /* the number of the last property whose state is sent */
  guint64 last_ = 0;               /* the number of the last property whose state is to be sent */
  std::deque<SharedText> waiting_; /* events that follow the states */
  gsize waiting_bytes_ = 0;
};

} // namespace receiver

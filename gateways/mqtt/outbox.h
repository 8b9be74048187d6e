/* SPDX-License-Identifier: MIT */
#pragma once

#include "framequeue.h"
#include "statetable.h"

/* What waits for the broker.
 *
 * Any thread can call the functions, except those for the broker's thread, which are marked. */

namespace mqtt
{

struct Dropped {
  guint64 events = 0;
  guint64 frames = 0;
};

class Outbox
{
public:
  explicit Outbox(gint64 frame_interval_us);
  ~Outbox();
  Outbox(const Outbox &) = delete;
  Outbox &operator=(const Outbox &) = delete;

  void begin_stream(gint64 now_us);
  void set_state(const std::string &topic, const std::string &payload, bool is_initial);
  void add_event(std::string topic, std::string payload);
  void add_frame(std::string topic, std::string payload);
  void count_dropped(MessageKind kind);
  Dropped dropped() const;

  /* for the broker's thread */
  void connect(gint64 now_us);
  void disconnect();
  const Message *take(gint64 now_us, gint64 *due_us);
  void acknowledge(guint64 id);
  bool has_events() const;

private:
  void queue_state(const std::string &topic, const std::string &payload);
  void queue_states();
  void drop_old_changes();
  void drop_old_events();
  void settle(gint64 now_us);
  void put_back(Message message);
  std::optional<Message> pop_event();
  std::optional<Message> pop(gint64 now_us, gint64 *due_us);

  mutable GMutex lock_;
  bool is_connected_ = false;
  guint64 last_id_ = 0;
  StateTable states_;
  std::deque<Message> changes_; /* of states; empty while the broker is away */
  gsize changes_bytes_ = 0;
  std::deque<Message> events_;
  gsize events_bytes_ = 0;
  FrameQueue frames_;
  bool is_frames_turn_ = false;
  std::map<guint64, Message> in_flight_;
  gsize in_flight_bytes_ = 0;
  gint64 settled_us_ = G_MAXINT64; /* when the daemon's stream has shown all properties */
  Dropped dropped_;
};

} // namespace mqtt

/* SPDX-License-Identifier: MIT */
/* While the broker is there, every change of a property waits for it, in the order of all events. While it is
 * away, the table of states has what counts, and all of it waits when the broker comes back. Events and
 * frames take turns, so that neither waits for the end of the other.
 *
 * A message is in flight from the moment when the broker's thread takes it until the broker acknowledges it.
 * When the broker goes away before, an event waits again, before the others; a frame only if it is the newest
 * of its topic.
 */
#include "outbox.h"

#include "mqttlimits.h"

#include <unordered_set>

namespace mqtt
{

static_assert(MQTT_STATES_MAX < MQTT_CHANGES_MAX && MQTT_STATES_BYTES_MAX < MQTT_CHANGES_BYTES_MAX,
              "the last change of each property fits");

/**
 * Outbox:
 * @frame_interval_us: the time between two frames of a topic, in microseconds; 0 without a limit
 */
Outbox::Outbox(gint64 frame_interval_us) : frames_(frame_interval_us)
{
  g_mutex_init(&lock_);
}

Outbox::~Outbox()
{
  g_mutex_clear(&lock_);
}

/**
 * Outbox::begin_stream:
 * @now_us: monotonic time
 *
 * A new stream of the daemon begins, which shows all properties.
 */
void
Outbox::begin_stream(gint64 now_us)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  states_.mark_all_unseen();
  settled_us_ = now_us + MQTT_SETTLE_SECONDS * G_TIME_SPAN_SECOND;
}

/**
 * Outbox::set_state:
 * @topic: the topic of a property
 * @payload: its state; empty if it is deleted
 * @is_initial: whether the daemon has sent it to show all properties; one that is known is not published
 *
 * A state that exceeds the limits deletes its property.
 */
void
Outbox::set_state(const std::string &topic, const std::string &payload, bool is_initial)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  bool fits = states_.fits(topic, payload);
  if (!fits) {
    dropped_.events++;
  }
  if (!fits && !states_.has(topic)) {
    return;
  }
  const std::string &kept = fits ? payload : std::string();
  if (states_.set(topic, kept, is_initial && fits)) {
    queue_state(topic, kept);
  }
}

/**
 * Outbox::add_event:
 * @topic: the topic of an event without a state
 * @payload: the event
 */
void
Outbox::add_event(std::string topic, std::string payload)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  events_.push_back({++last_id_, MessageKind::EVENT, std::move(topic), std::move(payload)});
  events_bytes_ += events_.back().size();
  drop_old_events();
}

/**
 * Outbox::add_frame:
 * @topic: the topic of a module
 * @payload: a frame or a PTZ status
 */
void
Outbox::add_frame(std::string topic, std::string payload)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  Message frame = {++last_id_, MessageKind::FRAME, std::move(topic), std::move(payload)};
  dropped_.frames += frames_.push(std::move(frame), !is_connected_);
}

/**
 * Outbox::count_dropped:
 * @kind: what is not published
 */
void
Outbox::count_dropped(MessageKind kind)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  (kind == MessageKind::FRAME ? dropped_.frames : dropped_.events)++;
}

/**
 * Outbox::dropped:
 *
 * Returns: what was dropped since the begin
 */
Dropped
Outbox::dropped() const
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  return dropped_;
}

/**
 * Outbox::connect:
 * @now_us: monotonic time
 *
 * The broker is there: all states wait for it.
 */
void
Outbox::connect(gint64 now_us)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  settle(now_us);
  is_connected_ = true;
  queue_states();
}

/**
 * Outbox::disconnect:
 *
 * The broker is away, or does not come.
 */
void
Outbox::disconnect()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  is_connected_ = false;
  changes_.clear();
  changes_bytes_ = 0;
  states_.drop_all_waiting();
  while (!in_flight_.empty()) {
    put_back(std::move(in_flight_.extract(std::prev(in_flight_.end())).mapped()));
  }
  in_flight_bytes_ = 0;
  drop_old_events();
  dropped_.frames += frames_.keep_newest();
}

/**
 * Outbox::take:
 * @now_us: monotonic time
 * @due_us: (out): without a message, the time when there may be one; %G_MAXINT64 if none is known
 *
 * Returns: (nullable): the next message, which is in flight then; valid until it is acknowledged, or the
 *   broker is away
 */
const Message *
Outbox::take(gint64 now_us, gint64 *due_us)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  settle(now_us);
  *due_us = settled_us_;
  if (in_flight_.size() >= MQTT_IN_FLIGHT_MAX || in_flight_bytes_ >= MQTT_IN_FLIGHT_BYTES_MAX) {
    return nullptr;
  }
  std::optional<Message> message = pop(now_us, due_us);
  if (!message.has_value()) {
    return nullptr;
  }
  if (message->kind == MessageKind::STATE) {
    states_.mark_sent(message->topic);
  }
  in_flight_bytes_ += message->size();
  return &in_flight_.emplace(message->id, std::move(*message)).first->second;
}

/**
 * Outbox::acknowledge:
 * @id: the id of a message that is in flight
 *
 * The broker has the message.
 */
void
Outbox::acknowledge(guint64 id)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  auto message = in_flight_.extract(id);
  in_flight_bytes_ -= message.mapped().size();
  if (message.mapped().kind == MessageKind::STATE) {
    states_.drop_waiting(message.mapped().topic);
  }
}

/**
 * Outbox::has_events:
 *
 * Returns: whether events wait or messages are in flight
 */
bool
Outbox::has_events() const
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  return !changes_.empty() || !events_.empty() || !in_flight_.empty();
}

/* The private functions are called with the lock held. */

void
Outbox::queue_state(const std::string &topic, const std::string &payload)
{
  if (!is_connected_) {
    states_.forget_unsent(topic);
    return;
  }
  changes_.push_back({++last_id_, MessageKind::STATE, topic, payload});
  changes_bytes_ += changes_.back().size();
  states_.add_waiting(topic);
  if (changes_.size() > MQTT_CHANGES_MAX || changes_bytes_ > MQTT_CHANGES_BYTES_MAX) {
    drop_old_changes();
  }
}

void
Outbox::queue_states()
{
  std::vector<std::pair<std::string, std::string>> states;
  states_.foreach (
      [&states](const auto &topic, const auto &payload) { states.emplace_back(topic, payload); });
  for (const auto &[topic, payload] : states) {
    queue_state(topic, payload);
  }
}

/* Keeps the last change of each property. */
void
Outbox::drop_old_changes()
{
  std::unordered_set<std::string> topics;
  std::deque<Message> last;
  changes_bytes_ = 0;
  for (; !changes_.empty(); changes_.pop_back()) {
    Message *change = &changes_.back();
    if (!topics.insert(change->topic).second) {
      states_.drop_waiting(change->topic);
      dropped_.events++;
      continue;
    }
    changes_bytes_ += change->size();
    last.push_front(std::move(*change));
  }
  changes_ = std::move(last);
}

void
Outbox::drop_old_events()
{
  while (events_.size() > MQTT_EVENTS_MAX || events_bytes_ > MQTT_EVENTS_BYTES_MAX) {
    events_bytes_ -= events_.front().size();
    events_.pop_front();
    dropped_.events++;
  }
}

/* Deletes the properties that the daemon's new stream has not shown in its time. */
void
Outbox::settle(gint64 now_us)
{
  if (now_us < settled_us_) {
    return;
  }
  settled_us_ = G_MAXINT64;
  std::vector<std::string> deleted;
  states_.delete_unseen([&deleted](const auto &topic, const auto &) { deleted.push_back(topic); });
  for (const std::string &topic : deleted) {
    queue_state(topic, {});
  }
}

void
Outbox::put_back(Message message)
{
  if (message.kind == MessageKind::EVENT) {
    events_bytes_ += message.size();
    events_.push_front(std::move(message));
  } else if (message.kind == MessageKind::FRAME && !frames_.put_back(std::move(message))) {
    dropped_.frames++;
  }
}

/* Returns: the oldest event or change of a state */
std::optional<Message>
Outbox::pop_event()
{
  if (changes_.empty() && events_.empty()) {
    return {};
  }
  bool is_change = events_.empty() || (!changes_.empty() && changes_.front().id < events_.front().id);
  std::deque<Message> *queue = is_change ? &changes_ : &events_;
  Message message = std::move(queue->front());
  queue->pop_front();
  (is_change ? changes_bytes_ : events_bytes_) -= message.size();
  return message;
}

std::optional<Message>
Outbox::pop(gint64 now_us, gint64 *due_us)
{
  is_frames_turn_ = !is_frames_turn_;
  std::optional<Message> message = is_frames_turn_ ? frames_.pop(now_us, due_us) : pop_event();
  if (!message.has_value()) {
    message = is_frames_turn_ ? pop_event() : frames_.pop(now_us, due_us);
  }
  return message;
}

} // namespace mqtt

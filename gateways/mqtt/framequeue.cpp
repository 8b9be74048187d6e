/* SPDX-License-Identifier: MIT */
/* Each topic has frames of its own, and they take turns. With a limit of the rate, and while the broker is
 * away, only the newest frame of a topic waits: what is sent after a pause is what the scene looks like then.
 */
#include "framequeue.h"

#include "mqttlimits.h"

#include <algorithm>

namespace mqtt
{

/**
 * FrameQueue:
 * @interval_us: the time between two frames of a topic, in microseconds; 0 without a limit
 */
FrameQueue::FrameQueue(gint64 interval_us) : interval_us_(interval_us)
{
}

/* Returns: whether there is a place for one more topic, after forgetting the one that was silent for longest
 */
bool
FrameQueue::make_place()
{
  if (modules_.size() < MQTT_MODULES_MAX) {
    return true;
  }
  auto silent = std::min_element(modules_.begin(), modules_.end(), [](const auto &one, const auto &other) {
    return std::pair(!one.second.frames.empty(), one.second.due_us) <
           std::pair(!other.second.frames.empty(), other.second.due_us);
  });
  if (!silent->second.frames.empty()) {
    return false;
  }
  modules_.erase(silent);
  return true;
}

void
FrameQueue::pop_oldest(Module *module)
{
  bytes_ -= module->frames.front().size();
  module->frames.pop_front();
}

/* Returns: the number of frames that were too many */
gsize
FrameQueue::cut(Module *module, gsize frames_max)
{
  gsize dropped = 0;
  for (; module->frames.size() > frames_max; dropped++) {
    pop_oldest(module);
  }
  return dropped;
}

/**
 * FrameQueue::push:
 * @frame: a frame
 * @is_away: whether the broker is away
 *
 * Returns: the number of frames that are dropped, apart from those that are too frequent
 */
gsize
FrameQueue::push(Message frame, bool is_away)
{
  if (!modules_.contains(frame.topic) && !make_place()) {
    return 1;
  }
  Module *module = &modules_[frame.topic];
  bool is_only_newest = is_away || interval_us_ > 0;
  gsize replaced = cut(module, is_only_newest ? 0 : MQTT_MODULE_FRAMES_MAX - 1);
  gsize dropped = is_away || interval_us_ == 0 ? replaced : 0;
  for (; bytes_ + frame.size() > MQTT_FRAMES_BYTES_MAX && !module->frames.empty(); dropped++) {
    pop_oldest(module);
  }
  if (bytes_ + frame.size() > MQTT_FRAMES_BYTES_MAX) {
    return dropped + 1;
  }
  bytes_ += frame.size();
  module->frames.push_back(std::move(frame));
  return dropped;
}

/**
 * FrameQueue::keep_newest:
 *
 * The broker goes away: the newest frame of each topic stays.
 *
 * Returns: the number of frames that are dropped
 */
gsize
FrameQueue::keep_newest()
{
  gsize dropped = 0;
  for (auto &[topic, module] : modules_) {
    dropped += cut(&module, 1);
  }
  return dropped;
}

/**
 * FrameQueue::put_back:
 * @frame: a frame that was popped and is not sent
 *
 * Returns: whether it is the newest of its topic and waits again
 */
bool
FrameQueue::put_back(Message frame)
{
  auto found = modules_.find(frame.topic);
  if (found == modules_.end() || !found->second.frames.empty()) {
    return false;
  }
  return push(std::move(frame), true) == 0;
}

Message
FrameQueue::take(Modules::iterator module, gint64 now_us)
{
  Message frame = std::move(module->second.frames.front());
  module->second.frames.pop_front();
  bytes_ -= frame.size();
  bool is_late = now_us - module->second.due_us >= interval_us_;
  module->second.due_us = (is_late ? now_us : module->second.due_us) + interval_us_;
  last_ = module->first;
  return frame;
}

/**
 * FrameQueue::pop:
 * @now_us: monotonic time
 * @due_us: (inout): lowered to the time when a frame that waits may be sent
 *
 * Returns: a frame that may be sent
 */
std::optional<Message>
FrameQueue::pop(gint64 now_us, gint64 *due_us)
{
  auto next = modules_.upper_bound(last_);
  for (gsize i = 0; i < modules_.size(); i++, next++) {
    next = next == modules_.end() ? modules_.begin() : next;
    if (next->second.frames.empty()) {
      continue;
    }
    if (next->second.due_us <= now_us) {
      return take(next, now_us);
    }
    *due_us = std::min(*due_us, next->second.due_us);
  }
  return {};
}

} // namespace mqtt

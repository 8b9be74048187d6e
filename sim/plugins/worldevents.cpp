/* SPDX-License-Identifier: MIT */
#include "worldevents.h"

#include <string>

namespace sim
{

using onvif::EventMessage;

namespace
{

constexpr const char *INPUT_TOPIC = "tns1:Device/Trigger/DigitalInput";
constexpr const char *MOTION_TOPIC = "tns1:VideoSource/MotionAlarm";
constexpr const char *CROSSING_TOPIC = "tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed";

constexpr const char *VIDEO_SOURCE = "VideoSource_1";
constexpr const char *VIDEO_SOURCE_CONFIGURATION = "VideoSourceConfiguration_1";
constexpr const char *LINE_RULE = "Line_1";

constexpr const char *INITIALIZED = "Initialized";
constexpr const char *CHANGED = "Changed";

const char *
boolean_text(bool value)
{
  return value ? "true" : "false";
}

const char *
direction_text(Direction direction)
{
  return direction == Direction::LEFT_TO_RIGHT ? "LeftToRight" : "RightToLeft";
}

onvif::EventMessage
input_message(unsigned input, bool state, const char *operation, gint64 utc)
{
  return {.topic = INPUT_TOPIC,
          .operation = operation,
          .utc = utc,
          .source = {{"InputToken", "DigitalInput_" + std::to_string(input + 1)}},
          .data = {{"LogicalState", boolean_text(state)}}};
}

onvif::EventMessage
motion_message(bool state, const char *operation, gint64 utc)
{
  return {.topic = MOTION_TOPIC,
          .operation = operation,
          .utc = utc,
          .source = {{"Source", VIDEO_SOURCE}},
          .data = {{"State", boolean_text(state)}}};
}

onvif::EventMessage
crossing_message(gint64 object_id, Direction direction, gint64 utc)
{
  return {
      .topic = CROSSING_TOPIC,
      .operation = "",
      .utc = utc,
      .source = {{"VideoSourceConfigurationToken", VIDEO_SOURCE_CONFIGURATION}, {"Rule", LINE_RULE}},
      .data = {{"ObjectId", std::to_string(object_id)}, {"Direction", direction_text(direction)}},
  };
}

} // namespace

/**
 * world_event_from_change:
 * @change: a change in the world
 * @settings: the settings, for the conversion of times
 *
 * Returns: the event for @change; unset for moves of the PTZ head, which are part of the PTZ status
 */
std::optional<onvif::EventMessage>
world_event_from_change(const Change &change, const Settings &settings)
{
  gint64 utc = settings_utc(settings, change.time);
  switch (change.type) {
  case ChangeType::INPUT:
    return input_message(change.input, change.state, CHANGED, utc);
  case ChangeType::MOTION:
    return motion_message(change.state, CHANGED, utc);
  case ChangeType::CROSSING:
    return crossing_message(change.object_id, change.direction, utc);
  case ChangeType::PAN_TILT:
  case ChangeType::ZOOM:
    return std::nullopt;
  }
  g_assert_not_reached();
}

/**
 * world_events_of_state:
 * @world: the world
 * @time: the time
 * @settings: the settings, for the conversion of times
 *
 * Returns: one event for each property, with its state at @time
 */
std::vector<onvif::EventMessage>
world_events_of_state(const World &world, WorldTime time, const Settings &settings)
{
  gint64 utc = settings_utc(settings, time);
  std::vector<onvif::EventMessage> messages;
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    messages.push_back(input_message(input, world.input_at(input, time), INITIALIZED, utc));
  }
  messages.push_back(motion_message(world.motion_at(time), INITIALIZED, utc));
  return messages;
}

/**
 * world_event_examples:
 *
 * Returns: one event of each topic, for checking filters
 */
std::vector<onvif::EventMessage>
world_event_examples()
{
  return {input_message(0, true, CHANGED, 0), motion_message(true, CHANGED, 0),
          crossing_message(1, Direction::LEFT_TO_RIGHT, 0)};
}

} // namespace sim

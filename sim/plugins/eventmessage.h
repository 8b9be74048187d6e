#pragma once

#include "settings.h"
#include "world.h"
#include "xml.h"

#include <optional>
#include <string>
#include <vector>

/* What the world's changes and states look like as ONVIF events. */

namespace sim
{

struct EventItem {
  const char *name;
  std::string value;
};

struct EventMessage {
  const char *topic;
  const char *operation; /* of a property: Initialized or Changed; nothing for an event without state */
  gint64 utc;            /* microseconds since 1970 */
  std::vector<EventItem> source;
  std::vector<EventItem> data;
};

std::optional<EventMessage> event_message_from_change(const Change &change, const Settings &settings);
std::vector<EventMessage> event_messages_of_state(const World &world, WorldTime time,
                                                  const Settings &settings);
std::vector<EventMessage> event_message_examples();
xmlDoc *event_message_to_document(const EventMessage &message);
GstBuffer *event_messages_to_fragment(const std::vector<EventMessage> &messages);

} /* namespace sim */

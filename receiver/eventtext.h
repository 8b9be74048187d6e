/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventtopic.h"

namespace receiver
{

/* An event of a topic. */
struct EventValues {
  EventTexts source; /* in the order of the topic's items */
  EventTexts data;
  gint64 time; /* microseconds since 1970 */
};

constexpr const char *EVENTS_CURRENT = R"({"Current":true})";
constexpr const char *EVENTS_RESYNC = R"({"Resync":true})";

std::string event_text(const EventTopic &topic, const char *operation, const EventValues &values);

} // namespace receiver

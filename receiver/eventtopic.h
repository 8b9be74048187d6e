/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace receiver
{

using EventTexts = std::vector<std::string>;
using EventPairs = std::vector<std::pair<std::string, std::string>>;
using EventMap = std::map<std::string, std::string>;

/* An application's declaration of a topic of events. */
struct EventTopic {
  std::string name;
  bool is_property;
  EventPairs source; /* names and types of its items, in the order of the event */
  EventPairs data;
  EventMap namespaces; /* URIs by prefix */

  bool operator==(const EventTopic &) const = default;
  gsize size() const;
};

bool event_topic_check(EventTopic *topic, GError **error);
bool event_items_take(const EventPairs &declared, const EventMap &given, const char *list, EventTexts *values,
                      GError **error);

} // namespace receiver

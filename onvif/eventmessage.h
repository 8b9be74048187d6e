/* SPDX-License-Identifier: MIT */
#pragma once

#include "libxml.h"
#include "xml.h"

#include <gst/gst.h>
#include <span>
#include <string>
#include <vector>

namespace onvif
{

struct EventItem {
  const char *name;
  std::string value;
};

struct EventMessage {
  const char *topic;
  const char *operation; /* of a property: Initialized or Changed; nullptr for an event without state */
  gint64 utc;            /* microseconds since 1970 */
  std::vector<EventItem> source;
  std::vector<EventItem> data;
};

xmlDoc *event_message_to_document(const EventMessage &message);
GstBuffer *event_messages_to_fragment(const std::vector<EventMessage> &messages,
                                      std::span<const XmlNamespace> topics);

} // namespace onvif

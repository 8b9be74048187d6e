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
  std::string name;
  std::string value;
};

struct EventMessage {
  std::string topic;
  std::string
      operation; /* of a property: Initialized, Changed or Deleted; empty for an event without state */
  gint64 utc;    /* microseconds since 1970 */
  std::vector<EventItem> source;
  std::vector<EventItem> data;
};

std::vector<EventMessage> event_message_examples();
xmlDoc *event_message_to_document(const EventMessage &message);
GstBuffer *event_messages_to_fragment(const std::vector<EventMessage> &messages,
                                      std::span<const XmlNamespace> topics);

} // namespace onvif

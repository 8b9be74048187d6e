/* SPDX-License-Identifier: MIT */
/* Events for tests of the parts of onvifeventsrc. */
#pragma once

#include "receiverevent.h"

namespace testevents
{

constexpr const char *MOTION = "tns1:VideoSource/MotionAlarm";

/* An event of a property. */
inline plugins::SharedEvent
state(const std::string &operation, const std::string &source, const std::string &data, gint64 utc = 1)
{
  auto event = std::make_shared<plugins::ReceiverEvent>();
  event->message = {MOTION, operation, utc, {{"Source", source}}, {{"State", data}}};
  event->property = std::string(MOTION) + '\0' + source;
  event->size = source.size() + data.size();
  return event;
}

/* An event without state. */
inline plugins::SharedEvent
plain(const std::string &data)
{
  auto event = std::make_shared<plugins::ReceiverEvent>(*state("", "", data));
  event->property.clear();
  return event;
}

/* The operation, the source and the data. */
inline std::string
summary(const plugins::SharedEvent &event)
{
  const onvif::EventMessage &message = event->message;
  return message.operation + " " + message.source[0].value + " " + message.data[0].value;
}

} // namespace testevents

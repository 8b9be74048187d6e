/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

namespace receiver
{

/* The errors of calls. The name of an error on the bus is com.quon.MetadataReceiver1.Error. and the text of
 * its code in error.cpp. */
enum class Error {
  INVALID_NAME,
  INVALID_NICE_NAME,
  INVALID_CHANNELS,
  INVALID_SAMPLE_FRAME,
  INVALID_OPTION,
  NAME_TAKEN,
  UNKNOWN_PRODUCER,
  NOT_OWNER,
  UNSUPPORTED_CHANNEL,
  CHANNEL_OPEN,
  LIMIT_EXCEEDED,
  NO_DESCRIPTOR,
  INVALID_TOPIC,
  INVALID_ITEMS,
  INVALID_OPERATION,
  INVALID_TIME,
  UNKNOWN_TOPIC,
  UNKNOWN_PROPERTY,
  TOPIC_CONFLICT,
  TOO_MANY_TOPICS,
  TOO_MANY_PROPERTIES,
  EVENT_TOO_LARGE,
  RATE_EXCEEDED,
};

GQuark error_quark();
bool refuse(GError **error, Error code, const char *format, ...) G_GNUC_PRINTF(3, 4);

} // namespace receiver

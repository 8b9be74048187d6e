/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>

namespace mqtt
{

enum class MessageKind {
  STATE, /* of a property; retained */
  EVENT, /* without a state */
  FRAME, /* or a PTZ status */
};

struct Message {
  guint64 id; /* of a later message is higher */
  MessageKind kind;
  std::string topic;
  std::string payload; /* of a deleted property it is empty */

  gsize size() const
  {
    return topic.size() + payload.size();
  }
};

} // namespace mqtt

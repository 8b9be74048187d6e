/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventmessage.h"
#include "jsontext.h"

#include <map>
#include <memory>

/* The events that the metadata receiver sends. */

namespace plugins
{

/* The longest message of a stream of events, without its length. The receiver has the same limit. */
constexpr gsize RECEIVER_EVENT_MAX_BYTES = 65536;

constexpr const char *OPERATION_INITIALIZED = "Initialized";
constexpr const char *OPERATION_CHANGED = "Changed";
constexpr const char *OPERATION_DELETED = "Deleted";

/* An event, which several elements share. */
struct ReceiverEvent {
  onvif::EventMessage message;
  std::map<std::string, std::string> namespaces; /* URIs by prefix */
  std::string property; /* what its property has alone, empty for an event without state */
  gsize size;           /* the bytes of all texts */
};

using SharedEvent = std::shared_ptr<const ReceiverEvent>;

/* A message of the stream: an event, or a mark. */
struct ReceiverMessage {
  enum class Kind {
    EVENT,
    CURRENT, /* the states are complete */
    RESYNC,  /* events were lost; the states follow */
  };

  Kind kind;
  SharedEvent event;
};

std::optional<ReceiverMessage> receiver_message_parse(simdjson::dom::parser *parser, std::string_view text);

} // namespace plugins

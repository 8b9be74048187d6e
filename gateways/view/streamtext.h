/* SPDX-License-Identifier: MIT */
#pragma once

#include "metadatajson.h"
#include "sendqueue.h"

#include <string_view>
#include <vector>

/* The texts of a stream of server-sent events. All functions can be called on any thread. */

namespace view
{

enum class ItemKind { CONNECTED, DISCONNECTED, FRAME, PTZ, EVENT, PROPERTY, DELETED_PROPERTY };

/* One text of the stream, and what it is the state of. */
struct StreamItem {
  ItemKind kind;
  std::string key; /* of a frame: what it replaces; of a property: which one it is */
  Text text;
  Text state; /* of a property: the text for a client that comes later */
};

Text event_text(std::string_view name, std::string_view json);
Text connection_text(bool is_connected);
StreamItem connection_item(bool is_connected);
std::vector<StreamItem> items_of(const onvif::MetadataTexts &texts);

} // namespace view

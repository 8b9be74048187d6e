/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* ONVIF's JSON forms of metadata documents. */

namespace onvif
{

/* Bytes of a document; a longer one is refused. libxml2 itself reads up to 10 MB. */
constexpr gsize METADATA_JSON_DOCUMENT_MAX = 8 * 1024 * 1024;

/* Bytes of all texts of a document together. */
constexpr gsize METADATA_JSON_TEXTS_MAX = 64 * 1024 * 1024;

/* Nested elements in a frame, a PTZ status or an item of an event. */
constexpr guint METADATA_JSON_DEPTH_MAX = 64;

/* Namespaces in one text that are not ONVIF's. */
constexpr gsize METADATA_JSON_NAMESPACES_MAX = 64;

/* Bytes of a number; a longer one is written as a string. */
constexpr gsize METADATA_JSON_NUMBER_MAX = 64;

enum class MetadataKind { FRAME, PTZ_STATUS, EVENT };

enum class PropertyOperation { NONE, INITIALIZED, CHANGED, DELETED };

struct MetadataText {
  MetadataKind kind;
  std::string json;
  std::string source;                     /* of a frame; empty if it names none */
  std::string topic;                      /* of an event, without the prefixes of ONVIF's own topics */
  std::vector<std::string> source_values; /* of an event: those of its simple items */
  PropertyOperation operation;            /* of an event; NONE for an event without state */
};

struct MetadataTexts {
  std::vector<MetadataText> texts;
  gsize skipped = 0; /* notifications without a topic or a message */
};

std::optional<MetadataTexts> metadata_to_json(std::string_view document, GError **error);

} // namespace onvif

/* SPDX-License-Identifier: MIT */
// Arbitrary bytes as a metadata document: each text that it gives is one valid JSON object without line
// breaks, whose names are unique, and a document is either converted or refused with an error.
#include "fuzz.h"
#include "metadatajson.h"

#include <json-glib/json-glib.h>
#include <libxml/xmlerror.h>

namespace
{

using onvif::MetadataKind;
using onvif::MetadataText;
using onvif::MetadataTexts;

const char *
first_member(MetadataKind kind)
{
  switch (kind) {
  case MetadataKind::FRAME:
    return "Frame";
  case MetadataKind::PTZ_STATUS:
    return "PTZStatus";
  default:
    return "UtcTime";
  }
}

void
on_member(JsonParser *parser, JsonObject *object, const char *name, void *members)
{
  (*static_cast<gsize *>(members))++;
}

void
on_object_end(JsonParser *parser, JsonObject *object, void *members)
{
  *static_cast<gsize *>(members) += json_object_get_size(object);
}

void
check_text(const MetadataText &text)
{
  fuzz::require(g_utf8_validate(text.json.data(), static_cast<gssize>(text.json.size()), nullptr),
                "it is UTF-8");
  fuzz::require(text.json.find_first_of("\n\r\t") == text.json.npos, "there are no line breaks");
  g_autoptr(JsonParser) parser = json_parser_new();
  gsize written = 0, kept = 0;
  g_signal_connect(parser, "object-member", G_CALLBACK(on_member), &written);
  g_signal_connect(parser, "object-end", G_CALLBACK(on_object_end), &kept);
  fuzz::require(
      json_parser_load_from_data(parser, text.json.data(), static_cast<gssize>(text.json.size()), nullptr),
      "it is JSON");
  fuzz::require(written == kept, "each name of an object is there once");
  JsonNode *root = json_parser_get_root(parser);
  fuzz::require(JSON_NODE_HOLDS_OBJECT(root), "it is an object");
  fuzz::require(json_object_has_member(json_node_get_object(root), first_member(text.kind)),
                "it has its member");
  fuzz::require((text.kind == MetadataKind::EVENT) == !text.topic.empty(), "events have a topic");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  g_autoptr(GError) error = nullptr;
  std::optional<MetadataTexts> texts = onvif::metadata_to_json(fuzz::as_text(data, size), &error);
  xmlResetLastError();
  fuzz::require(texts.has_value() != (error != nullptr), "either texts or an error");
  if (!texts.has_value())
    return 0;
  gsize sum = 0;
  for (const MetadataText &text : texts->texts) {
    check_text(text);
    sum += text.json.size();
  }
  fuzz::require(sum <= onvif::METADATA_JSON_TEXTS_MAX, "the texts are bounded");
  return 0;
}

/* SPDX-License-Identifier: MIT */
#include "eventtext.h"

#include <string_view>

namespace receiver
{

namespace
{

/* @text is UTF-8, which JSON has as it is. */
void
append_text(std::string *json, std::string_view text)
{
  constexpr std::string_view HEX = "0123456789abcdef";

  *json += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      *json += '\\';
      *json += c;
    } else if (byte < 0x20) {
      *json += "\\u00";
      *json += HEX[byte >> 4];
      *json += HEX[byte & 0xf];
    } else {
      *json += c;
    }
  }
  *json += '"';
}

void
append_namespaces(std::string *json, const EventMap &namespaces)
{
  const char *separator = "";

  *json += '{';
  for (const auto &[prefix, uri] : namespaces) {
    *json += separator;
    append_text(json, prefix);
    *json += ':';
    append_text(json, uri);
    separator = ",";
  }
  *json += '}';
}

void
append_items(std::string *json, const EventPairs &declared, const EventTexts &values)
{
  *json += '[';
  for (gsize i = 0; i < values.size(); i++) {
    *json += i > 0 ? ",[" : "[";
    append_text(json, declared[i].first);
    *json += ',';
    append_text(json, values[i]);
    *json += ']';
  }
  *json += ']';
}

std::string
utc_text(gint64 time)
{
  g_autoptr(GDateTime) second = g_date_time_new_from_unix_utc(time / G_USEC_PER_SEC);
  g_autofree gchar *date = g_date_time_format(second, "%Y-%m-%dT%H:%M:%S");
  g_autofree gchar *text = g_strdup_printf("%s.%06dZ", date, static_cast<int>(time % G_USEC_PER_SEC));

  return text;
}

} // namespace

/**
 * event_text:
 * @topic: a topic
 * @operation: the operation of a property, or an empty text
 * @values: the event, not before 1970
 *
 * Returns: the event as a message of a stream
 */
std::string
event_text(const EventTopic &topic, const char *operation, const EventValues &values)
{
  std::string json = R"({"Topic":)";

  append_text(&json, topic.name);
  json += R"(,"Namespaces":)";
  append_namespaces(&json, topic.namespaces);
  json += topic.is_property ? R"(,"Property":true,"Operation":)" : R"(,"Property":false,"Operation":)";
  append_text(&json, operation);
  json += R"(,"UtcTime":)";
  append_text(&json, utc_text(values.time));
  json += R"(,"Source":)";
  append_items(&json, topic.source, values.source);
  json += R"(,"Data":)";
  append_items(&json, topic.data, values.data);
  json += '}';
  return json;
}

} // namespace receiver

/* SPDX-License-Identifier: MIT */
#include "metadatajson.h"

#include "jsonelement.h"
#include "silenterrors.h"

#include <algorithm>
#include <array>

namespace onvif
{

namespace
{

constexpr std::string_view NOTIFICATIONS = "http://docs.oasis-open.org/wsn/b-2";
constexpr std::string_view TOPICS = "http://www.onvif.org/ver10/topics";
constexpr std::string_view BLANKS = " \t\r\n";

/* Neither the network nor entities; libxml2's own limits hold, too. */
constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

/* Only a type definition can declare entities. No metadata have one. */
void
on_type_definition(void *context, const xmlChar *name, const xmlChar *external_id, const xmlChar *system_id)
{
  auto *parser = static_cast<xmlParserCtxt *>(context);
  *static_cast<bool *>(parser->_private) = true;
  xmlStopParser(parser);
}

/* Returns: (transfer full): the document; NULL if it is not well-formed, or has a type definition */
xmlDoc *
parse(std::string_view document)
{
  SilentErrors silent; /* libxml2 reports errors of the encoding there, with any options */
  g_autoptr(xmlParserCtxt) parser = xmlNewParserCtxt();
  bool has_type_definition = false;
  parser->_private = &has_type_definition;
  parser->sax->internalSubset = on_type_definition;
  g_autoptr(xmlDoc) parsed = xmlCtxtReadMemory(parser, document.data(), static_cast<int>(document.size()),
                                               nullptr, nullptr, PARSE_OPTIONS);
  return has_type_definition ? nullptr : static_cast<xmlDoc *>(g_steal_pointer(&parsed));
}

const xmlNode *
find_child(const xmlNode *element, std::string_view namespace_uri, std::string_view name)
{
  const xmlNode *node = element == nullptr ? nullptr : element->children;
  while (node != nullptr && !element_is(node, namespace_uri, name)) {
    node = node->next;
  }
  return node;
}

std::string
trimmed_text(const xmlNode *element)
{
  xmlChar *content = xmlNodeGetContent(element);
  std::string text = content == nullptr ? "" : reinterpret_cast<const char *>(content);
  xmlFree(content);
  gsize begin = text.find_first_not_of(BLANKS);
  if (begin == text.npos) {
    return {};
  }
  return text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

/* Returns: a level of a topic, without its prefix if that is of ONVIF's topics */
std::string
local_level(const xmlNode *element, const std::string &level)
{
  gsize colon = level.find(':');
  if (colon == level.npos) {
    return level;
  }
  std::string prefix = level.substr(0, colon);
  const xmlNs *space = xmlSearchNs(element->doc, const_cast<xmlNode *>(element),
                                   reinterpret_cast<const xmlChar *>(prefix.c_str()));
  bool is_onvif = space != nullptr && reinterpret_cast<const char *>(space->href) == TOPICS;
  return is_onvif ? level.substr(colon + 1) : level;
}

std::string
local_topic(const xmlNode *element)
{
  std::string topic = trimmed_text(element);
  std::string local;
  for (gsize begin = 0; begin < topic.size();) {
    gsize end = std::min(topic.find('/', begin), topic.size());
    local += local_level(element, topic.substr(begin, end - begin));
    if (end < topic.size()) {
      local += '/';
    }
    begin = end + 1;
  }
  return local;
}

PropertyOperation
operation_of(const xmlNode *message)
{
  std::string name = element_attribute(message, "PropertyOperation");
  if (name == "Initialized") {
    return PropertyOperation::INITIALIZED;
  }
  if (name == "Changed") {
    return PropertyOperation::CHANGED;
  }
  return name == "Deleted" ? PropertyOperation::DELETED : PropertyOperation::NONE;
}

std::vector<std::string>
simple_values(const xmlNode *list)
{
  std::vector<std::string> values;
  for (const xmlNode *node = list == nullptr ? nullptr : list->children; node != nullptr; node = node->next) {
    if (element_is(node, METADATA_NAMESPACE, "SimpleItem")) {
      values.push_back(element_attribute(node, "Value"));
    }
  }
  return values;
}

/* Converts the parts of one document, which share the limit of its texts. */
class Converter
{
public:
  bool convert(const xmlNode *root);

  MetadataTexts result_;

private:
  using ConvertPart = bool (Converter::*)(const xmlNode *);

  bool convert_parts(const xmlNode *section, std::string_view namespace_uri, const char *name,
                     ConvertPart convert_part);
  bool convert_top(MetadataKind kind, const xmlNode *element, std::string_view name, std::string source);
  bool convert_frame(const xmlNode *frame);
  bool convert_status(const xmlNode *status);
  bool convert_notification(const xmlNode *notification);
  bool add(JsonElementWriter *writer, MetadataText text);

  gsize bytes_left_ = METADATA_JSON_TEXTS_MAX;
};

bool
Converter::add(JsonElementWriter *writer, MetadataText text)
{
  if (!writer->finish(&text.json)) {
    return false;
  }
  bytes_left_ -= text.json.size();
  result_.texts.push_back(std::move(text));
  return true;
}

/* The stream can have several of these elements, so that a single one is in an array, too. */
bool
Converter::convert_top(MetadataKind kind, const xmlNode *element, std::string_view name, std::string source)
{
  JsonElementWriter writer(bytes_left_);
  writer.append("{");
  writer.append_name(name);
  writer.append("[");
  writer.append_top(element);
  writer.append("]}");
  return add(&writer, {.kind = kind,
                       .json = {},
                       .source = std::move(source),
                       .topic = {},
                       .source_values = {},
                       .operation = PropertyOperation::NONE});
}

bool
Converter::convert_frame(const xmlNode *frame)
{
  return convert_top(MetadataKind::FRAME, frame, "Frame", element_attribute(frame, "Source"));
}

bool
Converter::convert_status(const xmlNode *status)
{
  return convert_top(MetadataKind::PTZ_STATUS, status, "PTZStatus", {});
}

bool
Converter::convert_notification(const xmlNode *notification)
{
  const xmlNode *topic = find_child(notification, NOTIFICATIONS, "Topic");
  const xmlNode *message =
      find_child(find_child(notification, NOTIFICATIONS, "Message"), METADATA_NAMESPACE, "Message");
  std::string local = topic == nullptr ? "" : local_topic(topic);
  if (local.empty() || message == nullptr) {
    result_.skipped++;
    return true;
  }
  const xmlNode *source = find_child(message, METADATA_NAMESPACE, "Source");
  const xmlNode *data = find_child(message, METADATA_NAMESPACE, "Data");
  JsonElementWriter writer(bytes_left_);
  writer.append("{");
  writer.append_name("UtcTime");
  writer.append_string(element_attribute(message, "UtcTime"));
  writer.mark_context();
  writer.append_name("Source");
  writer.append_items(source);
  if (data != nullptr) {
    writer.append_name("Data");
    writer.append_items(data);
  }
  writer.append("}");
  return add(&writer, {.kind = MetadataKind::EVENT,
                       .json = {},
                       .source = {},
                       .topic = std::move(local),
                       .source_values = simple_values(source),
                       .operation = operation_of(message)});
}

bool
Converter::convert_parts(const xmlNode *section, std::string_view namespace_uri, const char *name,
                         ConvertPart convert_part)
{
  for (const xmlNode *node = section->children; node != nullptr; node = node->next) {
    if (element_is(node, namespace_uri, name) && !(this->*convert_part)(node)) {
      return false;
    }
  }
  return true;
}

/* Returns: false if a limit is exceeded */
bool
Converter::convert(const xmlNode *root)
{
  struct Section {
    const char *name;
    std::string_view part_namespace;
    const char *part;
    ConvertPart convert;
  };
  const std::array<Section, 3> sections = {{
      {"VideoAnalytics", METADATA_NAMESPACE, "Frame", &Converter::convert_frame},
      {"PTZ", METADATA_NAMESPACE, "PTZStatus", &Converter::convert_status},
      {"Event", NOTIFICATIONS, "NotificationMessage", &Converter::convert_notification},
  }};
  for (const xmlNode *node = root->children; node != nullptr; node = node->next) {
    for (const Section &section : sections) {
      if (element_is(node, METADATA_NAMESPACE, section.name) &&
          !convert_parts(node, section.part_namespace, section.part, section.convert)) {
        return false;
      }
    }
  }
  return true;
}

} // namespace

/**
 * metadata_to_json:
 * @document: a tt:MetadataStream of any origin
 * @error: return location for a #GError of the domain %G_MARKUP_ERROR
 *
 * Converts the frames, PTZ statuses and events of a document, each to a JSON text without line breaks, in the
 * order of the document. Other elements of the stream are left out. Can be called on any thread.
 *
 * Returns: the texts; nothing if @document is not well-formed, has a type definition, is no
 * tt:MetadataStream, or exceeds a limit
 */
std::optional<MetadataTexts>
metadata_to_json(std::string_view document, GError **error)
{
  if (document.size() > METADATA_JSON_DOCUMENT_MAX) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT, "The document is too long");
    return {};
  }
  g_autoptr(xmlDoc) parsed = parse(document);
  const xmlNode *root = parsed == nullptr ? nullptr : xmlDocGetRootElement(parsed);
  if (root == nullptr) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_PARSE, "The document cannot be read");
    return {};
  }
  if (!element_is(root, METADATA_NAMESPACE, "MetadataStream")) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_UNKNOWN_ELEMENT,
                        "The document is no stream of metadata");
    return {};
  }
  Converter converter;
  if (!converter.convert(root)) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT,
                        "The document has too much for its JSON texts");
    return {};
  }
  return std::move(converter.result_);
}

} // namespace onvif

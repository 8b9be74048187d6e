/* SPDX-License-Identifier: MIT */
#pragma once

#include "libxml.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* Elements of XML as JSON, by ONVIF's rules. */

namespace onvif
{

constexpr std::string_view METADATA_NAMESPACE = "http://www.onvif.org/ver10/schema";

bool element_is(const xmlNode *node, std::string_view namespace_uri, std::string_view name);
std::string element_attribute(const xmlNode *element, const char *name);

/* Writes one JSON text. Element names of ONVIF's namespaces have no prefix; the others have one, which the
 * text's
 * "@context" explains. A limit that is exceeded ends the writing; the text is not used then. */
class JsonElementWriter
{
public:
  explicit JsonElementWriter(gsize bytes_max) : bytes_max_(bytes_max)
  {
  }

  void append(std::string_view json);
  void append_name(std::string_view name);
  void append_string(std::string_view text);
  void append_top(const xmlNode *element);
  void append_items(const xmlNode *list);
  void mark_context();
  bool finish(std::string *json);

private:
  struct Member {
    std::string name;
    bool is_array;
    std::vector<const xmlNode *> values;
  };
  using AppendValue = void (JsonElementWriter::*)(const xmlNode *);

  bool may_go_on();
  const std::string &prefix_of(const xmlNs *space);
  std::string unused_prefix(const char *wish) const;
  std::string name_of(const xmlNs *space, const xmlChar *local);
  void separate();
  void append_attributes(const xmlNode *element, bool is_wrapped);
  void append_attribute(const xmlNode *element, const xmlAttr *attribute);
  void append_scalar_or_null(const xmlNode *element);
  void append_value(const xmlNode *element);
  void append_item(const xmlNode *item);
  void append_member(const Member &member, AppendValue append_one);
  void append_children(const xmlNode *element);

  std::string json_;
  gsize bytes_max_;
  gsize context_at_ = std::string::npos;
  std::vector<std::pair<std::string, std::string>> prefixes_; /* the URI and the prefix of each namespace */
  guint depth_ = 0;
  bool has_failed_ = false;
};

} // namespace onvif

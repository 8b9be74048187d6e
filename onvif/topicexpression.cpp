/* SPDX-License-Identifier: MIT */
#include "topicexpression.h"

#include <cstring>
#include <libxml/tree.h>

/* The expressions come from clients. Error messages name a path by its number and do not repeat the text. */

namespace onvif
{

G_DEFINE_QUARK(tessard_topic_expression_error, topic_expression_error)

namespace
{

constexpr std::string_view SUBTREE = "//.";
constexpr std::string_view BLANKS = " \t\r\n";

std::vector<std::string_view>
split(std::string_view text, char separator)
{
  std::vector<std::string_view> parts;
  for (;;) {
    gsize end = text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == text.npos) {
      return parts;
    }
    text.remove_prefix(end + 1);
  }
}

std::string_view
trim(std::string_view text)
{
  gsize first = text.find_first_not_of(BLANKS);
  if (first == text.npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool
is_qname(std::string_view text)
{
  std::string terminated(text);
  return xmlValidateQName(reinterpret_cast<const xmlChar *>(terminated.c_str()), 0) == 0;
}

/* Returns: (nullable): the error in a path */
const char *
find_error(std::string_view topic)
{
  std::vector<std::string_view> names = split(topic, '/');
  if (names.size() > TopicExpression::MAX_DEPTH) {
    return "has too many levels";
  }
  for (std::string_view name : names) {
    if (name.empty()) {
      return "has an empty name";
    }
    if (!is_qname(name)) {
      return "has a name that is no XML name";
    }
  }
  if (names.front().find(':') == std::string_view::npos) {
    return "has no prefix at its root";
  }
  return nullptr;
}

} // namespace

/**
 * TopicExpression::parse:
 * @text: the expression, any bytes
 * @error: set if @text is not a ConcreteSet topic expression or exceeds a limit
 *
 * White space around a path is ignored.
 *
 * Returns: the expression; unset with @error set
 */
std::optional<TopicExpression>
TopicExpression::parse(const char *text, GError **error)
{
  if (strnlen(text, MAX_LENGTH + 1) > MAX_LENGTH) {
    g_set_error(error, topic_expression_error_quark(), 0, "It is longer than %" G_GSIZE_FORMAT " bytes",
                MAX_LENGTH);
    return std::nullopt;
  }
  /* libxml2's check of names requires valid UTF-8. */
  if (!g_utf8_validate(text, -1, nullptr)) {
    g_set_error_literal(error, topic_expression_error_quark(), 0, "It is not UTF-8");
    return std::nullopt;
  }
  std::vector<std::string_view> paths = split(text, '|');
  if (paths.size() > MAX_PATHS) {
    g_set_error(error, topic_expression_error_quark(), 0, "It has more than %" G_GSIZE_FORMAT " paths",
                MAX_PATHS);
    return std::nullopt;
  }

  TopicExpression expression;
  for (std::string_view path : paths) {
    std::string_view topic = trim(path);
    bool subtree = topic.ends_with(SUBTREE);
    if (subtree) {
      topic.remove_suffix(SUBTREE.size());
    }
    const char *found = find_error(topic);
    if (found != nullptr) {
      g_set_error(error, topic_expression_error_quark(), 0, "Path %" G_GSIZE_FORMAT " %s",
                  expression.paths_.size() + 1, found);
      return std::nullopt;
    }
    expression.paths_.push_back({std::string(topic), subtree});
  }
  return expression;
}

/**
 * TopicExpression::is_topic:
 * @text: any bytes without a NUL
 *
 * Returns: whether @text is a concrete topic, from its root
 */
bool
TopicExpression::is_topic(std::string_view text)
{
  return text.size() <= MAX_LENGTH && g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE &&
         find_error(text) == nullptr;
}

/**
 * TopicExpression::matches:
 * @topic: a complete topic, from its root
 *
 * Returns: whether a path selects @topic
 */
bool
TopicExpression::matches(std::string_view topic) const
{
  for (const Path &path : paths_) {
    if (!topic.starts_with(path.topic)) {
      continue;
    }
    std::string_view below = topic.substr(path.topic.size());
    if (below.empty() || (path.subtree && below.front() == '/')) {
      return true;
    }
  }
  return false;
}

} // namespace onvif

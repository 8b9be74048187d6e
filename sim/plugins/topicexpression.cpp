#include "topicexpression.h"

#include <cstring>
#include <libxml/tree.h>

/* The texts come from clients. Messages say what is wrong and where by number, and never repeat the text. */

namespace sim
{

G_DEFINE_QUARK(tessard_sim_topic_expression_error, topic_expression_error)

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

/* Returns what is wrong with a path, or nothing. */
const char *
find_fault(std::string_view topic)
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

} /* namespace */

/**
 * TopicExpression::parse:
 * @text: the expression, in any bytes
 * @error: set if @text is no ConcreteSet topic expression or exceeds one of the limits
 *
 * Blanks and line breaks around a path are ignored.
 *
 * Returns: the expression, or nothing with @error set
 */
std::optional<TopicExpression>
TopicExpression::parse(const char *text, GError **error)
{
  if (strnlen(text, MAX_LENGTH + 1) > MAX_LENGTH) {
    g_set_error(error, topic_expression_error_quark(), 0, "It is longer than %" G_GSIZE_FORMAT " bytes",
                MAX_LENGTH);
    return std::nullopt;
  }
  /* The library's name check takes some bytes for characters that they are not. */
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
    const char *fault = find_fault(topic);
    if (fault != nullptr) {
      g_set_error(error, topic_expression_error_quark(), 0, "Path %" G_GSIZE_FORMAT " %s",
                  expression.paths_.size() + 1, fault);
      return std::nullopt;
    }
    expression.paths_.push_back({std::string(topic), subtree});
  }
  return expression;
}

/**
 * TopicExpression::matches:
 * @topic: a whole topic, from its root
 *
 * Returns: whether one of the paths names @topic
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

} /* namespace sim */

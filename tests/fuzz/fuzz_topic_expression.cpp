/* SPDX-License-Identifier: MIT */
// A topic expression of arbitrary bytes and, after the last line feed, a topic to match.
#include "fuzz.h"
#include "topicexpression.h"

#include <algorithm>
#include <string>

namespace
{

using onvif::TopicExpression;

constexpr std::string_view SUBTREE = "//.";
// None of these is part of an XML name or of the expression's own syntax.
constexpr std::string_view NEVER_ACCEPTED = "!\"#$%&'()*+,;<=>?@[\\]^`{}~";

bool
is_printable(char character)
{
  return g_ascii_isprint(character);
}

std::string_view
trim(std::string_view text)
{
  gsize begin = text.find_first_not_of(" \t\r\n");
  if (begin == text.npos)
    return "";
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

std::vector<std::string>
split_paths(const std::string &text)
{
  std::vector<std::string> paths;
  gsize begin = 0;
  for (gsize end = text.find('|'); end != text.npos; end = text.find('|', begin)) {
    paths.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  paths.push_back(text.substr(begin));
  return paths;
}

std::optional<TopicExpression>
parse(const std::string &text)
{
  g_autoptr(GError) error = nullptr;
  std::optional<TopicExpression> expression = TopicExpression::parse(text.c_str(), &error);
  fuzz::require(expression.has_value() != (error != nullptr), "either an expression or an error");
  if (error != nullptr) {
    std::string_view message = error->message;
    fuzz::require(!message.empty(), "an error has a text");
    fuzz::require(std::all_of(message.begin(), message.end(), is_printable), "an error is plain text");
  }
  return expression;
}

void
check_path(const std::string &text, std::string_view topic)
{
  std::string_view path = trim(text);
  bool subtree = path.ends_with(SUBTREE);
  std::string named(path.substr(0, path.size() - (subtree ? SUBTREE.size() : 0)));

  fuzz::require(path.find_first_of(NEVER_ACCEPTED) == path.npos, "names are XML names");
  fuzz::require(named.find(':') != 0 && named.find(':') < named.find('/'), "the root has a prefix");
  fuzz::require(std::count(named.begin(), named.end(), '/') < static_cast<long>(TopicExpression::MAX_DEPTH),
                "the depth is bounded");

  std::optional<TopicExpression> expression = parse(text);
  fuzz::require(expression.has_value(), "each path of an expression is an expression");
  fuzz::require(expression->matches(named), "a path matches the topic that it names");
  fuzz::require(expression->matches(named + "/below") == subtree, "only a subtree has topics below");
  fuzz::require(!expression->matches(named + "beside"), "names match as a whole");
  fuzz::require(expression->matches(topic) == (topic == named || (subtree && topic.starts_with(named + "/"))),
                "a path matches what it names and nothing else");
}

void
check_accepted(const TopicExpression &expression, const std::string &text, std::string_view topic)
{
  std::vector<std::string> paths = split_paths(text);
  fuzz::require(text.size() <= TopicExpression::MAX_LENGTH, "the length is bounded");
  fuzz::require(paths.size() <= TopicExpression::MAX_PATHS, "the number of paths is bounded");
  for (const std::string &path : paths)
    check_path(path, topic);
  bool any = std::any_of(paths.begin(), paths.end(),
                         [topic](const std::string &path) { return parse(path)->matches(topic); });
  fuzz::require(expression.matches(topic) == any, "an expression matches what one of its paths matches");
}

void
check_refused(const std::string &text)
{
  std::vector<std::string> paths = split_paths(text);
  bool bounded = text.size() <= TopicExpression::MAX_LENGTH && paths.size() <= TopicExpression::MAX_PATHS;
  bool all = std::all_of(paths.begin(), paths.end(),
                         [](const std::string &path) { return parse(path).has_value(); });
  fuzz::require(!(bounded && all), "an expression of valid paths is valid");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string_view input = fuzz::as_text(data, size);
  gsize line_feed = input.rfind('\n');
  std::string_view topic = line_feed == input.npos ? "" : input.substr(line_feed + 1);
  std::string text(input.substr(0, line_feed));
  text.resize(std::min(text.find('\0'), text.size()));

  std::optional<TopicExpression> expression = parse(text);
  if (expression.has_value())
    check_accepted(*expression, text, topic);
  else
    check_refused(text);
  return 0;
}

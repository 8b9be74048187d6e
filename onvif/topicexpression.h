/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace onvif
{

/* Selects topics by an ONVIF ConcreteSet topic expression:
 *
 *   TopicExpression ::= TopicPath ('|' TopicPath)*
 *   TopicPath       ::= RootTopic ('/' ChildTopic)* '//.'?
 *
 * A path selects one topic; with "//." at its end it also selects all topics below. The root topic has a
 * prefix, a child may have one. Prefixes are compared as text, because a client cannot declare namespaces. An
 * unknown topic is valid and matches nothing. */
class TopicExpression
{
public:
  static constexpr gsize MAX_LENGTH = 4096;
  static constexpr gsize MAX_PATHS = 64;
  static constexpr gsize MAX_DEPTH = 16;

  static std::optional<TopicExpression> parse(const char *text, GError **error);

  static bool is_topic(std::string_view text);

  bool matches(std::string_view topic) const;

private:
  struct Path {
    std::string topic;
    bool subtree;
  };

  std::vector<Path> paths_;
};

GQuark topic_expression_error_quark();

} // namespace onvif

/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventmessage.h"

#include <libxml/xpath.h>
#include <memory>
#include <optional>

namespace onvif
{

/* Selects events by an XPath 1.0 expression over the tt:Message, for example
 *
 *   boolean(//tt:SimpleItem[@Name="State" and @Value="true"])
 *
 * The prefixes tt, wsnt and tns1 are declared. The result is converted to a boolean. */
class ContentFilter
{
public:
  static constexpr gsize MAX_LENGTH = 4096;
  /* Steps of one evaluation: far more than a useful filter needs, and only milliseconds of CPU time. */
  static constexpr unsigned long MAX_OPERATIONS = 100000;

  static std::optional<ContentFilter> compile(const char *text, std::span<const EventMessage> examples,
                                              GError **error);

  std::optional<bool> matches(const EventMessage &message, GError **error) const;

private:
  struct Free {
    void operator()(xmlXPathCompExpr *expression) const;
  };

  std::unique_ptr<xmlXPathCompExpr, Free> expression_;
};

GQuark content_filter_error_quark();

} // namespace onvif

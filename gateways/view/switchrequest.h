/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>

namespace view
{

/* A producer that a page switches on or off. */
struct SwitchRequest {
  std::string producer;
  gint32 channel = 0;
  bool enabled = false;
  std::string configuration; /* empty if the page leaves it to the server */
};

std::optional<SwitchRequest> parse_switch_request(std::string_view body, GError **error);

} // namespace view

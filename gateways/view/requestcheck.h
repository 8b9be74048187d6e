/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>

/* What decides whether a request is one of the gateway's own page. All functions can be called on any thread.
 */

namespace view
{

bool is_own_host(const char *host, guint port);
bool is_own_origin(const char *origin, const char *host);
bool is_own_site(const char *site);
bool is_authorized(const char *authorization, std::string_view token);
std::string new_token();
std::optional<guint> parse_channel(const char *text);

} // namespace view

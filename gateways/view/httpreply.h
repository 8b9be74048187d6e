/* SPDX-License-Identifier: MIT */
#pragma once

#include "sendqueue.h"

#include <array>
#include <string_view>

/* Replies of HTTP/1.1, each the last one of its connection. All functions can be called on any thread. */

namespace view
{

struct Header {
  const char *name;
  const char *value;
};

/* The headers of each reply, also of those that the engine makes. */
inline constexpr std::array COMMON_HEADERS = {
    Header{"Content-Security-Policy",
           "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
           "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    Header{"X-Content-Type-Options", "nosniff"},
    Header{"Referrer-Policy", "no-referrer"},
    Header{"Cross-Origin-Resource-Policy", "same-origin"},
    Header{"Cache-Control", "no-store"},
    Header{"Connection", "close"},
};

Text http_reply(guint status, std::string_view content_type, std::string_view body);
Text http_head(const Text &reply);
Text http_error(guint status, std::string_view message, std::string_view allow);
Text http_stream_head(std::string_view content_type);

} // namespace view

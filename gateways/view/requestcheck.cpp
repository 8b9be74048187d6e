/* SPDX-License-Identifier: MIT */
#include "requestcheck.h"

#include <array>
#include <cstring>
#include <sys/random.h>

namespace view
{

namespace
{

constexpr std::array HOSTS = {"127.0.0.1", "localhost", "[::1]"};
constexpr std::string_view SCHEME = "Bearer ";
constexpr gsize TOKEN_BYTES = 32;

/* The port that a browser leaves out. */
constexpr guint HTTP_PORT = 80;

/* Takes as long for any text of the same length. */
bool
equals_in_constant_time(std::string_view one, std::string_view other)
{
  if (one.size() != other.size()) {
    return false;
  }
  volatile guchar difference = 0;
  for (gsize index = 0; index < one.size(); index++) {
    difference = static_cast<guchar>(difference | (one[index] ^ other[index]));
  }
  return difference == 0;
}

} // namespace

/**
 * is_own_host:
 * @host: (nullable): the header Host
 * @port: the port of the server
 *
 * A page of another site whose name leads to this machine sends that name.
 *
 * Returns: whether the header names the server
 */
bool
is_own_host(const char *host, guint port)
{
  if (host == nullptr) {
    return false;
  }
  for (const char *own : HOSTS) {
    g_autofree gchar *with_port = g_strdup_printf("%s:%u", own, port);
    if (g_ascii_strcasecmp(host, with_port) == 0 ||
        (port == HTTP_PORT && g_ascii_strcasecmp(host, own) == 0)) {
      return true;
    }
  }
  return false;
}

/**
 * is_own_origin:
 * @origin: (nullable): the header Origin
 * @host: (nullable): the header Host
 *
 * Returns: whether the request comes from a page of @host
 */
bool
is_own_origin(const char *origin, const char *host)
{
  if (origin == nullptr || host == nullptr) {
    return false;
  }
  for (const char *scheme : {"http://", "https://"}) {
    if (g_str_has_prefix(origin, scheme) && g_ascii_strcasecmp(origin + strlen(scheme), host) == 0) {
      return true;
    }
  }
  return false;
}

/**
 * is_own_site:
 * @site: (nullable): the header Sec-Fetch-Site
 *
 * Returns: %FALSE if a page of another origin made the request; %TRUE also if the browser does not tell
 */
bool
is_own_site(const char *site)
{
  return site == nullptr || g_str_equal(site, "same-origin") || g_str_equal(site, "none");
}

/**
 * is_authorized:
 * @authorization: (nullable): the header Authorization
 * @token: the token
 *
 * Returns: whether the header has the token
 */
bool
is_authorized(const char *authorization, std::string_view token)
{
  const std::string_view text = authorization != nullptr ? authorization : "";
  if (token.empty() || text.size() < SCHEME.size() ||
      g_ascii_strncasecmp(text.data(), SCHEME.data(), SCHEME.size()) != 0) {
    return false;
  }
  return equals_in_constant_time(text.substr(SCHEME.size()), token);
}

/**
 * new_token:
 *
 * Returns: 256 random bits in hexadecimal digits; empty if the kernel has none
 */
std::string
new_token()
{
  std::array<guchar, TOKEN_BYTES> bytes = {};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    return {};
  }
  std::string token;
  for (const guchar byte : bytes) {
    constexpr const char *DIGITS = "0123456789abcdef";
    token += DIGITS[byte >> 4];
    token += DIGITS[byte & 0xf];
  }
  return token;
}

/**
 * parse_channel:
 * @text: (nullable): the number of a channel, in decimal digits
 *
 * Returns: the channel, nothing if the text is no number
 */
std::optional<guint>
parse_channel(const char *text)
{
  guint64 channel = 0;
  if (text == nullptr || !g_ascii_isdigit(*text) ||
      !g_ascii_string_to_unsigned(text, 10, 0, G_MAXINT32, &channel, nullptr)) {
    return std::nullopt;
  }
  return static_cast<guint>(channel);
}

} // namespace view

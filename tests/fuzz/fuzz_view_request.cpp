/* SPDX-License-Identifier: MIT */
// What a client of tessard-view sends, in four parts: Host, Origin, Authorization and the body of a switch.
// Models decide the same, and a JSON library reads the same of an accepted body.
#include "fuzz.h"
#include "requestcheck.h"
#include "switchrequest.h"

#include <algorithm>
#include <json-glib/json-glib.h>
#include <string>

namespace
{

constexpr guint PORT = 8480;
constexpr const char *TOKEN = "0123456789abcdef";

std::string
take_line(std::string_view *text)
{
  const size_t end = std::min(text->find('\n'), text->size());
  const std::string line(text->substr(0, end));
  text->remove_prefix(std::min(end + 1, text->size()));
  return line.c_str(); // a header has no NUL
}

std::string
lower_case(const std::string &text)
{
  g_autofree char *lower = g_ascii_strdown(text.c_str(), -1);
  return lower;
}

void
check_sender(const std::string &host, const std::string &origin, const std::string &authorization)
{
  const std::string name = lower_case(host);
  const bool is_own = name == "127.0.0.1:8480" || name == "localhost:8480" || name == "[::1]:8480";
  fuzz::require(view::is_own_host(host.c_str(), PORT) == is_own, "the host is one of the server's");

  const std::string site = lower_case(origin);
  const bool is_same = (origin.starts_with("http://") && site == "http://" + name) ||
                       (origin.starts_with("https://") && site == "https://" + name);
  fuzz::require(view::is_own_origin(origin.c_str(), host.c_str()) == is_same, "the origin is the host's");

  const bool has_token = lower_case(authorization.substr(0, 7)) == "bearer " &&
                         authorization.substr(std::min<size_t>(7, authorization.size())) == TOKEN;
  fuzz::require(view::is_authorized(authorization.c_str(), TOKEN) == has_token, "the token is the server's");

  const std::optional<guint> channel = view::parse_channel(host.c_str());
  const std::string digits = host.substr(std::min(host.find_first_not_of('0'), host.size()));
  fuzz::require(!channel.has_value() || std::to_string(*channel) == digits ||
                    (*channel == 0 && digits.empty()),
                "a channel is its number");
}

void
check_body(std::string_view body)
{
  g_autoptr(GError) error = nullptr;
  const std::optional<view::SwitchRequest> request = view::parse_switch_request(body, &error);
  fuzz::require(request.has_value() == (error == nullptr), "a body that is refused has an error");
  if (!request.has_value()) {
    fuzz::require(g_utf8_validate(error->message, -1, nullptr), "the error can be shown");
    return;
  }
  g_autoptr(JsonParser) parser = json_parser_new_immutable();
  fuzz::require(json_parser_load_from_data(parser, body.data(), static_cast<gssize>(body.size()), nullptr),
                "an accepted body is JSON");
  JsonObject *object = json_node_get_object(json_parser_get_root(parser));
  fuzz::require(request->producer == json_object_get_string_member(object, "producer"), "the same producer");
  fuzz::require(request->channel == json_object_get_int_member(object, "channel"), "the same channel");
  fuzz::require(request->enabled == (json_object_get_boolean_member(object, "enabled") != FALSE),
                "the same state");
  fuzz::require(request->configuration ==
                    json_object_get_string_member_with_default(object, "configuration", ""),
                "the same configuration");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string_view text = fuzz::as_text(data, size);
  const std::string host = take_line(&text);
  const std::string origin = take_line(&text);
  const std::string authorization = take_line(&text);
  check_sender(host, origin, authorization);
  check_body(text);
  return 0;
}

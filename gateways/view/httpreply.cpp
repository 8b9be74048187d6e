/* SPDX-License-Identifier: MIT */
#include "httpreply.h"

#include "jsonscalar.h"

#include <libsoup/soup.h>

namespace view
{

namespace
{

constexpr std::string_view END_OF_HEAD = "\r\n\r\n";

/* The head without its last line. */
std::string
head_of(guint status)
{
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + soup_status_get_phrase(status);
  for (const Header &header : COMMON_HEADERS) {
    head.append("\r\n").append(header.name).append(": ").append(header.value);
  }
  return head;
}

std::string
head_with_content(guint status, std::string_view content_type, gsize length)
{
  std::string head = head_of(status);
  if (!content_type.empty()) {
    head.append("\r\nContent-Type: ").append(content_type);
  }
  if (status != SOUP_STATUS_NO_CONTENT) {
    head += "\r\nContent-Length: " + std::to_string(length);
  }
  return head;
}

} // namespace

/**
 * http_reply:
 * @status: the status
 * @content_type: the type of the body; empty without one
 * @body: the body
 *
 * Returns: the reply
 */
Text
http_reply(guint status, std::string_view content_type, std::string_view body)
{
  auto reply = std::make_shared<std::string>(head_with_content(status, content_type, body.size()));
  reply->append(END_OF_HEAD).append(body);
  return reply;
}

/**
 * http_head:
 * @reply: a reply
 *
 * Returns: the reply without its body, as for the method HEAD
 */
Text
http_head(const Text &reply)
{
  return std::make_shared<std::string>(*reply, 0, reply->find(END_OF_HEAD) + END_OF_HEAD.size());
}

/**
 * http_error:
 * @status: a status of 4xx or 5xx
 * @message: what is wrong, for the user
 * @allow: for the status 405: the methods that are allowed; otherwise empty
 *
 * Returns: the reply
 */
Text
http_error(guint status, std::string_view message, std::string_view allow)
{
  std::string body = "{\"error\":";
  onvif::json_append_string(&body, message);
  body += "}";
  auto reply = std::make_shared<std::string>(head_with_content(status, "application/json", body.size()));
  if (!allow.empty()) {
    reply->append("\r\nAllow: ").append(allow);
  }
  reply->append(END_OF_HEAD).append(body);
  return reply;
}

/**
 * http_stream_head:
 * @content_type: the type of the body
 *
 * Returns: the head of a reply whose body ends with the connection
 */
Text
http_stream_head(std::string_view content_type)
{
  auto head = std::make_shared<std::string>(head_of(SOUP_STATUS_OK));
  head->append("\r\nContent-Type: ").append(content_type).append(END_OF_HEAD);
  return head;
}

} // namespace view

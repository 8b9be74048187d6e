/* SPDX-License-Identifier: MIT */
#include "requesthead.h"

#include <algorithm>
#include <libsoup/soup.h>

namespace view
{

namespace
{

/* An empty line can be found across two pieces. */
constexpr std::string_view EMPTY_LINE = "\n\r\n";
constexpr gsize OVERLAP_BYTES = EMPTY_LINE.size() - 1;

} // namespace

/**
 * RequestHead::append:
 * @bytes: what the client has sent next, also of the body
 *
 * Returns: %FALSE if the head is complete and must not reach the engine
 */
bool
RequestHead::append(std::string_view bytes)
{
  if (is_complete_) {
    return true;
  }
  if (text_.empty()) {
    bytes.remove_prefix(std::min(bytes.find_first_not_of("\r\n"), bytes.size()));
  }
  const gsize begin = std::max(text_.size(), OVERLAP_BYTES) - OVERLAP_BYTES;
  text_ += bytes;
  const gsize end = std::min(text_.find("\n\n", begin), text_.find(EMPTY_LINE, begin));
  if (end == text_.npos) {
    return true;
  }
  text_.resize(end + 1);
  return take();
}

/**
 * RequestHead::end:
 *
 * The client has ended its side. The engine takes what it has for the head.
 *
 * Returns: %FALSE if the head must not reach the engine
 */
bool
RequestHead::end()
{
  return is_complete_ || take();
}

/* By the engine's own functions, so that it cannot read the head in another way. */
bool
RequestHead::take()
{
  SoupMessageHeaders *headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
  const guint status = soup_headers_parse_request(text_.c_str(), static_cast<int>(text_.size()), headers,
                                                  nullptr, nullptr, nullptr);
  const bool is_accepted = !SOUP_STATUS_IS_SUCCESSFUL(status) ||
                           soup_message_headers_get_encoding(headers) != SOUP_ENCODING_UNRECOGNIZED;
  soup_message_headers_unref(headers);
  is_complete_ = true;
  text_ = {};
  return is_accepted;
}

} // namespace view

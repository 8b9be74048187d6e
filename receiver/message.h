/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <glib.h>
#include <memory>
#include <span>
#include <string_view>
#include <sys/uio.h>

namespace receiver
{

/* A text that several owners share without copying it. */
using SharedText = std::shared_ptr<GBytes>;

SharedText shared_text_copy(std::string_view text);
SharedText shared_text_part(const SharedText &whole, gsize offset, gsize size);
SharedText shared_text_count(std::string_view text);
gsize shared_text_counted_bytes();
std::string_view shared_text_view(const SharedText &text);

/* A message that is being written to a stream: four bytes of length in the byte order of the machine, then
 * the text.
 */
class Message
{
public:
  Message() = default;
  explicit Message(SharedText text);

  bool is_sent() const;
  gsize size() const;
  std::span<const iovec> rest(gsize limit);
  void advance(gsize bytes);

private:
  SharedText text_;
  guint32 length_ = 0;
  gsize sent_ = 0; /* bytes, including the length */
  std::array<iovec, 2> parts_ = {};
};

} // namespace receiver

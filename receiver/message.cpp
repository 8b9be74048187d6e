/* SPDX-License-Identifier: MIT */
#include "message.h"

#include "receiverlimits.h"

#include <algorithm>

namespace receiver
{

namespace
{

/* Main thread only. */
gsize counted_bytes;

void
free_counted(GBytes *bytes)
{
  counted_bytes -= g_bytes_get_size(bytes) + RECEIVER_MESSAGE_OVERHEAD;
  g_bytes_unref(bytes);
}

} // namespace

/**
 * shared_text_copy:
 * @text: any bytes
 *
 * Returns: a copy of @text
 */
SharedText
shared_text_copy(std::string_view text)
{
  return {g_bytes_new(text.data(), text.size()), g_bytes_unref};
}

/**
 * shared_text_part:
 * @whole: a text
 * @offset: the start of the part
 * @size: its length; the part ends within @whole
 *
 * Returns: the part; it holds a reference to @whole
 */
SharedText
shared_text_part(const SharedText &whole, gsize offset, gsize size)
{
  return {g_bytes_new_from_bytes(whole.get(), offset, size), g_bytes_unref};
}

/**
 * shared_text_count:
 * @text: any bytes
 *
 * Counts the copy in shared_text_counted_bytes() until its last owner releases it. Main thread only.
 *
 * Returns: a copy of @text
 */
SharedText
shared_text_count(std::string_view text)
{
  counted_bytes += text.size() + RECEIVER_MESSAGE_OVERHEAD;
  return {g_bytes_new(text.data(), text.size()), free_counted};
}

/**
 * shared_text_counted_bytes:
 *
 * Returns: the bytes of all texts made by shared_text_count() that still have an owner, each counted once and
 * with %RECEIVER_MESSAGE_OVERHEAD
 */
gsize
shared_text_counted_bytes()
{
  return counted_bytes;
}

/**
 * shared_text_view:
 * @text: a text
 *
 * Returns: the bytes of @text; valid as long as @text
 */
std::string_view
shared_text_view(const SharedText &text)
{
  gsize size = 0;
  auto data = static_cast<const char *>(g_bytes_get_data(text.get(), &size));
  return {data, size};
}

/**
 * Message:
 * @text: the text, shorter than 4 GiB
 *
 * A message without a text counts as sent.
 */
Message::Message(SharedText text) : text_(std::move(text))
{
  length_ = static_cast<guint32>(g_bytes_get_size(text_.get()));
}

/**
 * Message::is_sent:
 *
 * Returns: whether all bytes are sent
 */
bool
Message::is_sent() const
{
  return text_ == nullptr || sent_ == sizeof length_ + length_;
}

/**
 * Message::size:
 *
 * Returns: the bytes of the whole message, including the length
 */
gsize
Message::size() const
{
  return sizeof length_ + length_;
}

/**
 * Message::rest:
 * @limit: the maximum number of bytes
 *
 * Returns: the bytes to send next, for writev(); valid until the next call of a method
 */
std::span<const iovec>
Message::rest(gsize limit)
{
  const gsize of_length = std::min(sent_, sizeof length_);
  const gsize of_text = sent_ - of_length;
  const gsize length_bytes = std::min(sizeof length_ - of_length, limit);
  const gsize text_bytes = std::min(length_ - of_text, limit - length_bytes);
  const char *text = shared_text_view(text_).data();

  parts_[0] = {reinterpret_cast<char *>(&length_) + of_length, length_bytes};
  parts_[1] = {const_cast<char *>(text) + of_text, text_bytes};
  return length_bytes > 0 ? std::span<const iovec>(parts_) : std::span<const iovec>(parts_).subspan(1);
}

/**
 * Message::advance:
 * @bytes: the number of bytes of rest() that were sent
 */
void
Message::advance(gsize bytes)
{
  sent_ += bytes;
}

} // namespace receiver

#include "message.h"

#include <algorithm>

namespace sim
{

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
 * @offset: where the part begins
 * @size: how long it is, not beyond the end of @whole
 *
 * Returns: the part, which keeps @whole
 */
SharedText
shared_text_part(const SharedText &whole, gsize offset, gsize size)
{
  return {g_bytes_new_from_bytes(whole.get(), offset, size), g_bytes_unref};
}

/**
 * shared_text_view:
 * @text: a text
 *
 * Returns: the bytes of @text, which stay as long as it
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
 * @text: what to send, at most %MAX_TEXT_BYTES
 *
 * A message without a text is one that is sent.
 */
Message::Message(SharedText text) : text_(std::move(text))
{
  length_ = static_cast<guint32>(g_bytes_get_size(text_.get()));
}

/**
 * Message::is_sent:
 *
 * Returns: whether nothing is left to send
 */
bool
Message::is_sent() const
{
  return text_ == nullptr || sent_ == sizeof length_ + length_;
}

/**
 * Message::rest:
 * @limit: how many bytes are wanted at most
 *
 * Returns: what is to be sent next, for writev(); good until the message is used again
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
 * @bytes: how many of the bytes of rest() have been sent
 */
void
Message::advance(gsize bytes)
{
  sent_ += bytes;
}

} /* namespace sim */

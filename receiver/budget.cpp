/* SPDX-License-Identifier: MIT */
#include "budget.h"

#include "receiverlimits.h"

#include <algorithm>

namespace receiver
{

/**
 * Budget::add:
 * @stream: (transfer none): a stream, until remove()
 */
void
Budget::add(Stream *stream)
{
  streams_.insert(stream);
}

/**
 * Budget::remove:
 * @stream: (transfer none): a stream
 */
void
Budget::remove(Stream *stream)
{
  streams_.erase(stream);
}

/**
 * Budget::stream_count:
 *
 * Returns: the number of open streams
 */
gsize
Budget::stream_count() const
{
  return streams_.size();
}

/**
 * Budget::keep_queued_bytes:
 *
 * While all queues together have more than %RECEIVER_MAX_QUEUED_BYTES, ends the stream with the longest
 * queue. Call it after each message.
 */
void
Budget::keep_queued_bytes()
{
  while (shared_text_counted_bytes() > RECEIVER_MAX_QUEUED_BYTES) {
    const auto longest =
        std::max_element(streams_.begin(), streams_.end(), [](const Stream *one, const Stream *other) {
          return one->queued_bytes() < other->queued_bytes();
        });
    if (longest == streams_.end() || (*longest)->queued_bytes() == 0) {
      return;
    }
    (*longest)->abort("the queues of all streams are too long");
  }
}

} // namespace receiver

/* SPDX-License-Identifier: MIT */
#pragma once

#include "text.h"

#include <functional>
#include <string>

/* The messages of a producer and of one of its streams. Main thread only. */

namespace sim
{

/* A time that never comes. */
constexpr gint64 NEVER = G_MAXINT64;

/* The messages of one stream alone. The stream requests the next message when it has sent the previous one,
 * so no messages accumulate for a slow reader. */
class MessageSource
{
public:
  virtual ~MessageSource() = default;

  /* Whether there are no more messages; the stream then closes. */
  virtual bool has_ended() const = 0;

  /* The time of the next message, on the clock of g_get_monotonic_time(); NEVER until the source calls
   * Notify. */
  virtual gint64 due() = 0;

  /* The message that is due; unset if there is none after all. */
  virtual SharedText next() = 0;
};

/* The common part of a producer's streams. */
class Feed
{
public:
  /* Notifies the stream that the results of due() and has_ended() have changed. */
  using Notify = std::function<void()>;

  /* Sends a message to all streams that are open. */
  using Deliver = std::function<void(const SharedText &text)>;

  virtual ~Feed() = default;

  /* Called once, before any stream is opened. */
  virtual void start(const Deliver &deliver)
  {
  }

  virtual std::unique_ptr<MessageSource> open(Notify notify) = 0;
  virtual std::string sample_frame() const = 0;
};

} // namespace sim

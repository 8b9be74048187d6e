#pragma once

#include "message.h"

#include <functional>
#include <string>

/* What a producer has to say, and what one of its streams says of it. Main thread only. */

namespace sim
{

/* Nothing is due before the teller wakes its stream. */
constexpr gint64 NEVER = G_MAXINT64;

/* What one stream tells. The stream asks for the next text when it has got rid of the one before, so that
 * nothing piles up for a reader who does not read. */
class Teller
{
public:
  virtual ~Teller() = default;

  /* Whether nothing will come any more, and the stream shall be hung up. */
  virtual bool has_ended() const = 0;

  /* When the next text is due, as g_get_monotonic_time() has it. */
  virtual gint64 due() = 0;

  /* The text that is due; unset if there is none after all. */
  virtual SharedText next() = 0;
};

/* What a producer's streams have in common. */
class Feed
{
public:
  /* Tells the stream that what its teller says of due() and has_ended() is no longer so. */
  using Wake = std::function<void()>;

  virtual ~Feed() = default;

  virtual std::unique_ptr<Teller> open(Wake wake) = 0;
  virtual std::string sample_frame() const = 0;
};

} /* namespace sim */

#pragma once

#include "feed.h"
#include "recording.h"

namespace sim
{

/* How recordings are replayed. */
struct Pace {
  static constexpr guint MAX_RATE = 1000000;

  std::optional<guint>
      rate;          /* messages a second, 0 as fast as they are taken; unset: as they were recorded */
  bool once = false; /* whether the stream ends with the recording */
};

/* One replay of a recording, for ever or once. All times are microseconds: those of the clock that never
 * jumps, unless they are called UTC. */
class Replay
{
public:
  /* Between two lines, however far apart they were recorded. */
  static constexpr gint64 LONGEST_GAP = 60 * 60 * G_TIME_SPAN_SECOND;

  /* Between the last line and the first. */
  static constexpr gint64 SHORTEST_RESTART = 100 * G_TIME_SPAN_MILLISECOND;

  /* A replay that had to wait for longer does not hurry to make up for it. */
  static constexpr gint64 LONGEST_CATCH_UP = G_TIME_SPAN_SECOND;

  Replay(std::shared_ptr<const Recording> recording, const Pace &pace, gint64 now);

  bool has_ended() const;
  gint64 due() const;
  SharedText next(gint64 now, gint64 utc_now);

private:
  gint64 gap_before(gsize line) const;

  const std::shared_ptr<const Recording> recording_;
  const Pace pace_;
  gsize index_ = 0; /* of the next line */
  gint64 due_;
  std::vector<gint64> gaps_; /* before each line, as recorded */
};

/* Replays a recording on each stream from its start. */
class ReplayFeed : public Feed
{
public:
  ReplayFeed(std::shared_ptr<const Recording> recording, const Pace &pace);

  std::unique_ptr<Teller> open(Wake wake) override;
  std::string sample_frame() const override;

private:
  const std::shared_ptr<const Recording> recording_;
  const Pace &pace_;
};

} /* namespace sim */

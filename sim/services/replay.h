/* SPDX-License-Identifier: MIT */
#pragma once

#include "feed.h"
#include "recording.h"

namespace sim
{

/* The options of a replay. */
struct ReplayOptions {
  static constexpr guint MAX_RATE = 1000000;

  std::optional<guint>
      rate;          /* messages per second; 0: as fast as the reader takes them; unset: as recorded */
  bool once = false; /* whether the stream ends after the recording */
};

/* One replay of a recording, repeated or once. All times are in microseconds, on the monotonic clock unless
 * their name has "utc". */
class Replay
{
public:
  /* The maximum time between two lines. */
  static constexpr gint64 MAX_GAP = 60 * 60 * G_TIME_SPAN_SECOND;

  /* The minimum time between the last line and the first one of the next repetition. */
  static constexpr gint64 MIN_RESTART = 100 * G_TIME_SPAN_MILLISECOND;

  /* A replay that is late by more than this continues at its normal rate. */
  static constexpr gint64 MAX_CATCH_UP = G_TIME_SPAN_SECOND;

  Replay(std::shared_ptr<const Recording> recording, const ReplayOptions &options, gint64 now);

  bool has_ended() const;
  gint64 due() const;
  SharedText next(gint64 now, gint64 utc_now);

private:
  gint64 gap_before(gsize line) const;

  const std::shared_ptr<const Recording> recording_;
  const ReplayOptions options_;
  gsize index_ = 0; /* of the next line */
  gint64 due_;
  std::vector<gint64> gaps_; /* time before each line, as recorded */
};

/* Replays a recording on each stream, from the start of the recording. */
class ReplayFeed : public Feed
{
public:
  ReplayFeed(std::shared_ptr<const Recording> recording, const ReplayOptions &options);

  std::unique_ptr<MessageSource> open(Notify notify) override;
  std::string sample_frame() const override;

private:
  const std::shared_ptr<const Recording> recording_;
  const ReplayOptions &options_;
};

} // namespace sim

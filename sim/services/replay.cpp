/* SPDX-License-Identifier: MIT */
#include "replay.h"

#include "xml.h"

#include <algorithm>

namespace sim
{

namespace
{

/* The time before each line. Lines without a time, and lines with an earlier time than the previous one,
 * follow immediately. The time before the first line of a repetition is that before the last line with a
 * time. */
std::vector<gint64>
measure_gaps(const Recording &recording)
{
  std::vector<gint64> gaps;
  std::optional<gint64> before;
  gint64 latest_gap = 0;

  for (const Recording::Line &line : recording.lines) {
    gint64 gap = 0;
    if (line.stamp.has_value()) {
      gap = std::clamp(line.stamp->utc - before.value_or(line.stamp->utc), gint64{0}, Replay::MAX_GAP);
      latest_gap = before.has_value() ? gap : latest_gap;
      before = line.stamp->utc;
    }
    gaps.push_back(gap);
  }
  gaps.front() = std::max(latest_gap, Replay::MIN_RESTART);
  return gaps;
}

/* Replaces the time of a line. */
SharedText
with_time(const Recording::Line &line, gint64 utc)
{
  if (!line.stamp.has_value()) {
    return line.text;
  }
  const std::string_view text = shared_text_view(line.text);
  std::string shifted(text.substr(0, line.stamp->offset));
  shifted.append(onvif::xml_date_time(utc)).append(text.substr(line.stamp->offset + line.stamp->size));
  return shifted.size() <= MAX_TEXT_BYTES ? shared_text_copy(shifted) : line.text;
}

class ReplayMessages : public MessageSource
{
public:
  ReplayMessages(std::shared_ptr<const Recording> recording, const ReplayOptions &options)
      : replay_(std::move(recording), options, g_get_monotonic_time())
  {
  }

  bool has_ended() const override
  {
    return replay_.has_ended();
  }

  gint64 due() override
  {
    return replay_.due();
  }

  SharedText next() override
  {
    return replay_.next(g_get_monotonic_time(), g_get_real_time());
  }

private:
  Replay replay_;
};

} // namespace

/**
 * Replay:
 * @recording: the recording
 * @options: the options
 * @now: the current time; the first line is due at this time
 */
Replay::Replay(std::shared_ptr<const Recording> recording, const ReplayOptions &options, gint64 now)
    : recording_(std::move(recording)), options_(options), due_(now)
{
  if (!options_.rate.has_value()) {
    gaps_ = measure_gaps(*recording_);
  }
}

/**
 * Replay::has_ended:
 *
 * Returns: whether the replay has ended
 */
bool
Replay::has_ended() const
{
  return options_.once && index_ == recording_->lines.size();
}

/**
 * Replay::due:
 *
 * Returns: the time of the next line
 */
gint64
Replay::due() const
{
  return due_;
}

/**
 * Replay::next:
 * @now: the current time
 * @utc_now: the same time in microseconds since 1970
 *
 * Call it when a line is due.
 *
 * Returns: the next line; with a rate unchanged, otherwise with the time at which it is due
 */
SharedText
Replay::next(gint64 now, gint64 utc_now)
{
  if (now - due_ > MAX_CATCH_UP || options_.rate == 0U) {
    due_ = now;
  }
  const gsize count = recording_->lines.size();
  const Recording::Line &line = recording_->lines[index_ % count];
  SharedText text = options_.rate.has_value() ? line.text : with_time(line, utc_now - (now - due_));

  index_++;
  if (index_ == count && !options_.once) {
    index_ = 0;
  }
  due_ += gap_before(index_ % count);
  return text;
}

gint64
Replay::gap_before(gsize line) const
{
  if (!options_.rate.has_value()) {
    return gaps_[line];
  }
  return *options_.rate > 0 ? G_TIME_SPAN_SECOND / *options_.rate : 0;
}

/**
 * ReplayFeed:
 * @recording: the recording
 * @options: the options; outlive the feed. A stream uses their values at its start.
 */
ReplayFeed::ReplayFeed(std::shared_ptr<const Recording> recording, const ReplayOptions &options)
    : recording_(std::move(recording)), options_(options)
{
}

std::unique_ptr<MessageSource>
ReplayFeed::open(Notify notify)
{
  return std::make_unique<ReplayMessages>(recording_, options_);
}

std::string
ReplayFeed::sample_frame() const
{
  return std::string(shared_text_view(recording_->lines.front().text));
}

} // namespace sim

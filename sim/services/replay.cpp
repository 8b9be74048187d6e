#include "replay.h"

#include "xml.h"

#include <algorithm>

namespace sim
{

namespace
{

/* The gaps before each line. Lines without a time follow at once, as do those that go back in time. Before
 * the first line, which follows the last one, there is the gap that came last. */
std::vector<gint64>
measure_gaps(const Recording &recording)
{
  std::vector<gint64> gaps;
  std::optional<gint64> before;
  gint64 latest_gap = 0;

  for (const Recording::Line &line : recording.lines) {
    gint64 gap = 0;
    if (line.stamp.has_value()) {
      gap = std::clamp(line.stamp->utc - before.value_or(line.stamp->utc), gint64{0}, Replay::LONGEST_GAP);
      latest_gap = before.has_value() ? gap : latest_gap;
      before = line.stamp->utc;
    }
    gaps.push_back(gap);
  }
  gaps.front() = std::max(latest_gap, Replay::SHORTEST_RESTART);
  return gaps;
}

/* Tells the line's item as of another time. */
SharedText
move_to(const Recording::Line &line, gint64 utc)
{
  if (!line.stamp.has_value()) {
    return line.text;
  }
  const std::string_view text = shared_text_view(line.text);
  g_autofree char *time = onvif::xml_date_time(utc);
  std::string moved(text.substr(0, line.stamp->offset));
  moved.append(time).append(text.substr(line.stamp->offset + line.stamp->size));
  return moved.size() <= Message::MAX_TEXT_BYTES ? shared_text_copy(moved) : line.text;
}

class ReplayTeller : public Teller
{
public:
  ReplayTeller(std::shared_ptr<const Recording> recording, const Pace &pace)
      : replay_(std::move(recording), pace, g_get_monotonic_time())
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

} /* namespace */

/**
 * Replay:
 * @recording: what to replay
 * @pace: how
 * @now: the present time, at which the first line is due
 */
Replay::Replay(std::shared_ptr<const Recording> recording, const Pace &pace, gint64 now)
    : recording_(std::move(recording)), pace_(pace), due_(now)
{
  if (!pace_.rate.has_value()) {
    gaps_ = measure_gaps(*recording_);
  }
}

/**
 * Replay::has_ended:
 *
 * Returns: whether the last line has been told and nothing follows
 */
bool
Replay::has_ended() const
{
  return pace_.once && index_ == recording_->lines.size();
}

/**
 * Replay::due:
 *
 * Returns: when the next line is due
 */
gint64
Replay::due() const
{
  return due_;
}

/**
 * Replay::next:
 * @now: the present time
 * @utc_now: the same as microseconds since 1970
 *
 * Tells the next line, which is due. With a rate, it is as recorded; else as of the time at which it is due.
 *
 * Returns: the line
 */
SharedText
Replay::next(gint64 now, gint64 utc_now)
{
  if (now - due_ > LONGEST_CATCH_UP || pace_.rate == 0U) {
    due_ = now;
  }
  const gsize count = recording_->lines.size();
  const Recording::Line &line = recording_->lines[index_ % count];
  SharedText text = pace_.rate.has_value() ? line.text : move_to(line, utc_now - (now - due_));

  index_++;
  if (index_ == count && !pace_.once) {
    index_ = 0;
  }
  due_ += gap_before(index_ % count);
  return text;
}

gint64
Replay::gap_before(gsize line) const
{
  if (!pace_.rate.has_value()) {
    return gaps_[line];
  }
  return *pace_.rate > 0 ? G_TIME_SPAN_SECOND / *pace_.rate : 0;
}

/**
 * ReplayFeed:
 * @recording: what to replay
 * @pace: how; outlives the feed, and streams take what it is when they begin
 */
ReplayFeed::ReplayFeed(std::shared_ptr<const Recording> recording, const Pace &pace)
    : recording_(std::move(recording)), pace_(pace)
{
}

std::unique_ptr<Teller>
ReplayFeed::open(Wake wake)
{
  return std::make_unique<ReplayTeller>(recording_, pace_);
}

std::string
ReplayFeed::sample_frame() const
{
  return std::string(shared_text_view(recording_->lines.front().text));
}

} /* namespace sim */

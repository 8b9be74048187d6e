/* SPDX-License-Identifier: MIT */
#include "replay.h"

#include <gtest/gtest.h>

using sim::Recording;
using sim::recording_find_stamp;
using sim::Replay;
using sim::ReplayOptions;

namespace
{

constexpr gint64 SECOND = G_TIME_SPAN_SECOND;

/* The current time on both clocks. */
constexpr gint64 NOW = 1000 * SECOND;
constexpr gint64 UTC_NOW = G_GINT64_CONSTANT(1704067200) * SECOND; /* the start of 2024 */

std::shared_ptr<const Recording>
recording_of(const std::vector<std::string> &lines)
{
  auto recording = std::make_shared<Recording>();
  for (const std::string &line : lines) {
    recording->lines.push_back({sim::shared_text_copy(line), recording_find_stamp(line)});
  }
  return recording;
}

std::string
line_at(const std::string &time)
{
  return R"({"UtcTime":"2020-02-03T00:00:)" + time + R"(Z"})";
}

std::string
text_of(const sim::SharedText &text)
{
  return std::string(sim::shared_text_view(text));
}

/* Takes the next line at the time at which it is due. */
std::string
next(Replay &replay)
{
  return text_of(replay.next(replay.due(), UTC_NOW + replay.due() - NOW));
}

std::vector<gint64>
gaps_of(Replay &replay, int count)
{
  std::vector<gint64> gaps;
  for (int i = 0; i < count; i++) {
    gint64 before = replay.due();
    next(replay);
    gaps.push_back(replay.due() - before);
  }
  return gaps;
}

TEST(Stamp, IsFoundInTheOutermostObject)
{
  const std::string line = R"({"A":{"UtcTime":"2020-02-03T00:00:01Z"},"B":["UtcTime",{}] , "UtcTime" : )"
                           R"("1970-01-01T00:00:02.5Z","C":1})";
  auto stamp = recording_find_stamp(line);
  ASSERT_TRUE(stamp.has_value());
  EXPECT_EQ(stamp->utc, 2500000);
  EXPECT_EQ(line.substr(stamp->offset, stamp->size), "1970-01-01T00:00:02.5Z");
}

TEST(Stamp, TimeZonesAreApplied)
{
  auto stamp = recording_find_stamp(R"({"UtcTime":"1970-01-01T01:00:00+01:00"})");
  ASSERT_TRUE(stamp.has_value());
  EXPECT_EQ(stamp->utc, 0);
}

TEST(Stamp, SimilarTextIsNotAStamp)
{
  auto stamp = recording_find_stamp(
      R"({"A":"{\"UtcTime\":\"2020-02-03T00:00:01Z\"}","UtcTime":"1970-01-01T00:00:00Z"})");
  ASSERT_TRUE(stamp.has_value());
  EXPECT_EQ(stamp->utc, 0);
}

class NoStamp : public testing::TestWithParam<const char *>
{
};

TEST_P(NoStamp, IsFound)
{
  EXPECT_FALSE(recording_find_stamp(GetParam()).has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, NoStamp,
    testing::Values(
        "", "{", "{}", "\"", "{\"", "{\"\\", "{\"UtcTime", "{\"UtcTime\"", "{\"UtcTime\":", "{\"UtcTime\": ",
        "{\"UtcTime\":5}", "{\"UtcTime\":\"", "{\"UtcTime\":\"yesterday\"}", "{\"UtcTime\":null}",
        "\"UtcTime\":\"1970-01-01T00:00:00Z\"", "{\"a\":{\"UtcTime\":\"1970-01-01T00:00:00Z\"}}",
        "}}{\"UtcTime\":\"1970-01-01T00:00:00Z\"}", "{\"x\":\"UtcTime\"}",
        "{\"UtcTime\":\"1970-01-01T00:00:00.00000000000000000000000000000000000000000000000000Z\"}"));

TEST(ReplayTest, FirstLineIsDueImmediatelyWithTheCurrentTime)
{
  Replay replay(recording_of({line_at("01"), line_at("02")}), {}, NOW);
  EXPECT_EQ(replay.due(), NOW);
  EXPECT_EQ(text_of(replay.next(NOW, UTC_NOW)), R"({"UtcTime":"2024-01-01T00:00:00.000000Z"})");
}

TEST(ReplayTest, LinesKeepTheirGapsAndTheLastGapRepeatsBeforeTheFirst)
{
  Replay replay(recording_of({line_at("01"), line_at("02.5"), line_at("02.75")}), {}, NOW);
  EXPECT_EQ(gaps_of(replay, 6), std::vector<gint64>({1500000, 250000, 250000, 1500000, 250000, 250000}));
  EXPECT_EQ(next(replay), R"({"UtcTime":"2024-01-01T00:00:04.000000Z"})");
}

TEST(ReplayTest, CatchesUpAfterAShortDelay)
{
  Replay replay(recording_of({line_at("01"), line_at("02")}), {}, NOW);
  EXPECT_EQ(text_of(replay.next(NOW + Replay::MAX_CATCH_UP, UTC_NOW + Replay::MAX_CATCH_UP)),
            R"({"UtcTime":"2024-01-01T00:00:00.000000Z"})");
  EXPECT_EQ(replay.due(), NOW + SECOND);
}

TEST(ReplayTest, ContinuesAtItsRateAfterALongDelay)
{
  const gint64 late = Replay::MAX_CATCH_UP + 1;
  Replay replay(recording_of({line_at("01"), line_at("02")}), {}, NOW);
  EXPECT_EQ(text_of(replay.next(NOW + late, UTC_NOW + late)), R"({"UtcTime":"2024-01-01T00:00:01.000001Z"})");
  EXPECT_EQ(replay.due(), NOW + late + SECOND);
}

TEST(ReplayTest, LinesWithoutATimeFollowImmediatelyUnchanged)
{
  Replay replay(recording_of({"a", line_at("01"), "b", line_at("03"), "c"}), {}, NOW);
  EXPECT_EQ(gaps_of(replay, 5), std::vector<gint64>({0, 0, 2 * SECOND, 0, 2 * SECOND}));
  EXPECT_EQ(next(replay), "a");
}

TEST(ReplayTest, DecreasingTimesFollowImmediatelyAndLongGapsAreLimited)
{
  Replay replay(recording_of({line_at("05"), line_at("01"), R"({"UtcTime":"2030-01-01T00:00:00Z"})"}), {},
                NOW);
  EXPECT_EQ(gaps_of(replay, 3), std::vector<gint64>({0, Replay::MAX_GAP, Replay::MAX_GAP}));
}

TEST(ReplayTest, RecordingWithoutTimesHasTheMinimumRestartGap)
{
  Replay replay(recording_of({"a", "b"}), {}, NOW);
  EXPECT_EQ(gaps_of(replay, 4), std::vector<gint64>({0, Replay::MIN_RESTART, 0, Replay::MIN_RESTART}));
}

TEST(ReplayTest, RateSendsUnchangedLinesAtEqualIntervals)
{
  Replay replay(recording_of({line_at("01"), line_at("09")}), {.rate = 4U}, NOW);
  EXPECT_EQ(gaps_of(replay, 3), std::vector<gint64>(3, SECOND / 4));
  EXPECT_EQ(next(replay), line_at("09"));
}

TEST(ReplayTest, RateZeroMakesEveryLineDueImmediately)
{
  Replay replay(recording_of({line_at("01"), line_at("09")}), {.rate = 0U}, NOW);
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(text_of(replay.next(NOW + i, UTC_NOW)), line_at(i % 2 == 0 ? "01" : "09"));
    EXPECT_LE(replay.due(), NOW + i);
  }
}

TEST(ReplayTest, OnceEndsAfterTheLastLine)
{
  Replay replay(recording_of({"a", "b"}), {.rate = 0U, .once = true}, NOW);
  EXPECT_FALSE(replay.has_ended());
  EXPECT_EQ(next(replay), "a");
  EXPECT_FALSE(replay.has_ended());
  EXPECT_EQ(next(replay), "b");
  EXPECT_TRUE(replay.has_ended());
}

TEST(ReplayTest, RepeatedReplayNeverEnds)
{
  Replay replay(recording_of({"a"}), {.rate = 0U}, NOW);
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(next(replay), "a");
    EXPECT_FALSE(replay.has_ended());
  }
}

TEST(ReplayTest, LineOfMaximumLengthIsNotMadeLonger)
{
  std::string line = line_at("01");
  line += std::string(sim::MAX_TEXT_BYTES - line.size(), ' ');
  Replay replay(recording_of({line}), {}, NOW);
  EXPECT_EQ(next(replay), line);
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "ratelimit.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

using plugins::RateLimit;

constexpr guint SECONDS = 10;

GstClockTime
time_of_frame(guint number, guint rate)
{
  return gst_util_uint64_scale(number, GST_SECOND, rate);
}

/* The frames that are taken of ten seconds of a stream. */
std::vector<guint>
taken(double limit, guint rate)
{
  RateLimit selector(limit);
  std::vector<guint> frames;
  for (guint i = 0; i < SECONDS * rate; i++) {
    if (selector.take(time_of_frame(i, rate))) {
      frames.push_back(i);
    }
  }
  return frames;
}

} // namespace

TEST(RateLimitTest, WithoutALimitEveryFrameIsTaken)
{
  EXPECT_EQ(taken(0, 60).size(), 600U);
}

TEST(RateLimitTest, LimitAboveTheRateTakesEveryFrame)
{
  EXPECT_EQ(taken(31, 30).size(), 300U);
  EXPECT_EQ(taken(30, 30).size(), 300U);
}

TEST(RateLimitTest, FramesAreEvenlySpaced)
{
  std::vector<guint> frames = taken(10, 30);
  ASSERT_EQ(frames.size(), 100U);
  for (guint i = 0; i < frames.size(); i++) {
    EXPECT_EQ(frames[i], 3 * i);
  }
}

TEST(RateLimitTest, RateThatDoesNotDivideTheStreamsIsKeptOnAverage)
{
  EXPECT_EQ(taken(7, 30).size(), 70U);
  EXPECT_EQ(taken(25, 30).size(), 250U);
}

TEST(RateLimitTest, RateCanBeBelowOne)
{
  EXPECT_EQ(taken(0.5, 30), (std::vector<guint>{0, 60, 120, 180, 240}));
}

TEST(RateLimitTest, SmallestRateTakesOneFrame)
{
  EXPECT_EQ(taken(G_MINDOUBLE, 30), std::vector<guint>{0});
}

TEST(RateLimitTest, FrameThatIsALittleEarlyIsTaken)
{
  RateLimit selector(10);
  EXPECT_TRUE(selector.take(0));
  EXPECT_FALSE(selector.take(100 * GST_MSECOND - plugins::RATE_LIMIT_TOLERANCE - 1));
  EXPECT_TRUE(selector.take(100 * GST_MSECOND - plugins::RATE_LIMIT_TOLERANCE));
  EXPECT_FALSE(selector.take(198 * GST_MSECOND));
}

TEST(RateLimitTest, PauseIsNotMadeUpFor)
{
  RateLimit selector(10);
  EXPECT_TRUE(selector.take(0));
  EXPECT_TRUE(selector.take(5 * GST_SECOND));
  EXPECT_FALSE(selector.take(5 * GST_SECOND + 50 * GST_MSECOND));
}

TEST(RateLimitTest, JumpBackBeginsAgain)
{
  RateLimit selector(10);
  EXPECT_TRUE(selector.take(5 * GST_SECOND));
  EXPECT_TRUE(selector.take(0));
  EXPECT_FALSE(selector.take(50 * GST_MSECOND));
  EXPECT_TRUE(selector.take(100 * GST_MSECOND));
}

/* SPDX-License-Identifier: MIT */
#include "frametime.h"

#include "metadatalimits.h"

#include <gtest/gtest.h>

namespace
{

using plugins::frame_time_of_reference;
using plugins::WallClock;

/* 2024-01-01T00:00:00Z */
constexpr guint64 NEW_YEAR_SECONDS = 1704067200;
constexpr gint64 NEW_YEAR = NEW_YEAR_SECONDS * G_USEC_PER_SEC;

/* The same for NTP. */
constexpr guint64 NEW_YEAR_NTP_SECONDS = 3913056000;

constexpr const char *UNIX = "timestamp/x-unix";
constexpr const char *NTP = "timestamp/x-ntp";

class FrameTimeTest : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    gst_init(nullptr, nullptr);
  }

  void TearDown() override
  {
    gst_buffer_unref(buffer_);
  }

  void add(const char *caps_text, GstClockTime time)
  {
    g_autoptr(GstCaps) caps = gst_caps_from_string(caps_text);
    gst_buffer_add_reference_timestamp_meta(buffer_, caps, time, GST_CLOCK_TIME_NONE);
  }

  std::optional<gint64> read()
  {
    return frame_time_of_reference(buffer_);
  }

  GstBuffer *buffer_ = gst_buffer_new();
};

} // namespace

TEST_F(FrameTimeTest, BufferWithoutReferenceHasNone)
{
  EXPECT_EQ(read(), std::nullopt);
}

TEST_F(FrameTimeTest, ReferenceOfAnotherClockIsIgnored)
{
  add("timestamp/x-drivername-stream", NEW_YEAR_SECONDS * GST_SECOND);
  EXPECT_EQ(read(), std::nullopt);
}

TEST_F(FrameTimeTest, UnixTimeIsFrom1970)
{
  add(UNIX, NEW_YEAR_SECONDS * GST_SECOND + 250 * GST_MSECOND);
  EXPECT_EQ(read(), NEW_YEAR + 250000);
}

TEST_F(FrameTimeTest, NtpTimeIsFrom1900)
{
  add(NTP, NEW_YEAR_NTP_SECONDS * GST_SECOND + 250 * GST_MSECOND);
  EXPECT_EQ(read(), NEW_YEAR + 250000);
}

TEST_F(FrameTimeTest, UnixTimeIsPreferred)
{
  add(NTP, (NEW_YEAR_NTP_SECONDS + 10) * GST_SECOND);
  add(UNIX, NEW_YEAR_SECONDS * GST_SECOND);
  EXPECT_EQ(read(), NEW_YEAR);
}

TEST_F(FrameTimeTest, TimeBefore1970IsIgnored)
{
  add(NTP, GST_SECOND);
  EXPECT_EQ(read(), std::nullopt);
}

TEST_F(FrameTimeTest, TimeAfter2099IsIgnored)
{
  add(UNIX, static_cast<GstClockTime>(onvif::LATEST_UTC) * GST_USECOND + GST_SECOND);
  EXPECT_EQ(read(), std::nullopt);
}

TEST(WallClockTest, RunningTimeIsAddedToTheWallClock)
{
  WallClock clock;
  clock.compare(2 * GST_SECOND, NEW_YEAR);
  EXPECT_EQ(clock.utc_at(2 * GST_SECOND), NEW_YEAR);
  EXPECT_EQ(clock.utc_at(0), NEW_YEAR - 2 * G_USEC_PER_SEC);
  EXPECT_EQ(clock.utc_at(3 * GST_SECOND + 40 * GST_MSECOND), NEW_YEAR + 1040000);
}

TEST(WallClockTest, DriftIsIgnored)
{
  WallClock clock;
  clock.compare(0, NEW_YEAR);
  clock.compare(10 * GST_SECOND, NEW_YEAR + 10 * G_USEC_PER_SEC + plugins::FRAME_TIME_STEP_US);
  EXPECT_EQ(clock.utc_at(0), NEW_YEAR);
}

TEST(WallClockTest, WallClockThatWasSetCounts)
{
  WallClock clock;
  clock.compare(0, 0);
  clock.compare(10 * GST_SECOND, NEW_YEAR);
  EXPECT_EQ(clock.utc_at(11 * GST_SECOND), NEW_YEAR + G_USEC_PER_SEC);
  clock.compare(20 * GST_SECOND, 0);
  EXPECT_EQ(clock.utc_at(21 * GST_SECOND), G_USEC_PER_SEC);
}

TEST(WallClockTest, ComparisonAfterAResetIsTheFirst)
{
  WallClock clock;
  clock.compare(0, NEW_YEAR);
  clock.reset();
  clock.compare(0, NEW_YEAR + 1000);
  EXPECT_EQ(clock.utc_at(0), NEW_YEAR + 1000);
}

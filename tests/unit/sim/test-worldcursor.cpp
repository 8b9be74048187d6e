/* SPDX-License-Identifier: MIT */
#include "scenesequence.h"
#include "wallclock.h"
#include "worldcursor.h"

#include <gtest/gtest.h>

namespace
{

constexpr gint64 HOUR = gint64{3600} * G_USEC_PER_SEC;
constexpr gint64 LONGEST_SLEEP = 60 * G_USEC_PER_SEC;
constexpr int READS = 6;

/* Another process sets the wall clock back after each possible number of reads in one call. */
class ClockSetBack : public testing::TestWithParam<int>
{
protected:
  void TearDown() override
  {
    set_wall_clock_offset(0);
  }
};

TEST_P(ClockSetBack, WaitForAChangeIsLimited)
{
  sim::WorldCursor cursor;
  cursor.open();
  cursor.advance_to(cursor.now());
  set_wall_clock_offset_after(GetParam(), -HOUR);
  EXPECT_LT(cursor.next_change_deadline() - g_get_monotonic_time(), LONGEST_SLEEP);
}

TEST_P(ClockSetBack, WaitForASceneIsLimited)
{
  sim::SceneSequence scenes;
  scenes.open(std::nullopt);
  scenes.next_scene();
  set_wall_clock_offset_after(GetParam(), -HOUR);
  EXPECT_LT(scenes.time_until_next(), LONGEST_SLEEP);
}

INSTANTIATE_TEST_SUITE_P(Reads, ClockSetBack, testing::Range(0, READS));

} // namespace

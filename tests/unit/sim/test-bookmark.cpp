#include "bookmark.h"
#include "scenestory.h"
#include "wallclock.h"

#include <gtest/gtest.h>

namespace
{

constexpr gint64 HOUR = gint64{3600} * G_USEC_PER_SEC;
constexpr gint64 LONGEST_SLEEP = 60 * G_USEC_PER_SEC;
constexpr int LOOKS = 6;

/* Somebody sets the wall clock back after each number of looks that one question may take. */
class ClockSetBack : public testing::TestWithParam<int>
{
protected:
  void TearDown() override
  {
    set_wall_clock_offset(0);
  }
};

TEST_P(ClockSetBack, NoChangeIsWaitedForAnHour)
{
  sim::Bookmark bookmark;
  bookmark.open();
  bookmark.move_to(bookmark.now());
  set_wall_clock_offset_after(GetParam(), -HOUR);
  EXPECT_LT(bookmark.next_change_deadline() - g_get_monotonic_time(), LONGEST_SLEEP);
}

TEST_P(ClockSetBack, NoSceneIsWaitedForAnHour)
{
  sim::SceneStory story;
  story.open(std::nullopt);
  story.next_scene();
  set_wall_clock_offset_after(GetParam(), -HOUR);
  EXPECT_LT(story.time_left(), LONGEST_SLEEP);
}

INSTANTIATE_TEST_SUITE_P(Looks, ClockSetBack, testing::Range(0, LOOKS));

} /* namespace */

#include "world.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>

using sim::Change;
using sim::ChangeType;
using sim::Direction;
using sim::Object;
using sim::World;
using sim::WorldTime;

namespace
{

constexpr WorldTime SECOND = G_USEC_PER_SEC;
constexpr WorldTime MILLISECOND = SECOND / 1000;
constexpr guint64 SEED = 42;

/* How the tests look at a world: for five minutes, a part of them before its epoch. */
constexpr WorldTime START = -60 * SECOND;
constexpr WorldTime END = 240 * SECOND;

std::vector<Change>
changes_of(guint64 seed)
{
  return World(seed).changes_between(START, END);
}

const Object *
find(const std::vector<Object> &objects, gint64 id)
{
  auto found =
      std::find_if(objects.begin(), objects.end(), [id](const Object &object) { return object.id == id; });
  return found != objects.end() ? &*found : nullptr;
}

/* Negative on the left of the line, positive on its right. */
double
side(const sim::Line &line, const sim::Point &point)
{
  double dx = line.bottom.x - line.top.x;
  double dy = line.bottom.y - line.top.y;
  return (point.y - line.top.y) * dx - (point.x - line.top.x) * dy;
}

TEST(World, SameSeedTellsTheSameStory)
{
  EXPECT_EQ(changes_of(SEED), changes_of(SEED));
  for (WorldTime time = START; time < END; time += 700 * MILLISECOND) {
    std::vector<Object> one = World(SEED).objects_at(time);
    std::vector<Object> other = World(SEED).objects_at(time);
    ASSERT_EQ(one.size(), other.size());
    for (gsize i = 0; i < one.size(); i++) {
      EXPECT_EQ(one[i].id, other[i].id);
      EXPECT_EQ(one[i].centre.x, other[i].centre.x);
      EXPECT_EQ(one[i].centre.y, other[i].centre.y);
    }
  }
}

TEST(World, DifferentSeedsDiffer)
{
  for (guint64 seed = 0; seed < 20; seed++) {
    EXPECT_FALSE(changes_of(seed) == changes_of(seed + 1)) << "seed " << seed;
    EXPECT_NE(World(seed).line().top.x, World(seed + 1).line().top.x) << "seed " << seed;
  }
}

TEST(World, EveryKindOfChangeHappens)
{
  std::map<ChangeType, int> counts;
  std::map<Direction, int> directions;
  for (const Change &change : changes_of(SEED)) {
    counts[change.type]++;
    if (change.type == ChangeType::CROSSING) {
      directions[change.direction]++;
    }
  }
  EXPECT_EQ(counts.size(), 3u);
  EXPECT_EQ(directions.size(), 2u);
}

TEST(World, ChangesComeInOrderAndWithinTheirSpan)
{
  std::vector<Change> changes = changes_of(SEED);
  EXPECT_TRUE(std::is_sorted(changes.begin(), changes.end(),
                             [](const Change &a, const Change &b) { return a.time < b.time; }));
  EXPECT_GT(changes.front().time, START);
  EXPECT_LE(changes.back().time, END);
}

TEST(World, ConsecutiveSpansMissAndRepeatNothing)
{
  World world(SEED);
  std::vector<Change> whole = changes_of(SEED);
  std::vector<WorldTime> cuts = {START, -1, 0, 1, whole[5].time - 1, whole[5].time, whole[5].time + 1, END};
  std::sort(cuts.begin(), cuts.end());
  std::vector<Change> joined;
  for (gsize i = 0; i + 1 < cuts.size(); i++) {
    for (const Change &change : world.changes_between(cuts[i], cuts[i + 1])) {
      joined.push_back(change);
    }
  }
  EXPECT_EQ(joined, whole);
}

TEST(World, EmptyAndBackwardSpansHoldNothing)
{
  World world(SEED);
  WorldTime time = changes_of(SEED).front().time;
  EXPECT_TRUE(world.changes_between(time, time).empty());
  EXPECT_TRUE(world.changes_between(END, START).empty());
  EXPECT_EQ(world.changes_between(time - 1, time).size(), 1u);
}

TEST(World, StatesChangeExactlyWhenAnnounced)
{
  World world(SEED);
  std::vector<bool> inputs;
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    inputs.push_back(world.input_at(input, START));
  }
  bool motion = world.motion_at(START);
  WorldTime last = START;

  for (const Change &change : changes_of(SEED)) {
    /* Just before the change everything is as it was left. */
    for (WorldTime time : {(last + change.time) / 2, change.time - 1}) {
      if (time <= last || time >= change.time) {
        continue;
      }
      for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
        EXPECT_EQ(world.input_at(input, time), inputs[input]) << "at " << time;
      }
      EXPECT_EQ(world.motion_at(time), motion) << "at " << time;
    }
    if (change.type == ChangeType::INPUT) {
      EXPECT_NE(change.state, inputs[change.input]) << "at " << change.time;
      inputs[change.input] = change.state;
      EXPECT_EQ(world.input_at(change.input, change.time), change.state);
    }
    if (change.type == ChangeType::MOTION) {
      EXPECT_NE(change.state, motion) << "at " << change.time;
      motion = change.state;
      EXPECT_EQ(world.motion_at(change.time), change.state);
    }
    last = change.time;
  }
}

TEST(World, CrossingNamesTheObjectThatCrosses)
{
  World world(SEED);
  int crossings = 0;
  for (const Change &change : changes_of(SEED)) {
    if (change.type != ChangeType::CROSSING) {
      continue;
    }
    crossings++;
    std::vector<Object> before = world.objects_at(change.time - MILLISECOND);
    std::vector<Object> after = world.objects_at(change.time + MILLISECOND);
    const Object *earlier = find(before, change.object_id);
    const Object *later = find(after, change.object_id);
    ASSERT_NE(earlier, nullptr) << "at " << change.time;
    ASSERT_NE(later, nullptr) << "at " << change.time;
    double sign = change.direction == Direction::LEFT_TO_RIGHT ? 1 : -1;
    EXPECT_LT(side(world.line(), earlier->centre) * sign, 0) << "at " << change.time;
    EXPECT_GT(side(world.line(), later->centre) * sign, 0) << "at " << change.time;
    EXPECT_GT(later->velocity.x * sign, 0) << "at " << change.time;
  }
  EXPECT_GT(crossings, 50);
}

TEST(World, EveryObjectSeenOnBothSidesHasCrossedOnce)
{
  World world(SEED);
  std::map<gint64, int> announced;
  for (const Change &change : changes_of(SEED)) {
    if (change.type == ChangeType::CROSSING) {
      announced[change.object_id]++;
    }
  }

  std::map<gint64, std::pair<bool, bool>> sides;
  for (WorldTime time = START + 1; time <= END; time += 20 * MILLISECOND) {
    for (const Object &object : world.objects_at(time)) {
      bool right = side(world.line(), object.centre) > 0;
      auto &[seen_left, seen_right] = sides[object.id];
      (right ? seen_right : seen_left) = true;
    }
  }
  for (const auto &[id, seen] : sides) {
    EXPECT_EQ(announced[id], seen.first && seen.second ? 1 : 0) << "object " << id;
  }
}

TEST(World, ObjectsMoveSmoothlyThroughThePicture)
{
  World world(SEED);
  for (WorldTime time = START; time < END; time += 130 * MILLISECOND) {
    std::vector<Object> later = world.objects_at(time + 10 * MILLISECOND);
    for (const Object &object : world.objects_at(time)) {
      EXPECT_LE(std::abs(object.centre.x), 1 + object.width / 2 + 1e-9);
      EXPECT_LE(std::abs(object.centre.y), 1 - object.height / 2 + 1e-9);
      const Object *moved = find(later, object.id);
      if (moved == nullptr) {
        continue;
      }
      EXPECT_NEAR(moved->centre.x, object.centre.x + object.velocity.x * 0.01, 1e-6);
      EXPECT_NEAR(moved->centre.y, object.centre.y + object.velocity.y * 0.01, 1e-6);
    }
  }
}

TEST(World, SomethingHappensEverySecondOrSo)
{
  for (guint64 seed = 0; seed < 10; seed++) {
    std::vector<Change> changes = changes_of(seed);
    EXPECT_GE(static_cast<WorldTime>(changes.size()), (END - START) / SECOND) << "seed " << seed;
    WorldTime last = START;
    for (const Change &change : changes) {
      EXPECT_LT(change.time - last, 5 * SECOND) << "seed " << seed;
      last = change.time;
    }
  }
}

TEST(World, NextChangeIsTheFirstOne)
{
  World world(SEED);
  WorldTime time = START;
  for (const Change &change : changes_of(SEED)) {
    EXPECT_EQ(world.next_change_after(time), change.time);
    EXPECT_EQ(world.next_change_after(change.time - 1), change.time);
    time = change.time;
  }
}

} /* namespace */

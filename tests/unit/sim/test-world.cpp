/* SPDX-License-Identifier: MIT */
#include "world.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>

using sim::Change;
using sim::ChangeType;
using sim::Direction;
using sim::Object;
using sim::Ptz;
using sim::World;
using sim::WorldTime;

namespace
{

constexpr WorldTime SECOND = G_USEC_PER_SEC;
constexpr WorldTime MILLISECOND = SECOND / 1000;
constexpr guint64 SEED = 42;

/* The interval of the tests: five minutes, a part of them before the epoch. */
constexpr WorldTime START = -60 * SECOND;
constexpr WorldTime END = 240 * SECOND;

std::vector<Change>
changes_of(guint64 seed)
{
  return World(seed).changes_between(START, END);
}

bool
is_head_change(const Change &change)
{
  return change.type == ChangeType::PAN_TILT || change.type == ChangeType::ZOOM;
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

TEST(World, SameSeedGivesTheSameWorld)
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
  EXPECT_EQ(counts.size(), 5u);
  EXPECT_EQ(directions.size(), 2u);
}

TEST(World, ChangesAreInOrderAndWithinTheInterval)
{
  std::vector<Change> changes = changes_of(SEED);
  EXPECT_TRUE(std::is_sorted(changes.begin(), changes.end(),
                             [](const Change &a, const Change &b) { return a.time < b.time; }));
  EXPECT_GT(changes.front().time, START);
  EXPECT_LE(changes.back().time, END);
}

TEST(World, ConsecutiveIntervalsMissAndRepeatNothing)
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

TEST(World, EmptyAndReversedIntervalsHaveNoChanges)
{
  World world(SEED);
  WorldTime time = changes_of(SEED).front().time;
  EXPECT_TRUE(world.changes_between(time, time).empty());
  EXPECT_TRUE(world.changes_between(END, START).empty());
  EXPECT_EQ(world.changes_between(time - 1, time).size(), 1u);
}

TEST(World, StatesChangeAtTheTimesOfTheChanges)
{
  World world(SEED);
  std::vector<bool> inputs;
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    inputs.push_back(world.input_at(input, START));
  }
  bool motion = world.motion_at(START);
  WorldTime last = START;

  for (const Change &change : changes_of(SEED)) {
    /* Before the change, the states are those after the previous one. */
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

/* Changes of the head do not count. */
TEST(World, ChangesAreFrequent)
{
  for (guint64 seed = 0; seed < 10; seed++) {
    std::vector<Change> changes = changes_of(seed);
    std::erase_if(changes, is_head_change);
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

/* The objects that enter between two times. */
std::vector<Object>
newcomers(const World &world, WorldTime before, WorldTime now, std::optional<sim::ObjectType> only)
{
  std::vector<Object> there = world.objects_at(before);
  std::vector<Object> objects = world.objects_at(now);
  std::erase_if(objects, [&](const Object &object) {
    return find(there, object.id) != nullptr || (only.has_value() && object.type != *only);
  });
  return objects;
}

TEST(World, ArrivalsAreWhereAnObjectOfTheTypeEnters)
{
  constexpr WorldTime STEP = 50 * MILLISECOND;
  World world(SEED);
  for (std::optional<sim::ObjectType> only :
       {std::optional<sim::ObjectType>(), {sim::ObjectType::HUMAN}, {sim::ObjectType::VEHICLE}}) {
    int arrivals = 0;
    WorldTime known = START;
    while (std::optional<WorldTime> arrival = world.first_arrival_between(known, END, only)) {
      EXPECT_FALSE(newcomers(world, *arrival - 1, *arrival, only).empty());
      for (WorldTime time = known; time + STEP < *arrival; time += STEP) {
        EXPECT_TRUE(newcomers(world, time, time + STEP, only).empty());
      }
      known = *arrival;
      arrivals++;
    }
    EXPECT_GT(arrivals, 10);
  }
}

TEST(World, ArrivalsAreWithinTheInterval)
{
  World world(SEED);
  WorldTime arrival = *world.first_arrival_between(START, END, std::nullopt);
  EXPECT_EQ(world.first_arrival_between(arrival - 1, arrival, std::nullopt), arrival);
  EXPECT_EQ(world.first_arrival_between(START, arrival - 1, std::nullopt), std::nullopt);
  EXPECT_NE(world.first_arrival_between(arrival, END, std::nullopt), arrival);
  EXPECT_EQ(world.first_arrival_between(arrival, arrival, std::nullopt), std::nullopt);
}

TEST(Head, SameSeedGivesTheSameMoves)
{
  for (WorldTime time = START; time < END; time += 700 * MILLISECOND) {
    Ptz one = World(SEED).ptz_at(time);
    Ptz other = World(SEED).ptz_at(time);
    EXPECT_EQ(one.pan, other.pan);
    EXPECT_EQ(one.tilt, other.tilt);
    EXPECT_EQ(one.zoom, other.zoom);
    EXPECT_EQ(one.pan_tilt_moving, other.pan_tilt_moving);
    EXPECT_EQ(one.zoom_moving, other.zoom_moving);
  }
}

TEST(Head, DifferentSeedsDiffer)
{
  for (guint64 seed = 0; seed < 20; seed++) {
    Ptz one = World(seed).ptz_at(START);
    Ptz other = World(seed + 1).ptz_at(START);
    EXPECT_NE(one.pan, other.pan) << "seed " << seed;
    EXPECT_NE(one.tilt, other.tilt) << "seed " << seed;
    EXPECT_NE(one.zoom, other.zoom) << "seed " << seed;
  }
}

TEST(Head, SpeedIsLimited)
{
  constexpr WorldTime STEP = 10 * MILLISECOND;
  constexpr double SECONDS = static_cast<double>(STEP) / SECOND;
  for (guint64 seed = 0; seed < 5; seed++) {
    World world(seed);
    Ptz last = world.ptz_at(START);
    double fastest_pan_tilt = 0;
    double fastest_zoom = 0;
    for (WorldTime time = START + STEP; time < END; time += STEP) {
      Ptz ptz = world.ptz_at(time);
      fastest_pan_tilt =
          std::max({fastest_pan_tilt, std::abs(ptz.pan - last.pan), std::abs(ptz.tilt - last.tilt)});
      fastest_zoom = std::max(fastest_zoom, std::abs(ptz.zoom - last.zoom));
      last = ptz;
    }
    EXPECT_NEAR(fastest_pan_tilt / SECONDS, World::PAN_TILT_SPEED, 1e-5) << "seed " << seed;
    EXPECT_NEAR(fastest_zoom / SECONDS, World::ZOOM_SPEED, 1e-5) << "seed " << seed;
  }
}

/* Checks every interval between two consecutive changes of a drive, from its start to its end. */
TEST(Head, MoveStatusMatchesTheMoves)
{
  World world(SEED);
  std::map<ChangeType, WorldTime> last = {{ChangeType::PAN_TILT, START}, {ChangeType::ZOOM, START}};
  std::map<ChangeType, int> spans;
  for (const Change &change : changes_of(SEED)) {
    if (!is_head_change(change)) {
      continue;
    }
    bool pan_tilt = change.type == ChangeType::PAN_TILT;
    WorldTime step = (change.time - last[change.type]) / 16;
    for (WorldTime time = last[change.type]; time + step < change.time; time += step) {
      Ptz now = world.ptz_at(time);
      Ptz later = world.ptz_at(time + step);
      bool moves = pan_tilt ? now.pan != later.pan && now.tilt != later.tilt : now.zoom != later.zoom;
      bool rests = pan_tilt ? now.pan == later.pan && now.tilt == later.tilt : now.zoom == later.zoom;
      EXPECT_EQ(pan_tilt ? now.pan_tilt_moving : now.zoom_moving, moves) << "at " << time;
      EXPECT_EQ(moves, !rests) << "at " << time;
      EXPECT_EQ(moves, !change.state) << "at " << time;
    }
    Ptz before = world.ptz_at(change.time - 1);
    Ptz after = world.ptz_at(change.time);
    EXPECT_EQ(pan_tilt ? before.pan_tilt_moving : before.zoom_moving, !change.state) << "at " << change.time;
    EXPECT_EQ(pan_tilt ? after.pan_tilt_moving : after.zoom_moving, change.state) << "at " << change.time;
    last[change.type] = change.time;
    spans[change.type]++;
  }
  EXPECT_GT(spans[ChangeType::PAN_TILT], 20);
  EXPECT_GT(spans[ChangeType::ZOOM], 20);
}

TEST(Head, MovesThroughItsWholeRanges)
{
  for (guint64 seed = 0; seed < 5; seed++) {
    World world(seed);
    Ptz lowest = world.ptz_at(START);
    Ptz highest = lowest;
    for (WorldTime time = START; time < END; time += 200 * MILLISECOND) {
      Ptz ptz = world.ptz_at(time);
      lowest.pan = std::min(lowest.pan, ptz.pan);
      lowest.tilt = std::min(lowest.tilt, ptz.tilt);
      lowest.zoom = std::min(lowest.zoom, ptz.zoom);
      highest.pan = std::max(highest.pan, ptz.pan);
      highest.tilt = std::max(highest.tilt, ptz.tilt);
      highest.zoom = std::max(highest.zoom, ptz.zoom);
    }
    EXPECT_GE(lowest.pan, -1);
    EXPECT_LT(lowest.pan, -0.5);
    EXPECT_GT(highest.pan, 0.5);
    EXPECT_LE(highest.pan, 1);
    EXPECT_GE(lowest.tilt, -1);
    EXPECT_LT(lowest.tilt, -0.5);
    EXPECT_GT(highest.tilt, 0.5);
    EXPECT_LE(highest.tilt, 1);
    EXPECT_GE(lowest.zoom, 0);
    EXPECT_LT(lowest.zoom, 0.4);
    EXPECT_GT(highest.zoom, 0.6);
    EXPECT_LE(highest.zoom, 1);
  }
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "objecttracker.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace
{

using plugins::ObjectTracker;
using plugins::TrackedBox;
using plugins::Tracking;

using Ids = std::vector<gint64>;

constexpr gint64 FIRST = plugins::OBJECT_TRACKER_FIRST_ID;
constexpr guint PATIENCE = plugins::OBJECT_TRACKER_PATIENCE_FRAMES;
constexpr gsize MAX = plugins::OBJECT_TRACKER_OBJECTS_MAX;

constexpr GQuark PERSON = 1;
constexpr GQuark CAR = 2;

/* A square of the height and width 0.2. */
TrackedBox
at(double x, double y = 0, GQuark type = PERSON)
{
  return {
      .box = {.left = x, .top = y + 0.2, .right = x + 0.2, .bottom = y}, .id = std::nullopt, .type = type};
}

TrackedBox
with_id(guint64 id, double x = 0, double y = 0)
{
  TrackedBox box = at(x, y);
  box.id = id;
  return box;
}

class ObjectTrackerTest : public testing::Test
{
protected:
  Ids follow(const std::vector<TrackedBox> &boxes)
  {
    return tracker_.follow(boxes);
  }

  /* A frame that is sent. */
  Ids send(const std::vector<TrackedBox> &boxes)
  {
    Ids ids = tracker_.follow(boxes);
    deleted_ = tracker_.report(MAX);
    return ids;
  }

  /* Sends empty frames, in which nothing is gone. */
  void miss(guint frames)
  {
    for (guint i = 0; i < frames; i++) {
      send({});
      ASSERT_EQ(deleted_, Ids());
    }
  }

  ObjectTracker tracker_{Tracking::MISSING};
  Ids deleted_;
};

} // namespace

TEST_F(ObjectTrackerTest, FrameWithoutBoxesHasNoIds)
{
  EXPECT_EQ(send({}), Ids());
  EXPECT_EQ(deleted_, Ids());
}

TEST_F(ObjectTrackerTest, BoxThatMovesKeepsItsId)
{
  for (int step = 0; step < 50; step++) {
    EXPECT_EQ(send({at(-1 + step * 0.03)}), Ids{FIRST});
    EXPECT_EQ(deleted_, Ids());
  }
}

TEST_F(ObjectTrackerTest, BoxesKeepTheirIdsInAnyOrder)
{
  EXPECT_EQ(send({at(-0.8), at(0), at(0.8)}), (Ids{FIRST, FIRST + 1, FIRST + 2}));
  EXPECT_EQ(send({at(0.8), at(-0.8), at(0)}), (Ids{FIRST + 2, FIRST, FIRST + 1}));
}

/* Of 0.2, boxes with a distance of 0.1 have a third in common, and with 0.11 somewhat less than 0.3. */
TEST_F(ObjectTrackerTest, BoxWithLittleOverlapIsAnotherObject)
{
  EXPECT_EQ(send({at(0)}), Ids{FIRST});
  EXPECT_EQ(send({at(0.1)}), Ids{FIRST});
  EXPECT_EQ(send({at(0.21)}), Ids{FIRST + 1});
}

TEST_F(ObjectTrackerTest, BoxThatGrowsTooMuchIsAnotherObject)
{
  constexpr double GROWTH_MAX = 1 / plugins::OBJECT_TRACKER_OVERLAP_MIN;
  TrackedBox large = at(-1);
  EXPECT_EQ(send({large}), Ids{FIRST});
  large.box.right = large.box.left + 0.2 * (GROWTH_MAX - 0.1);
  EXPECT_EQ(send({large}), Ids{FIRST});
  large.box.top = large.box.bottom + 0.2 * (GROWTH_MAX + 0.1);
  EXPECT_EQ(send({large}), Ids{FIRST + 1});
}

TEST_F(ObjectTrackerTest, BoxOfAnotherTypeIsAnotherObject)
{
  EXPECT_EQ(send({at(0, 0, PERSON)}), Ids{FIRST});
  EXPECT_EQ(send({at(0, 0, CAR)}), Ids{FIRST + 1});
  EXPECT_EQ(send({at(0, 0, 0)}), Ids{FIRST + 2});
  EXPECT_EQ(send({at(0, 0, 0), at(0, 0, CAR), at(0, 0, PERSON)}), (Ids{FIRST + 2, FIRST + 1, FIRST}));
}

TEST_F(ObjectTrackerTest, BestOverlapIsMatchedFirst)
{
  EXPECT_EQ(send({at(0)}), Ids{FIRST});
  EXPECT_EQ(send({at(0.08), at(0.02)}), (Ids{FIRST + 1, FIRST}));
}

/* Both boxes overlap the first object best, and the second box more. */
TEST_F(ObjectTrackerTest, EachObjectHasOneBox)
{
  EXPECT_EQ(send({at(0), at(0.12)}), (Ids{FIRST, FIRST + 1}));
  EXPECT_EQ(send({at(0.05), at(0.01)}), (Ids{FIRST + 1, FIRST}));
}

TEST_F(ObjectTrackerTest, SameBoxTwiceIsTwoObjects)
{
  EXPECT_EQ(send({at(0), at(0)}), (Ids{FIRST, FIRST + 1}));
  EXPECT_EQ(send({at(0), at(0)}), (Ids{FIRST, FIRST + 1}));
}

TEST_F(ObjectTrackerTest, HiddenObjectKeepsItsIdForSomeFrames)
{
  EXPECT_EQ(send({at(0)}), Ids{FIRST});
  miss(PATIENCE);
  EXPECT_EQ(send({at(0.05)}), Ids{FIRST});
  miss(PATIENCE);
  EXPECT_EQ(send({}), Ids());
  EXPECT_EQ(deleted_, Ids{FIRST});
  EXPECT_EQ(send({at(0.05)}), Ids{FIRST + 1});
  EXPECT_EQ(deleted_, Ids());
}

TEST_F(ObjectTrackerTest, ObjectIsDeletedOnce)
{
  send({at(0), at(0.5)});
  for (guint i = 0; i <= PATIENCE; i++) {
    send({});
  }
  EXPECT_EQ(deleted_, (Ids{FIRST, FIRST + 1}));
  for (guint i = 0; i < 3 * PATIENCE; i++) {
    send({});
    EXPECT_EQ(deleted_, Ids());
  }
}

/* Ids of other trackers */

TEST_F(ObjectTrackerTest, IdOfAnotherTrackerIsKept)
{
  EXPECT_EQ(send({with_id(7), with_id(0, 0.5)}), (Ids{7, 0}));
  EXPECT_EQ(send({with_id(0, -0.9), with_id(7, 0.9)}), (Ids{0, 7}));
}

TEST_F(ObjectTrackerTest, IdOfAnotherTrackerIsDeletedAfterSomeFrames)
{
  send({with_id(7)});
  miss(PATIENCE);
  EXPECT_EQ(send({with_id(7, 0.7)}), Ids{7});
  miss(PATIENCE);
  send({});
  EXPECT_EQ(deleted_, Ids{7});
  EXPECT_EQ(send({with_id(7)}), Ids{7});
}

TEST_F(ObjectTrackerTest, BoxesWithAndWithoutIdNeverMatch)
{
  EXPECT_EQ(send({with_id(7)}), Ids{7});
  EXPECT_EQ(send({at(0)}), Ids{FIRST});
  EXPECT_EQ(send({with_id(8)}), Ids{8});
  EXPECT_EQ(send({with_id(7), at(0)}), (Ids{7, FIRST}));
}

TEST_F(ObjectTrackerTest, SecondBoxWithAnIdIsAsOneWithout)
{
  EXPECT_EQ(send({with_id(7, 0), with_id(7, 0.5)}), (Ids{7, FIRST}));
  EXPECT_EQ(send({with_id(7, 0), with_id(7, 0.5)}), (Ids{7, FIRST}));
  EXPECT_EQ(send({with_id(7, 0), at(0.5)}), (Ids{7, FIRST}));
}

TEST_F(ObjectTrackerTest, HighIdOfAnotherTrackerIsReplaced)
{
  const guint64 high = FIRST;
  EXPECT_EQ(send({with_id(high - 1), with_id(high, 0.2), with_id(G_MAXUINT64, 0.4)}),
            (Ids{FIRST - 1, FIRST, FIRST + 1}));
  EXPECT_EQ(send({with_id(G_MAXUINT64, -0.9), with_id(high, 0.9)}), (Ids{FIRST + 1, FIRST}));
}

TEST_F(ObjectTrackerTest, OwnIdsAreUsedOnce)
{
  std::set<gint64> ids;
  for (guint64 i = 0; i < 100; i++) {
    for (gint64 id : send({with_id(G_MAXUINT64 - i), at(-0.9, 0, 1 + i), with_id(i)})) {
      EXPECT_TRUE(ids.insert(id).second) << id;
    }
  }
}

/* Other modes */

TEST_F(ObjectTrackerTest, OffMakesEachBoxANewObject)
{
  tracker_ = ObjectTracker(Tracking::OFF);
  EXPECT_EQ(send({at(0)}), Ids{FIRST});
  EXPECT_EQ(send({at(0)}), Ids{FIRST + 1});
  EXPECT_EQ(deleted_, Ids{FIRST});
  send({});
  EXPECT_EQ(deleted_, Ids{FIRST + 1});
}

TEST_F(ObjectTrackerTest, OffKeepsIdsOfOtherTrackers)
{
  tracker_ = ObjectTracker(Tracking::OFF);
  EXPECT_EQ(send({with_id(7)}), Ids{7});
  miss(PATIENCE);
  EXPECT_EQ(send({with_id(7, 0.7)}), Ids{7});
}

TEST_F(ObjectTrackerTest, AllIgnoresIdsOfOtherTrackers)
{
  tracker_ = ObjectTracker(Tracking::ALL);
  EXPECT_EQ(send({with_id(7, 0)}), Ids{FIRST});
  EXPECT_EQ(send({with_id(8, 0)}), Ids{FIRST});
  EXPECT_EQ(send({with_id(8, 0.8)}), Ids{FIRST + 1});
}

/* Reports */

TEST_F(ObjectTrackerTest, DeletedObjectsWaitForTheNextReport)
{
  send({at(0), with_id(7)});
  for (guint i = 0; i < 3 * PATIENCE; i++) {
    follow({});
  }
  send({});
  EXPECT_EQ(deleted_, (Ids{7, FIRST}));
}

TEST_F(ObjectTrackerTest, ObjectBetweenTwoReportsIsInNone)
{
  send({});
  follow({at(0), with_id(7)});
  for (guint i = 0; i < 3 * PATIENCE; i++) {
    follow({});
  }
  send({});
  EXPECT_EQ(deleted_, Ids());
}

/* A report has the objects of its own frame only. */
TEST_F(ObjectTrackerTest, ObjectThatIsHiddenInTheReportedFrameIsNotReported)
{
  follow({at(0)});
  miss(2 * PATIENCE);
}

TEST_F(ObjectTrackerTest, IdThatComesBackBeforeTheReportIsNotDeleted)
{
  send({with_id(7)});
  for (guint i = 0; i < 3 * PATIENCE; i++) {
    follow({});
  }
  EXPECT_EQ(send({with_id(7)}), Ids{7});
  EXPECT_EQ(deleted_, Ids());
  follow({});
  for (guint i = 0; i < 3 * PATIENCE; i++) {
    follow({});
  }
  send({});
  EXPECT_EQ(deleted_, Ids{7});
}

TEST_F(ObjectTrackerTest, LongReportIsContinued)
{
  send({with_id(1), with_id(2), with_id(3)});
  for (guint i = 0; i <= PATIENCE; i++) {
    follow({});
  }
  EXPECT_EQ(tracker_.report(2), (Ids{1, 2}));
  EXPECT_EQ(tracker_.report(2), Ids{3});
  EXPECT_EQ(tracker_.report(2), Ids());
}

TEST_F(ObjectTrackerTest, EndOfTheStreamDeletesAllReportedObjects)
{
  send({at(0), with_id(7)});
  follow({at(0), with_id(8)});
  tracker_.forget_all();
  EXPECT_EQ(tracker_.report(MAX), (Ids{7, FIRST}));
  EXPECT_EQ(send({at(0)}), Ids{FIRST + 1});
}

/* Bounds */

TEST_F(ObjectTrackerTest, ObjectsThatWereNotSeenForLongestAreForgotten)
{
  std::vector<TrackedBox> old = {with_id(1)};
  std::vector<TrackedBox> many;
  for (guint64 id = 2; id <= MAX; id++) {
    many.push_back(with_id(id));
  }
  send(old);
  send(many);
  EXPECT_EQ(deleted_, Ids());
  many.pop_back();
  many.push_back(with_id(MAX + 1));
  many.push_back(with_id(MAX + 2));
  send(many);
  Ids deleted = deleted_;
  std::sort(deleted.begin(), deleted.end());
  EXPECT_EQ(deleted, (Ids{1, MAX}));
}

TEST_F(ObjectTrackerTest, CrowdThatOverlapsKeepsItsIds)
{
  std::vector<TrackedBox> crowd;
  for (guint i = 0; i < 300; i++) {
    crowd.push_back(at(-0.1 + i * 0.0005));
  }
  Ids ids = send(crowd);
  EXPECT_EQ(std::set<gint64>(ids.begin(), ids.end()).size(), crowd.size());
  EXPECT_EQ(send(crowd), ids);
}

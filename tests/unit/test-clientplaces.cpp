/* SPDX-License-Identifier: MIT */
#include "clientplaces.h"

#include "testhost.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace
{

struct PlaceFree {
  void operator()(ClientPlace *place) const
  {
    client_place_free(place);
  }
};

using Place = std::unique_ptr<ClientPlace, PlaceFree>;
using Places = std::vector<Place>;

constexpr uid_t ALICE = 1000;
constexpr uid_t BOB = 1001;

constexpr gsize SHARED = CLIENT_PLACES - CLIENT_PLACES_KEPT;

class ClientPlacesTest : public testhost::Fixture
{
protected:
  /* Each test ends without places. */
  void TearDown() override
  {
    EXPECT_EQ(take(0, CLIENT_PLACES).size(), SHARED);
    Fixture::TearDown();
  }

  /* Takes places for the user until one is refused, at most @most. */
  static Places take(uid_t user, gsize most)
  {
    Places places;

    while (places.size() < most) {
      Place place(client_place_new(user));
      if (!place) {
        break;
      }
      places.push_back(std::move(place));
    }
    return places;
  }

  static bool can_take(uid_t user)
  {
    return take(user, 1).size() == 1;
  }
};

} // namespace

TEST_F(ClientPlacesTest, GivesOneUserAllPlacesButTheKeptOnes)
{
  const Places places = take(ALICE, CLIENT_PLACES);

  EXPECT_EQ(places.size(), SHARED);
  EXPECT_FALSE(can_take(ALICE));
}

TEST_F(ClientPlacesTest, GivesEachUserWithoutAPlaceAKeptOne)
{
  const Places places = take(ALICE, CLIENT_PLACES);
  Places kept;

  for (uid_t user = BOB; user < BOB + CLIENT_PLACES_KEPT; user++) {
    EXPECT_TRUE(can_take(user));
    kept.emplace_back(client_place_new(user));
    ASSERT_TRUE(kept.back()) << user;
    EXPECT_FALSE(can_take(user)) << user;
  }
  EXPECT_FALSE(can_take(BOB + CLIENT_PLACES_KEPT));
  EXPECT_FALSE(can_take(ALICE));
}

TEST_F(ClientPlacesTest, CountsThePlacesOfAllUsersTogether)
{
  const Places first = take(ALICE, SHARED - 10);
  const Places second = take(BOB, CLIENT_PLACES);

  EXPECT_EQ(second.size(), 10U);
  EXPECT_FALSE(can_take(ALICE));
}

/* After a kept place is returned, all users can take as many places as before. */
TEST_F(ClientPlacesTest, ReturnsAPlaceOfTheUserThatHeldIt)
{
  Places places = take(ALICE, CLIENT_PLACES);
  Place kept(client_place_new(BOB));
  ASSERT_TRUE(kept);

  places.pop_back();
  EXPECT_FALSE(can_take(ALICE));
  EXPECT_FALSE(can_take(BOB));
  kept.reset();
  EXPECT_TRUE(can_take(ALICE));
  EXPECT_TRUE(can_take(BOB));
  places.clear();
  EXPECT_EQ(take(BOB, CLIENT_PLACES).size(), SHARED);
}

TEST_F(ClientPlacesTest, CountsThePlacesOfTheSuperuserAndTheHighestUser)
{
  for (const uid_t user : {uid_t(0), uid_t(-2)}) {
    EXPECT_EQ(take(user, CLIENT_PLACES).size(), SHARED) << user;
  }
}

TEST_F(ClientPlacesTest, ChecksItsArgument)
{
  client_place_free(nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (testhost::Texts{"self != NULL"}));
}

TEST_F(ClientPlacesTest, LimitsThePlacesOfAllThreads)
{
  constexpr guint THREADS = 4;
  constexpr guint ROUNDS = 500;
  constexpr guint FREE = 3;
  const Places most_of_all = take(ALICE, SHARED - FREE);
  std::atomic<guint> held = 0;
  std::atomic<guint> most = 0;

  const auto take_often = [&] {
    for (guint i = 0; i < ROUNDS; i++) {
      const Place place(client_place_new(ALICE));
      if (!place) {
        continue;
      }
      const guint now = ++held;
      for (guint seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      held--;
    }
  };
  std::vector<std::thread> threads;
  for (guint i = 0; i < THREADS; i++) {
    threads.emplace_back(take_often);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }

  EXPECT_GT(most, 0U);
  EXPECT_LE(most, FREE);
  EXPECT_EQ(take(ALICE, CLIENT_PLACES).size(), FREE);
}

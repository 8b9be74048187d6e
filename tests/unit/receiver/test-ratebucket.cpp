/* SPDX-License-Identifier: MIT */
#include "receiver/ratebucket.h"
#include "testclock.h"

#include <gtest/gtest.h>

using receiver::RateBucket;

namespace
{

int
take_all(RateBucket *bucket)
{
  int taken = 0;

  /* Less than a token comes in the time that this takes. */
  while (bucket->has_token() && taken < 100) {
    bucket->take_token();
    taken++;
  }
  return taken;
}

TEST(RateBucketTest, IsFullAtFirst)
{
  RateBucket bucket(1, 7);

  EXPECT_EQ(take_all(&bucket), 7);
  EXPECT_FALSE(bucket.has_token());
}

TEST(RateBucketTest, FillsAtItsRateUpToTheBurst)
{
  RateBucket bucket(1, 7);
  take_all(&bucket);

  testclock::advance_ms(500);
  EXPECT_FALSE(bucket.has_token());
  testclock::advance_ms(500);
  EXPECT_EQ(take_all(&bucket), 1);
  testclock::advance_ms(3000);
  EXPECT_EQ(take_all(&bucket), 3);
  testclock::advance_ms(60000);
  EXPECT_EQ(take_all(&bucket), 7);
}

} // namespace

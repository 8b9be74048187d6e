/* SPDX-License-Identifier: MIT */
#include "backoff.h"

#include "mqttlimits.h"

#include <gtest/gtest.h>
#include <set>

namespace
{

constexpr gint64 FIRST_US = MQTT_FIRST_RETRY_MS * G_TIME_SPAN_MILLISECOND;
constexpr gint64 LAST_US = MQTT_LAST_RETRY_MS * G_TIME_SPAN_MILLISECOND;

void
expect_from_half(gint64 time_us, gint64 longest_us)
{
  EXPECT_GE(time_us, longest_us / 2);
  EXPECT_LE(time_us, longest_us);
}

TEST(BackoffTest, DoublesUpToTheLast)
{
  mqtt::Backoff backoff;
  for (gint64 longest_us = FIRST_US; longest_us < LAST_US; longest_us *= 2) {
    expect_from_half(backoff.next_us(), longest_us);
  }
  expect_from_half(backoff.next_us(), LAST_US);
  expect_from_half(backoff.next_us(), LAST_US);
}

TEST(BackoffTest, BeginsAgainAfterAReset)
{
  mqtt::Backoff backoff;
  backoff.next_us();
  backoff.next_us();
  backoff.reset();
  expect_from_half(backoff.next_us(), FIRST_US);
}

TEST(BackoffTest, IsRandom)
{
  std::set<gint64> times;
  for (int i = 0; i < 20; i++) {
    times.insert(mqtt::Backoff().next_us());
  }
  EXPECT_GT(times.size(), 10u);
}

} // namespace

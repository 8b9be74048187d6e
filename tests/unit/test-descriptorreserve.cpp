/* SPDX-License-Identifier: MIT */
#include "descriptorreserve.h"

#include "testhost.h"

#include <atomic>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

using testhost::FreeDescriptors;

namespace
{

class DescriptorReserveTest : public testhost::Fixture
{
};

bool
can_reserve(guint count)
{
  g_autoptr(DescriptorReservation) reservation = descriptor_reservation_new(count, nullptr);

  return reservation != nullptr;
}

} // namespace

TEST_F(DescriptorReserveTest, ReservesFreeDescriptorsBeyondTheReserve)
{
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + 5);

  EXPECT_TRUE(can_reserve(0));
  EXPECT_TRUE(can_reserve(5));
  EXPECT_FALSE(can_reserve(6));
  EXPECT_FALSE(can_reserve(G_MAXUINT));
}

TEST_F(DescriptorReserveTest, FailsWithAnErrorThatNamesTheShortage)
{
  for (rlim_t count = 0; count < DESCRIPTOR_RESERVE_SIZE; count++) {
    const FreeDescriptors free(count);
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(descriptor_reservation_new(0, &error), nullptr);
    ASSERT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) << count;
    EXPECT_STREQ(error->message, "Too few free file descriptors");
  }
}

TEST_F(DescriptorReserveTest, AddsReservationsUpUntilTheirRelease)
{
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + 5);
  g_autoptr(DescriptorReservation) first = descriptor_reservation_new(3, nullptr);
  g_autoptr(DescriptorReservation) second = descriptor_reservation_new(2, nullptr);

  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(can_reserve(0));
  EXPECT_FALSE(can_reserve(1));

  g_clear_pointer(&first, descriptor_reservation_free);
  EXPECT_TRUE(can_reserve(3));
  EXPECT_FALSE(can_reserve(4));
}

TEST_F(DescriptorReserveTest, CountsEveryOpenDescriptor)
{
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + 1);
  ASSERT_TRUE(can_reserve(1));

  for (const int flags : {O_RDONLY, O_PATH}) {
    const int fd = open("/dev/null", flags | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(can_reserve(0));
    EXPECT_FALSE(can_reserve(1));
    close(fd);
  }
  EXPECT_TRUE(can_reserve(1));
}

TEST_F(DescriptorReserveTest, TellsHowManyDescriptorsAreOpen)
{
  struct rlimit descriptors = {};
  guint limit = 0;
  const guint before = descriptor_reserve_count_open(&limit);
  getrlimit(RLIMIT_NOFILE, &descriptors);

  EXPECT_EQ(limit, descriptors.rlim_cur);
  EXPECT_EQ(before, testhost::open_descriptors().size());
  const int fd = open("/dev/null", O_PATH | O_CLOEXEC);
  EXPECT_EQ(descriptor_reserve_count_open(&limit), before + 1);
  close(fd);
  EXPECT_EQ(descriptor_reserve_count_open(&limit), before);
}

TEST_F(DescriptorReserveTest, LimitsTheReservationsOfAllThreads)
{
  constexpr guint FREE = 10;
  constexpr guint THREADS = 4;
  constexpr guint ROUNDS = 500;
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + FREE);
  std::atomic<guint> held = 0;
  std::atomic<guint> most = 0;
  std::atomic<guint> successes = 0;

  const auto reserve_often = [&] {
    for (guint i = 0; i < ROUNDS; i++) {
      g_autoptr(DescriptorReservation) reservation = descriptor_reservation_new(4, nullptr);
      if (reservation == nullptr) {
        continue;
      }
      const guint now = held += 4;
      for (guint seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      successes++;
      held -= 4;
    }
  };
  std::vector<std::thread> threads;
  for (guint i = 0; i < THREADS; i++) {
    threads.emplace_back(reserve_often);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }

  EXPECT_GT(successes, 0U);
  EXPECT_LE(most, FREE);
  EXPECT_TRUE(can_reserve(FREE));
}

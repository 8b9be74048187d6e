#include "memory.h"

#include "testhost.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testhost::Texts;

namespace
{

std::atomic<unsigned> trims;
std::atomic<gint64> last_trim_us;
std::atomic<gint64> shortest_us;

/* The sanitizers bring an allocator of their own. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool HAS_OWN_ALLOCATOR = true;
#else
constexpr bool HAS_OWN_ALLOCATOR = false;
#endif

struct Free {
  void operator()(void *block) const
  {
    free(block);
  }
};

using Block = std::unique_ptr<void, Free>;

gsize
count_mappings()
{
  return mallinfo2().hblks;
}

/* How many heaps the allocator tells of. */
gsize
count_heaps()
{
  char *text = nullptr;
  size_t size = 0;
  FILE *file = open_memstream(&text, &size);
  gsize count = 0;

  EXPECT_EQ(malloc_info(0, file), 0);
  fclose(file);
  const std::string info(text, size);
  free(text);
  for (gsize found = info.find("<heap nr"); found != std::string::npos;
       found = info.find("<heap nr", found + 1)) {
    count++;
  }
  return count;
}

class MemoryTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    trims = 0;
    last_trim_us = 0;
    shortest_us = G_MAXINT64;
  }
};

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int __real_malloc_trim(size_t padding);
int __wrap_malloc_trim(size_t padding);

int
__wrap_malloc_trim(size_t padding)
{
  const gint64 now_us = g_get_monotonic_time();

  if (last_trim_us != 0) {
    shortest_us = std::min(shortest_us.load(), now_us - last_trim_us);
  }
  last_trim_us = now_us;
  trims++;
  return __real_malloc_trim(padding);
}
}
#pragma GCC visibility pop

/* First of all, before anything has changed the allocator's mind. */
TEST_F(MemoryTest, MapsLargeBlocksWhateverWasFreedBefore)
{
  if (HAS_OWN_ALLOCATOR) {
    GTEST_SKIP() << "a sanitizer's allocator is in use";
  }
  memory_set_up();
  for (const gsize mib : {1, 8, 16, 30}) {
    const Block block(malloc(mib * 1024 * 1024));
  }

  const gsize before = count_mappings();
  const Block large(malloc(MEMORY_MMAP_THRESHOLD));
  EXPECT_EQ(count_mappings(), before + 1);
  const Block small(malloc(MEMORY_MMAP_THRESHOLD / 2));
  EXPECT_EQ(count_mappings(), before + 1);
}

TEST_F(MemoryTest, ManyThreadsShareFewHeaps)
{
  constexpr gsize THREADS = 16;
  std::atomic<gsize> holding = 0;
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;

  if (HAS_OWN_ALLOCATOR) {
    GTEST_SKIP() << "a sanitizer's allocator is in use";
  }
  memory_set_up();
  /* Other threads may have theirs already. */
  const gsize before = count_heaps();
  for (gsize i = 0; i < THREADS; i++) {
    threads.emplace_back([&] {
      const Block block(malloc(1000));
      holding++;
      while (!over) {
        g_thread_yield();
      }
    });
  }
  EXPECT_TRUE(testhost::spin_until([&] { return holding == THREADS; }));
  EXPECT_LE(count_heaps(), std::max<gsize>(before, MEMORY_MAX_ARENAS));
  over = true;
  for (std::thread &thread : threads) {
    thread.join();
  }
}

TEST_F(MemoryTest, GLibKeepsNoSmallBlocks)
{
  constexpr gsize BLOCKS = 200000;
  constexpr gsize SIZE = 64;
  std::vector<gpointer> blocks;

  if (HAS_OWN_ALLOCATOR) {
    GTEST_SKIP() << "a sanitizer's allocator is in use";
  }
  blocks.reserve(BLOCKS);
  const gsize before = mallinfo2().uordblks;
  while (blocks.size() < BLOCKS) {
    blocks.push_back(g_slice_alloc(SIZE));
  }
  EXPECT_GE(mallinfo2().uordblks, before + BLOCKS * SIZE);
  for (gpointer block : blocks) {
    g_slice_free1(SIZE, block);
  }
  EXPECT_LT(mallinfo2().uordblks, before + BLOCKS * SIZE / 10);
}

TEST_F(MemoryTest, TrimsNothingUnlessItIsStarted)
{
  memory_trim_later();
  memory_stop_trimming();
  EXPECT_EQ(trims, 0U);
}

TEST_F(MemoryTest, TrimsOnceAtOnceAndOnceAfterABurst)
{
  const gint64 begun_us = g_get_monotonic_time();
  memory_start_trimming();

  memory_trim_later();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 1; }));
  EXPECT_LT(g_get_monotonic_time() - begun_us, G_TIME_SPAN_MILLISECOND * MEMORY_TRIM_INTERVAL_MS / 2);
  for (int i = 0; i < 1000; i++) {
    memory_trim_later();
  }
  EXPECT_TRUE(testhost::spin_until([] { return trims == 3; }));
  EXPECT_GE(shortest_us, G_TIME_SPAN_MILLISECOND * MEMORY_TRIM_INTERVAL_MS);
  memory_stop_trimming();
  EXPECT_EQ(trims, 3U);
}

TEST_F(MemoryTest, StopsWhileATrimIsWaitedFor)
{
  memory_start_trimming();
  memory_trim_later();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 1; }));
  memory_stop_trimming();
  EXPECT_EQ(trims, 1U);

  memory_start_trimming();
  memory_trim_later();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 2; }));
  memory_stop_trimming();
}

TEST_F(MemoryTest, IsStartedOnce)
{
  memory_start_trimming();
  memory_start_trimming();
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"trimmer == NULL"}));
  memory_stop_trimming();
}

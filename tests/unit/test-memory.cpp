/* SPDX-License-Identifier: MIT */
#include "memory.h"

#include "testhost.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

using testhost::Texts;

namespace
{

std::atomic<unsigned> trims;
std::atomic<gint64> last_trim_us;
std::atomic<gint64> shortest_us;

/* The sanitizers have their own allocator. */
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

/* The number of heaps that the allocator reports. */
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

/* The resident memory of the process, in whole pages. */
gsize
count_resident_pages()
{
  gsize size = 0;
  gsize resident = 0;
  FILE *file = fopen("/proc/self/statm", "r");

  EXPECT_EQ(fscanf(file, "%zu %zu", &size, &resident), 2);
  fclose(file);
  return resident;
}

/* Frees seven blocks of each small size, each in a page that is free but for it: the allocator keeps them.
 * They come from the end of the heap, because so many others take all that is free before it. Returns those.
 */
std::vector<Block>
scatter_kept_blocks()
{
  constexpr gsize SPACE = 4000;
  constexpr unsigned OTHERS_OF_A_SIZE = 500;
  std::vector<Block> others;
  std::vector<Block> blocks;
  std::vector<Block> spaces;

  for (gsize size = 24; size <= 1032; size += 16) {
    std::generate_n(std::back_inserter(others), OTHERS_OF_A_SIZE, [size] { return Block(malloc(size)); });
    for (unsigned i = 0; i < 7; i++) {
      blocks.emplace_back(malloc(size));
      spaces.emplace_back(malloc(SPACE));
      memset(spaces.back().get(), 1, SPACE);
    }
  }
  return others;
}

/* The resident pages of the heap from the first of these blocks to its end. */
gsize
count_heap_pages(const std::vector<Block> &blocks, const guint8 *end)
{
  const gsize page_size = sysconf(_SC_PAGESIZE);
  const auto first = std::min_element(blocks.begin(), blocks.end(), [](const Block &one, const Block &other) {
    return std::less<>()(one.get(), other.get());
  });
  auto *page = reinterpret_cast<guint8 *>(reinterpret_cast<guintptr>(first->get()) / page_size * page_size);
  gsize count = 0;

  for (; page < end; page += page_size) {
    unsigned char state = 0;
    count += mincore(page, page_size, &state) == 0 && (state & 1) != 0 ? 1 : 0;
  }
  return count;
}

/* The number of the heap's pages that @work returns. Blocks that the allocator keeps for the calling thread
 * are in them. */
gsize
count_returned_pages(const std::function<void()> &work)
{
  const std::vector<Block> others = scatter_kept_blocks();
  malloc_trim(0);
  const auto *end = static_cast<const guint8 *>(sbrk(0));
  const gsize before = count_heap_pages(others, end);

  work();
  const gsize after = count_heap_pages(others, end);
  return before - std::min(before, after);
}

/* Takes all blocks that the allocator keeps for the calling thread: its next allocation increases the bytes
 * in use. */
std::vector<Block>
take_kept_blocks()
{
  std::vector<Block> blocks;

  for (gsize size = 24; size <= 1032; size += 16) {
    std::generate_n(std::back_inserter(blocks), 7, [size] { return Block(malloc(size)); });
  }
  return blocks;
}

/* A thread that stays. It frees blocks and, on request, hands over what the allocator keeps of them. */
class Worker
{
public:
  Worker() : thread([this] { run(); })
  {
    EXPECT_TRUE(testhost::spin_until([this] { return scattered.load(); }));
  }

  ~Worker()
  {
    over = true;
    thread.join();
  }

  void hand_over()
  {
    told = true;
    EXPECT_TRUE(testhost::spin_until([this] { return done.load(); }));
  }

private:
  void run()
  {
    others = scatter_kept_blocks();
    scattered = true;
    wait_for(told);
    memory_hand_over_kept_blocks();
    done = true;
    wait_for(over);
  }

  static void wait_for(const std::atomic<bool> &flag)
  {
    while (!flag) {
      g_thread_yield();
    }
  }

  std::vector<Block> others;
  std::atomic<bool> scattered = false;
  std::atomic<bool> told = false;
  std::atomic<bool> done = false;
  std::atomic<bool> over = false;
  std::thread thread;
};

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

/* The allocator of the C library: a sanitizer replaces it. */
class AllocatorTest : public MemoryTest
{
protected:
  void SetUp() override
  {
    MemoryTest::SetUp();
    if (HAS_OWN_ALLOCATOR) {
      GTEST_SKIP() << "a sanitizer's allocator is in use";
    }
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

/* The first test, because freed blocks can change the thresholds of the allocator. */
TEST_F(AllocatorTest, MapsLargeBlocksAlsoAfterLargerOnesWereFreed)
{
  memory_set_up();
  for (const gsize mib : {1, 8, 16, 30}) {
    const Block block(malloc(mib * 1024 * 1024));
  }

  /* Take what is free in the heaps and long enough, for example since the registry was written. */
  std::vector<Block> others;
  std::generate_n(std::back_inserter(others), 64, [] { return Block(malloc(MEMORY_MMAP_THRESHOLD - 1024)); });
  const gsize before = count_mappings();
  const Block large(malloc(MEMORY_MMAP_THRESHOLD));
  EXPECT_EQ(count_mappings(), before + 1);
  const Block small(malloc(MEMORY_MMAP_THRESHOLD / 2));
  EXPECT_EQ(count_mappings(), before + 1);
}

TEST_F(AllocatorTest, LimitsTheHeapsOfManyThreads)
{
  constexpr gsize THREADS = 16;
  std::atomic<gsize> holding = 0;
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;

  memory_set_up();
  /* Other threads can have heaps already. */
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

TEST_F(AllocatorTest, ReturnsWhatIsKeptForTheMainThread)
{
  EXPECT_GT(count_returned_pages([] {
              trims = 0;
              memory_start_trimming();
              memory_trim_later();
              EXPECT_TRUE(testhost::spin_until([] { return trims == 1; }));
              memory_stop_trimming();
            }),
            300U);
}

TEST_F(AllocatorTest, ReturnsWhatAThreadHandsOver)
{
  Worker worker;
  memory_start_trimming();
  memory_trim_later();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 1; }));
  const gsize before = count_resident_pages();

  worker.hand_over();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 2; }));
  memory_stop_trimming();
  EXPECT_LT(count_resident_pages() + 300, before);
}

TEST_F(AllocatorTest, FreesWhatIsKeptForTheCallingThread)
{
  EXPECT_GT(count_returned_pages([] {
              memory_free_kept_blocks();
              malloc_trim(0);
            }),
            300U);
}

TEST_F(AllocatorTest, HandsOverOnceBeforeATrim)
{
  memory_start_trimming();
  memory_trim_later();
  memory_hand_over_kept_blocks();
  const std::vector<Block> kept = take_kept_blocks();
  const gsize before = mallinfo2().uordblks;

  memory_hand_over_kept_blocks();
  EXPECT_EQ(mallinfo2().uordblks, before);
  memory_stop_trimming();
}

TEST_F(AllocatorTest, HandsNothingOverWithoutARequestedTrim)
{
  memory_start_trimming();
  memory_trim_later();
  EXPECT_TRUE(testhost::spin_until([] { return trims == 2; }));
  const std::vector<Block> kept = take_kept_blocks();
  const gsize before = mallinfo2().uordblks;

  memory_hand_over_kept_blocks();
  EXPECT_EQ(mallinfo2().uordblks, before);
  memory_stop_trimming();
}

TEST_F(AllocatorTest, HandsNothingOverWithoutTheThreadThatTrims)
{
  memory_trim_later();
  const std::vector<Block> kept = take_kept_blocks();
  const gsize before = mallinfo2().uordblks;

  memory_hand_over_kept_blocks();
  EXPECT_EQ(mallinfo2().uordblks, before);

  /* Discards the request. */
  memory_start_trimming();
  memory_stop_trimming();
}

TEST_F(MemoryTest, StopsBeforeTheMainThreadHandsOver)
{
  memory_start_trimming();
  memory_trim_later();
  /* The main context dispatches nothing here. */
  const gint64 end_us = g_get_monotonic_time() + 10 * G_TIME_SPAN_SECOND;
  while (!g_main_context_pending(nullptr) && g_get_monotonic_time() < end_us) {
    g_thread_yield();
  }
  EXPECT_TRUE(g_main_context_pending(nullptr));
  memory_stop_trimming();
  EXPECT_FALSE(g_main_context_pending(nullptr));
  EXPECT_EQ(trims, 0U);
}

TEST_F(AllocatorTest, UsesTheAllocatorForSmallBlocksOfGLib)
{
  constexpr gsize BLOCKS = 200000;
  constexpr gsize SIZE = 64;
  std::vector<gpointer> blocks;

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

TEST_F(MemoryTest, DoesNotTrimBeforeItIsStarted)
{
  memory_trim_later();
  memory_stop_trimming();
  EXPECT_EQ(trims, 0U);
}

TEST_F(MemoryTest, TrimsImmediatelyAndOnceAfterABurst)
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

TEST_F(MemoryTest, StopsBeforeAScheduledTrim)
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

TEST_F(MemoryTest, StartsOnce)
{
  memory_start_trimming();
  memory_start_trimming();
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"trimmer == NULL"}));
  memory_stop_trimming();
}

/* SPDX-License-Identifier: MIT */
#include "worker.h"

#include "testlibrary.h"
#include "testpipes.h"

#include <csignal>
#include <memory>
#include <pthread.h>
#include <thread>
#include <unistd.h>

using testlibrary::on_worker;
using Texts = std::vector<std::string>;

namespace
{

class WorkerTest : public testlibrary::Fixture
{
protected:
  void TearDown() override
  {
    told_.expect({});
    Fixture::TearDown();
  }

  testlibrary::Told told_;
};

} // namespace

TEST_F(WorkerTest, CallsFunctionsInTheirOrder)
{
  Texts expected;

  for (guint i = 0; i < 100; i++) {
    expected.push_back(std::to_string(i));
    worker_invoke([this, i] { told_.add(std::to_string(i)); });
  }
  told_.expect(expected);
}

TEST_F(WorkerTest, CallsFunctionsOfEachThreadInTheirOrder)
{
  constexpr guint THREADS = 4;
  constexpr guint CALLS = 500;
  std::vector<guint> next(THREADS); /* of the worker */
  std::vector<std::thread> threads;

  for (guint number = 0; number < THREADS; number++) {
    threads.emplace_back([&next, number] {
      for (guint i = 0; i < CALLS; i++) {
        worker_invoke([&next, number, i] { EXPECT_EQ(next[number]++, i); });
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  on_worker([&] { EXPECT_EQ(next, std::vector<guint>(THREADS, CALLS)); });
}

TEST_F(WorkerTest, CallFromAFunctionComesAfterIt)
{
  worker_invoke([this] {
    worker_invoke([this] { told_.add("second"); });
    told_.add("first");
  });
  told_.expect({"first", "second"});
}

TEST_F(WorkerTest, ReleasesAFunctionAfterItsCall)
{
  const auto owned = std::make_shared<int>(0);

  worker_invoke([owned] { EXPECT_GE(owned.use_count(), 2); });
  on_worker([] {});
  EXPECT_TRUE(testhost::spin_until([&] { return owned.use_count() == 1; }));
}

TEST_F(WorkerTest, IsOneThreadWithAContextOfItsOwn)
{
  std::thread::id first;
  GMainContext *context = nullptr;

  on_worker([&] {
    first = std::this_thread::get_id();
    context = g_main_context_get_thread_default();
  });
  EXPECT_NE(first, std::this_thread::get_id());
  EXPECT_NE(context, nullptr);
  std::thread([&] {
    on_worker([&] {
      EXPECT_EQ(first, std::this_thread::get_id());
      EXPECT_EQ(context, g_main_context_get_thread_default());
    });
  }).join();
}

TEST_F(WorkerTest, BlocksTheSignalsOfTheProcess)
{
  sigset_t blocked;

  on_worker([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
  for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGALRM, SIGUSR1, SIGRTMIN}) {
    EXPECT_EQ(sigismember(&blocked, number), 1) << number;
  }
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "of the thread that has started it";
}

TEST_F(WorkerTest, TimerEndsOnce)
{
  WorkerSource timer;

  on_worker([&] {
    timer.start_timer(1, [&] {
      EXPECT_FALSE(timer.is_set());
      told_.add("over");
    });
    EXPECT_TRUE(timer.is_set());
  });
  told_.expect({"over"});
}

TEST_F(WorkerTest, TimerCanBeStartedFromItsFunction)
{
  WorkerSource timer;
  guint rounds = 0;
  const WorkerSource::Function again = [&] {
    told_.add("over");
    if (++rounds < 3) {
      timer.start_timer(1, again);
    }
  };

  on_worker([&] { timer.start_timer(1, again); });
  told_.expect({"over", "over", "over"});
}

TEST_F(WorkerTest, NewTimerReplacesTheOldOne)
{
  WorkerSource timer;

  on_worker([&] {
    timer.start_timer(0, [&] { told_.add("old"); });
    timer.start_timer(1, [&] { told_.add("new"); });
  });
  told_.expect({"new"});
}

TEST_F(WorkerTest, ClearedTimerDoesNothing)
{
  WorkerSource timer;
  WorkerSource other;

  on_worker([&] {
    timer.start_timer(0, [&] { told_.add("cleared"); });
    timer.clear();
    EXPECT_FALSE(timer.is_set());
    timer.clear();
    other.start_timer(1, [&] { told_.add("other"); });
  });
  told_.expect({"other"});
}

TEST_F(WorkerTest, SourceCanBeDestroyedFromItsFunction)
{
  const auto owned = std::make_shared<std::string>("still there");
  auto *timer = new WorkerSource;

  on_worker([&, owned] {
    timer->start_timer(0, [this, timer, owned] {
      delete timer;
      told_.add(*owned);
    });
  });
  told_.expect({"still there"});
  EXPECT_TRUE(testhost::spin_until([&] { return owned.use_count() == 1; }));
}

TEST_F(WorkerTest, DescriptorIsWatchedUntilItIsCleared)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();
  WorkerSource source;

  on_worker([&] {
    source.watch_fd(pipe.read_end.fd(), G_IO_IN, [&] {
      std::string byte(1, '\0');
      EXPECT_EQ(read(pipe.read_end.fd(), byte.data(), 1), 1);
      told_.add(byte);
      if (byte == "c") {
        source.clear();
        told_.add("cleared " + byte);
      }
    });
    EXPECT_TRUE(source.is_set());
  });
  pipe.write_end.write("ab");
  told_.expect({"a", "b"});
  pipe.write_end.write("cd");
  told_.expect({"c", "cleared c"});
  EXPECT_FALSE(source.is_set());
}

TEST_F(WorkerTest, DescriptorOfAWatchCanBeReplaced)
{
  const testpipes::Pipe first = testpipes::open_pipe();
  const testpipes::Pipe second = testpipes::open_pipe();
  WorkerSource source;

  first.write_end.write("a");
  second.write_end.write("b");
  on_worker([&] {
    source.watch_fd(first.read_end.fd(), G_IO_IN, [&] { told_.add("first"); });
    source.watch_fd(second.read_end.fd(), G_IO_IN, [&] {
      told_.add("second");
      source.clear();
    });
  });
  told_.expect({"second"});
}

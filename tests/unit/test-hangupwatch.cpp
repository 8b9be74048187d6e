/* SPDX-License-Identifier: MIT */
#include "hangupwatch.h"

#include "testclient.h"
#include "testhost.h"

#include <future>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

/* Both ends of a connection. */
class HangUpWatchTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    client_ = std::make_unique<Client>(Client::connect_pair(&fd_));
  }

  void TearDown() override
  {
    EXPECT_EQ(g_cancellable_get_current(), nullptr);
    client_.reset();
    EXPECT_EQ(close(fd_), 0);
    Fixture::TearDown();
  }

  int fd_ = -1;
  std::unique_ptr<Client> client_;
};

bool
is_ready(const std::future<bool> &result)
{
  return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

} // namespace

TEST_F(HangUpWatchTest, SetsTheCurrentCancellableOfTheThread)
{
  {
    g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd_);
    GCancellable *outer = g_cancellable_get_current();
    ASSERT_NE(outer, nullptr);
    {
      g_autoptr(HangUpWatch) inner = hang_up_watch_new(fd_);
      EXPECT_NE(g_cancellable_get_current(), outer);
    }
    EXPECT_EQ(g_cancellable_get_current(), outer);
    std::async(std::launch::async, [] { EXPECT_EQ(g_cancellable_get_current(), nullptr); }).get();
  }
  EXPECT_EQ(g_cancellable_get_current(), nullptr);
}

TEST_F(HangUpWatchTest, CancelsOnAnotherThreadWhenTheClientHangsUp)
{
  auto waiting = std::async(std::launch::async, [this] {
    g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd_);
    return testhost::wait_until_cancelled();
  });
  EXPECT_FALSE(testhost::spin_until([&] { return is_ready(waiting); }, 20 * G_TIME_SPAN_MILLISECOND));

  client_->hang_up();
  EXPECT_TRUE(testhost::spin_until([&] { return is_ready(waiting); }));
  EXPECT_TRUE(waiting.get());
}

TEST_F(HangUpWatchTest, CancelsForAClientThatHasHungUpBefore)
{
  client_->hang_up();
  g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd_);

  EXPECT_TRUE(testhost::spin_until([] { return g_cancellable_is_cancelled(g_cancellable_get_current()); }));
}

/* The main loop does not dispatch the watch for these events. */
TEST_F(HangUpWatchTest, IgnoresEverythingButTheHangUp)
{
  g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd_);
  ASSERT_TRUE(client_->send("SYNC\n"));
  client_->half_close();
  EXPECT_FALSE(g_main_context_pending(nullptr));

  EXPECT_FALSE(g_cancellable_is_cancelled(g_cancellable_get_current()));
  EXPECT_FALSE(hang_up_watch_is_gone(fd_));
  client_->hang_up();
  EXPECT_TRUE(g_main_context_pending(nullptr));
  EXPECT_TRUE(hang_up_watch_is_gone(fd_));
}

TEST_F(HangUpWatchTest, DetectsAClientThatHasEndedBothHalves)
{
  int fd = -1;
  Client client = Client::connect_pair(&fd);

  EXPECT_FALSE(hang_up_watch_is_gone(fd));
  client.half_close();
  EXPECT_FALSE(hang_up_watch_is_gone(fd));
  client.hang_up();
  EXPECT_TRUE(hang_up_watch_is_gone(fd));
  EXPECT_EQ(close(fd), 0);
}

/* The next client gets the number of a closed descriptor. Its hang-up must not cancel. */
TEST_F(HangUpWatchTest, IgnoresTheNextOwnerOfTheDescriptor)
{
  g_autoptr(GCancellable) cancellable = nullptr;
  {
    g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd_);
    cancellable = G_CANCELLABLE(g_object_ref(g_cancellable_get_current()));
  }
  int next = -1;
  Client other = Client::connect_pair(&next);
  ASSERT_EQ(dup2(next, fd_), fd_);
  other.hang_up();
  testhost::dispatch_ready();

  EXPECT_FALSE(g_cancellable_is_cancelled(cancellable));
  EXPECT_EQ(close(next), 0);
}

TEST_F(HangUpWatchTest, ChecksItsArgument)
{
  hang_up_watch_free(nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (testhost::Texts{"self != NULL"}));
}

/* The client hangs up before, during and after the construction of the watch, and during its release. */
TEST_F(HangUpWatchTest, CanBeMadeAndFreedWhileClientsHangUp)
{
  constexpr int ROUNDS = 500;
  auto working = std::async(std::launch::async, [] {
    for (int i = 0; i < ROUNDS; i++) {
      int fd = -1;
      Client client = Client::connect_pair(&fd);
      auto leaving = std::async(std::launch::async, [&client] { client.hang_up(); });
      {
        g_autoptr(HangUpWatch) watch = hang_up_watch_new(fd);
        if (i % 2 == 0 && !testhost::wait_until_cancelled()) {
          return false;
        }
      }
      leaving.get();
      close(fd);
    }
    return true;
  });

  EXPECT_TRUE(testhost::spin_until([&] { return is_ready(working); }));
  EXPECT_TRUE(working.get());
}

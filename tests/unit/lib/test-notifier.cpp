/* SPDX-License-Identifier: MIT */
#include "notifier.h"

#include "testlibrary.h"

#include <atomic>
#include <functional>
#include <future>
#include <thread>

using testlibrary::on_worker;

namespace
{

/* What the notifier calls: the function that a test sets. */
std::function<void(GObject *object)> notify;

class NotifierTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    object_ = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    notify = [this](GObject *object) {
      EXPECT_EQ(object, object_);
      calls_++;
    };
  }

  void TearDown() override
  {
    g_clear_object(&object_);
    notify = nullptr;
    testhost::Fixture::TearDown();
  }

  static std::shared_ptr<Notifier> create(GObject *object)
  {
    return Notifier::create(object, [](GObject *notified) { notify(notified); });
  }

  GObject *object_ = nullptr;
  guint calls_ = 0;
};

} // namespace

TEST_F(NotifierTest, CallsOnceForAnyNumberOfRequests)
{
  const auto notifier = create(object_);

  notifier->schedule();
  notifier->schedule();
  notifier->schedule();
  EXPECT_EQ(calls_, 0U) << "not before the main loop runs";
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 1U);
  notifier->schedule();
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 2U);
}

TEST_F(NotifierTest, RequestDuringTheCallIsAnotherCall)
{
  const auto notifier = create(object_);

  notify = [&](GObject *) {
    calls_++;
    if (calls_ < 3) {
      notifier->schedule();
    }
  };
  notifier->schedule();
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 3U);
}

TEST_F(NotifierTest, CallsInTheContextInWhichItWasMade)
{
  g_autoptr(GMainContext) context = g_main_context_new();

  g_main_context_push_thread_default(context);
  const auto notifier = create(object_);
  g_main_context_pop_thread_default(context);
  std::thread([&] { notifier->schedule(); }).join();
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 0U) << "not in the default main context";
  std::thread([&] {
    while (g_main_context_iteration(context, FALSE)) {
    }
  }).join();
  EXPECT_EQ(calls_, 1U);
}

TEST_F(NotifierTest, DoesNotKeepItsObjectAlive)
{
  const testhost::Observed observed(object_);
  const auto notifier = create(object_);

  notifier->schedule();
  g_clear_object(&object_);
  EXPECT_FALSE(observed.alive());
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 0U);
  notifier->schedule();
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 0U);
}

TEST_F(NotifierTest, DoesNotCallADisposedObject)
{
  const auto notifier = create(object_);

  notifier->schedule();
  g_object_run_dispose(object_);
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 0U);
}

TEST_F(NotifierTest, KeepsItsObjectDuringTheCall)
{
  const testhost::Observed observed(object_);
  const auto notifier = create(object_);

  notify = [&](GObject *object) {
    g_clear_object(&object_);
    EXPECT_TRUE(observed.alive());
    EXPECT_EQ(object->ref_count, 1U);
    calls_++;
  };
  notifier->schedule();
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 1U);
  EXPECT_FALSE(observed.alive());
}

TEST_F(NotifierTest, RequestKeepsTheNotifier)
{
  auto notifier = create(object_);
  const std::weak_ptr<Notifier> weak = notifier;

  notifier->schedule();
  notifier.reset();
  EXPECT_FALSE(weak.expired());
  testhost::dispatch_ready();
  EXPECT_EQ(calls_, 1U);
  EXPECT_TRUE(weak.expired());
}

TEST_F(NotifierTest, ContextThatEndsReleasesTheNotifier)
{
  GMainContext *context = g_main_context_new();
  g_main_context_push_thread_default(context);
  auto notifier = create(object_);
  g_main_context_pop_thread_default(context);
  const std::weak_ptr<Notifier> weak = notifier;

  notifier->schedule();
  notifier.reset();
  EXPECT_FALSE(weak.expired());
  /* The notifier has a reference on the context, and the request one on the notifier. */
  g_main_context_push_thread_default(context);
  while (g_main_context_iteration(context, FALSE)) {
  }
  g_main_context_pop_thread_default(context);
  EXPECT_TRUE(weak.expired());
  g_main_context_unref(context);
}

/* A call after a request sees all changes before it. */
TEST_F(NotifierTest, LastChangeIsNotMissed)
{
  constexpr guint CHANGES = 20000;
  const auto notifier = create(object_);
  std::atomic<guint> changes = 0;
  guint seen = 0;

  notify = [&](GObject *) { seen = changes; };
  std::thread changer([&] {
    for (guint i = 0; i < CHANGES; i++) {
      changes++;
      notifier->schedule();
    }
  });
  EXPECT_TRUE(testhost::spin_until([&] { return seen == CHANGES; }));
  changer.join();
}

/* The last reference can go on one thread while another one runs the main loop. */
TEST_F(NotifierTest, ObjectThatGoesDuringARequest)
{
  for (guint round = 0; round < 300; round++) {
    GObject *object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    const auto notifier = create(object);
    notify = [&](GObject *notified) { EXPECT_EQ(notified, object); };
    std::thread scheduler([&] { notifier->schedule(); });
    std::thread releaser([&] { g_object_unref(object); });
    testhost::dispatch_ready();
    scheduler.join();
    releaser.join();
    testhost::dispatch_ready();
  }
}

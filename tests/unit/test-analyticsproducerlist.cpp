/* SPDX-License-Identifier: MIT */
#include "analyticsproducerlist.h"

#include "producerconfig.h"
#include "saves.h"
#include "testhost.h"
#include "testproducers.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <set>
#include <syslog.h>
#include <thread>
#include <utility>

using testhost::Observed;
using testhost::SyslogLines;
using testhost::Texts;
using testproducers::Channels;
using testproducers::make_producer;
using testproducers::references;
using testproducers::state;
using testproducers::text_property;

using namespace std::chrono_literals;

namespace
{

/* The calls of the callbacks and of the function of foreach, which have no user data. */
Texts calls;
std::function<void(AnalyticsProducer *)> in_callback;

void
on_added(AnalyticsProducer *producer)
{
  calls.push_back("added " + text_property(producer, "name"));
  if (in_callback) {
    in_callback(producer);
  }
}

void
on_removed(AnalyticsProducer *producer)
{
  calls.push_back("removed " + text_property(producer, "name"));
  if (in_callback) {
    in_callback(producer);
  }
}

Texts
take_calls()
{
  return std::exchange(calls, {});
}

class AnalyticsProducerListTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    file_ = path("producers.conf");
    ASSERT_TRUE(g_file_set_contents(file_.c_str(), "", 0, nullptr));
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
    list_ = analytics_producer_list_new();
  }

  void TearDown() override
  {
    g_clear_pointer(&list_, analytics_producer_list_free);
    producer_config_free();
    in_callback = nullptr;
    EXPECT_EQ(take_calls(), Texts()) << "callbacks that no test expected";
    Fixture::TearDown();
  }

  /* Only the list holds the producer. */
  AnalyticsProducer *add(const std::string &name, const Channels &channels = {1})
  {
    g_autoptr(AnalyticsProducer) producer = make_producer(name, channels);

    EXPECT_TRUE(analytics_producer_list_add(list_, producer));
    return producer;
  }

  Texts names() const
  {
    std::set<std::string> sorted;

    analytics_producer_list_foreach(
        list_,
        [](AnalyticsProducer *producer, gpointer user_data) {
          static_cast<std::set<std::string> *>(user_data)->insert(text_property(producer, "name"));
        },
        &sorted);
    return {sorted.begin(), sorted.end()};
  }

  /* Calls @function. Returns whether another thread that uses the list waits until @function returns. */
  void expect_locked_while_called()
  {
    std::promise<void> begun;
    std::promise<void> ended;
    std::future<void> end = ended.get_future();
    other_ = std::thread([this, &begun, ended = std::move(ended)]() mutable {
      begun.set_value();
      analytics_producer_list_contains(list_, "any");
      ended.set_value();
    });
    begun.get_future().wait();
    EXPECT_EQ(end.wait_for(50ms), std::future_status::timeout);
    end_ = std::move(end);
  }

  void expect_unlocked_afterwards()
  {
    EXPECT_EQ(end_.wait_for(20s), std::future_status::ready);
    other_.join();
  }

  AnalyticsProducerList *list_ = nullptr;

private:
  std::string file_;
  std::thread other_;
  std::future<void> end_;
};

} // namespace

TEST_F(AnalyticsProducerListTest, AddsAProducer)
{
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  EXPECT_TRUE(analytics_producer_list_add(list_, producer));
  EXPECT_EQ(references(producer), 2U);
  EXPECT_EQ(take_calls(), (Texts{"added Any"}));
  EXPECT_TRUE(analytics_producer_list_contains(list_, "Any"));
  EXPECT_FALSE(analytics_producer_list_contains(list_, "any"));
  EXPECT_FALSE(analytics_producer_list_contains(list_, ""));
}

TEST_F(AnalyticsProducerListTest, RefusesASecondProducerOfTheSameName)
{
  AnalyticsProducer *first = add("Any");
  g_autoptr(AnalyticsProducer) second = make_producer("Any", {1});
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);

  for (AnalyticsProducer *producer : {second, first}) {
    EXPECT_FALSE(analytics_producer_list_add(list_, producer));
    EXPECT_EQ(references(producer), 1U);
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_WARNING, "tried to add a producer that already exists: Any"}}));
  }
  g_autoptr(AnalyticsProducer) found = analytics_producer_list_get_producer(list_, "Any");
  EXPECT_EQ(found, first);
}

TEST_F(AnalyticsProducerListTest, ReturnsAReferenceToAProducer)
{
  AnalyticsProducer *producer = add("Any");

  g_autoptr(AnalyticsProducer) found = analytics_producer_list_get_producer(list_, "Any");
  EXPECT_EQ(found, producer);
  EXPECT_EQ(references(producer), 2U);
  EXPECT_EQ(analytics_producer_list_get_producer(list_, "Other"), nullptr);
}

TEST_F(AnalyticsProducerListTest, RemovesAProducer)
{
  add("Other");
  const Observed observed(add("Any"));
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  bool alive = false;
  in_callback = [&](AnalyticsProducer *) { alive = observed.alive(); };

  analytics_producer_list_remove(list_, "Any");
  EXPECT_EQ(take_calls(), (Texts{"removed Any"}));
  EXPECT_TRUE(alive) << "until the callback has returned";
  EXPECT_FALSE(observed.alive());
  EXPECT_FALSE(analytics_producer_list_contains(list_, "Any"));
  EXPECT_EQ(names(), (Texts{"Other"}));
}

TEST_F(AnalyticsProducerListTest, KeepsARemovedProducerThatHasOtherReferences)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});
  analytics_producer_list_add(list_, producer);
  analytics_producer_list_remove(list_, "Any");

  EXPECT_EQ(references(producer), 1U);
  EXPECT_TRUE(analytics_producer_list_add(list_, producer)) << "again";
}

TEST_F(AnalyticsProducerListTest, WarnsOfTheRemovalOfAnUnknownProducer)
{
  add("Any");
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  analytics_producer_list_remove(list_, "Other");

  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "tried to remove non-existing producer: Other"}}));
  EXPECT_EQ(names(), (Texts{"Any"}));
}

TEST_F(AnalyticsProducerListTest, CallsTheFunctionForAllProducers)
{
  EXPECT_EQ(names(), Texts());
  add("A");
  add("B");
  add("C");
  EXPECT_EQ(names(), (Texts{"A", "B", "C"}));
}

TEST_F(AnalyticsProducerListTest, ReleasesItsProducersWithoutACallback)
{
  const Observed alone(add("Any"));
  g_autoptr(AnalyticsProducer) shared = make_producer("Shared", {1});
  analytics_producer_list_add(list_, shared);
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  g_clear_pointer(&list_, analytics_producer_list_free);

  EXPECT_FALSE(alone.alive());
  EXPECT_EQ(references(shared), 1U);
}

TEST_F(AnalyticsProducerListTest, ReplacesBothCallbacks)
{
  analytics_producer_list_set_callbacks(list_, on_added, nullptr);
  add("Any");
  analytics_producer_list_remove(list_, "Any");
  EXPECT_EQ(take_calls(), (Texts{"added Any"}));
  analytics_producer_list_set_callbacks(list_, nullptr, on_removed);
  add("Any");
  analytics_producer_list_remove(list_, "Any");
  EXPECT_EQ(take_calls(), (Texts{"removed Any"}));
  analytics_producer_list_set_callbacks(list_, nullptr, nullptr);
  add("Any");
  analytics_producer_list_remove(list_, "Any");
}

TEST_F(AnalyticsProducerListTest, IsLockedDuringBothCallbacks)
{
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  in_callback = [this](AnalyticsProducer *) { expect_locked_while_called(); };

  add("Any");
  expect_unlocked_afterwards();
  EXPECT_EQ(take_calls(), (Texts{"added Any"}));
  analytics_producer_list_remove(list_, "Any");
  expect_unlocked_afterwards();
  EXPECT_EQ(take_calls(), (Texts{"removed Any"}));
}

TEST_F(AnalyticsProducerListTest, IsLockedWhileItCallsTheFunction)
{
  std::function<void()> hook = [this] { expect_locked_while_called(); };
  add("Any");

  analytics_producer_list_foreach(
      list_,
      [](AnalyticsProducer *, gpointer user_data) { (*static_cast<std::function<void()> *>(user_data))(); },
      &hook);
  expect_unlocked_afterwards();
}

TEST_F(AnalyticsProducerListTest, LetsACallbackUseTheProducer)
{
  analytics_producer_list_set_callbacks(list_, on_added, on_removed);
  in_callback = [](AnalyticsProducer *producer) {
    EXPECT_EQ(state(producer, 1), "disabled");
    analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  };

  AnalyticsProducer *producer = add("Any");
  EXPECT_EQ(state(producer, 1), "[profile]");
  EXPECT_EQ(take_calls(), (Texts{"added Any"}));
}

TEST_F(AnalyticsProducerListTest, ChecksItsArguments)
{
  const auto nothing = [](AnalyticsProducer *, gpointer) {};
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  EXPECT_FALSE(analytics_producer_list_add(nullptr, producer));
  EXPECT_FALSE(analytics_producer_list_add(list_, nullptr));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"list != NULL", "producer != NULL"}));
  EXPECT_EQ(references(producer), 1U);

  analytics_producer_list_free(nullptr);
  analytics_producer_list_set_callbacks(nullptr, on_added, on_removed);
  analytics_producer_list_remove(nullptr, "Any");
  analytics_producer_list_foreach(nullptr, nothing, nullptr);
  EXPECT_FALSE(analytics_producer_list_contains(nullptr, "Any"));
  EXPECT_EQ(analytics_producer_list_get_producer(nullptr, "Any"), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts(6, "list != NULL"));

  analytics_producer_list_foreach(list_, nullptr, nullptr);
  analytics_producer_list_remove(list_, nullptr);
  EXPECT_FALSE(analytics_producer_list_contains(list_, nullptr));
  EXPECT_EQ(analytics_producer_list_get_producer(list_, nullptr), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"function != NULL", "name != NULL", "name != NULL", "name != NULL"}));
}

/* Request threads iterate the list and read producers, while these are added, changed and removed. */
TEST_F(AnalyticsProducerListTest, IsUsedByThreadsWhileItChanges)
{
  constexpr int CHANGES = 100;
  std::atomic<bool> done = false;
  std::atomic<int> seen = 0;
  const auto read = [&] {
    while (!done) {
      analytics_producer_list_foreach(
          list_,
          [](AnalyticsProducer *producer, gpointer user_data) {
            g_autofree gchar *name = nullptr;
            *static_cast<std::atomic<int> *>(user_data) +=
                analytics_producer_get_channel_enabled(producer, 1, &name) ? 1 : 0;
          },
          &seen);
      g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(list_, "Any");
      if (producer != nullptr) {
        g_autofree gchar *name = nullptr;
        analytics_producer_get_channel_enabled(producer, 1, &name);
      }
    }
  };

  std::thread first(read);
  std::thread second(read);
  for (int i = 0; i < CHANGES || seen == 0; i++) {
    AnalyticsProducer *producer = add("Any");
    analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
    saves::wait();
    analytics_producer_list_remove(list_, "Any");
  }
  done = true;
  first.join();
  second.join();
  EXPECT_FALSE(analytics_producer_list_contains(list_, "Any"));
}

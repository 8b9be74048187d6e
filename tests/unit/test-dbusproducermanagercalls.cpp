/* SPDX-License-Identifier: MIT */
#include "dbusproducermanager.h"

#include "faults.h"
#include "producerconfig.h"
#include "testproducermanager.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <syslog.h>
#include <unistd.h>
#include <utility>

using namespace testproducermanager;

using testbus::Peer;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

constexpr const char *NOT_SUPPORTED_ON_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Videochannel is not supported on producer";
constexpr const char *NOT_APPLIED =
    "org.freedesktop.DBus.Error.Failed: Failed to apply configuration to producer";

constexpr const char *TOO_MANY_TUPLES =
    "org.freedesktop.DBus.Error.LimitsExceeded: More than 4096 tuples in one call";
constexpr const char *TOO_MANY_CALLS = "org.freedesktop.DBus.Error.LimitsExceeded: Too many calls wait";
constexpr const char *NAME_TOO_LONG =
    "org.freedesktop.DBus.Error.LimitsExceeded: Configuration name is longer than 256 bytes";

const std::string TOO_LONG(PRODUCER_CONFIG_MAX_NAME_BYTES + 1, 'x');

/* A folder in memory, if there is one. */
constexpr const char *MEMORY_DIR = "/dev/shm";

std::string
repeat(const std::string &text, gsize count)
{
  std::string repeated;

  for (gsize i = 0; i < count; i++) {
    repeated += text;
  }
  return repeated;
}

/* Calls @hook at each change of a producer's channels. */
class OnChange
{
public:
  OnChange(AnalyticsProducer *producer, std::function<void()> hook)
      : producer_(ANALYTICS_PRODUCER(g_object_ref(producer))), hook_(std::move(hook)),
        id_(g_signal_connect(producer, "notify::channels-enabled", G_CALLBACK(on_notify), this))
  {
  }

  ~OnChange()
  {
    g_signal_handler_disconnect(producer_, id_);
    g_object_unref(producer_);
  }

  OnChange(const OnChange &) = delete;
  OnChange &operator=(const OnChange &) = delete;

private:
  static void on_notify(AnalyticsProducer *, GParamSpec *, OnChange *self)
  {
    self->hook_();
  }

  AnalyticsProducer *producer_;
  std::function<void()> hook_;
  gulong id_;
};

class DBusProducerManagerCallTest : public Fixture
{
};

class DBusProducerManagerCallOneTest : public FixtureWithOne
{
};

} // namespace

/* SetChannelsEnabled. */

TEST_F(DBusProducerManagerCallOneTest, EnablesAndDisablesChannels)
{
  EXPECT_EQ(set_channels("One", "[(2, true, 'left door')]"), DONE);
  expect_channels("One", "[(1, false, ''), (2, true, 'left door')]");
  EXPECT_TRUE(analytics_producer_get_channel_enabled(one_, 2, nullptr));
  EXPECT_EQ(content(), "[Producers.1.One]\nName=left door\n");

  EXPECT_EQ(set_channels("One", "[(2, false, 'ignored')]"), DONE);
  expect_channels("One", "[(1, false, ''), (2, false, '')]");
  EXPECT_FALSE(analytics_producer_get_channel_enabled(one_, 2, nullptr));
  EXPECT_EQ(content(), "[Producers.1.One]\nName=\n");

  EXPECT_EQ(take_signals().size(), 2U);
}

TEST_F(DBusProducerManagerCallOneTest, SendsOneSignalForTheChangesOfACall)
{
  set_channels("One", "[(1, true, 'a'), (2, true, 'b')]");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'a'), (2, true, 'b')]")}));
  set_channels("One", "[(1, false, '')]");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, false, ''), (2, true, 'b')]")}));
  set_producers("{'One': [(2, true, 'c')]}");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, false, ''), (2, true, 'c')]")}));
}

TEST_F(DBusProducerManagerCallOneTest, SendsNoSignalWhenNothingChanges)
{
  set_channels("One", "[(1, true, 'a')]");
  take_signals();

  EXPECT_EQ(set_channels("One", "[(1, true, 'a')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(2, false, 'b')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(1, false, ''), (1, true, 'a')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(3, true, 'a')]"), NOT_SUPPORTED);
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerCallOneTest, SucceedsWithoutAnyChannel)
{
  EXPECT_EQ(saves([this] { EXPECT_EQ(set_channels("One", "[]"), DONE); }), 0U);
  expect_channels("One", BOTH_DISABLED);
}

TEST_F(DBusProducerManagerCallOneTest, ChangesNothingWhenAChannelIsNotSupported)
{
  EXPECT_EQ(saves([this] {
              EXPECT_EQ(set_channels("One", "[(1, true, 'x'), (3, true, 'y')]"), NOT_SUPPORTED);
              EXPECT_EQ(set_channels("One", "[(3, false, ''), (1, true, 'x')]"), NOT_SUPPORTED);
            }),
            0U);
  expect_channels("One", BOTH_DISABLED);
  EXPECT_EQ(content(), "# producers\n");
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerCallOneTest, AppliesTheLastTupleOfAChannel)
{
  EXPECT_EQ(
      saves([this] { EXPECT_EQ(set_channels("One", "[(1, true, 'first'), (1, true, 'last')]"), DONE); }), 2U);
  expect_channels("One", "[(1, true, 'last'), (2, false, '')]");
  EXPECT_EQ(set_channels("One", "[(1, true, 'again'), (1, false, 'gone')]"), DONE);
  expect_channels("One", "[(1, false, ''), (2, false, '')]");
}

TEST_F(DBusProducerManagerCallOneTest, RepliesWhenEveryChangeIsOnDisk)
{
  const Texts two_saves_and_reply = {"open",  "fsync", "close",  "rename", "open",  "fsync", "close", "open",
                                     "fsync", "close", "rename", "open",   "fsync", "close", "reply"};

  for (const auto &set :
       {std::function([this] { return set_channels("One", "[(1, true, 'a'), (2, true, 'b')]"); }),
        std::function([this] { return set_producers("{'One': [(1, true, 'c'), (2, true, 'd')]}"); })}) {
    faults::keep_file_calls();
    EXPECT_EQ(set(), DONE);
    Texts names;
    for (const std::string &call : faults::take_file_calls()) {
      names.push_back(call.substr(0, call.find(' ')));
    }
    EXPECT_EQ(names, two_saves_and_reply);
  }
  EXPECT_EQ(content(), "[Producers.0.One]\nName=c\n\n[Producers.1.One]\nName=d\n");
}

TEST_F(DBusProducerManagerCallOneTest, RepliesWhenAChangeCannotBeWritten)
{
  faults::fail_next(faults::Call::FSYNC, 1);

  EXPECT_EQ(set_channels("One", "[(1, true, 'a')]"), DONE);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "could not write name to producerconfig: Failed to "
                                       "sync '" +
                                           dir() + "': Input/output error"}}));
  expect_channels("One", "[(1, true, 'a'), (2, false, '')]");
}

TEST_F(DBusProducerManagerCallTest, RefusesNegativeAndUnknownChannels)
{
  acquire();
  add("One", {1, 2147483647, 2147483648U, 4294967295U});
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "left out 2 channels above 2147483647 of producer One"}}));

  for (const char *channel : {"-1", "0", "-2147483648", "-2147483647", "2147483646", "2"}) {
    EXPECT_EQ(set_channels("One", "[("s + channel + ", true, 'x')]"), NOT_SUPPORTED) << channel;
    EXPECT_EQ(set_producers("{'One': [("s + channel + ", true, 'x')]}"), NOT_SUPPORTED_ON_PRODUCER)
        << channel;
  }
  EXPECT_EQ(set_channels("One", "[(2147483647, true, 'x')]"), DONE);
  expect_channels("One", "[(1, false, ''), (2147483647, true, 'x')]");
}

TEST_F(DBusProducerManagerCallOneTest, StoresTheLongestNameCompletely)
{
  const std::string name = std::string(252, 'x') + "=[]\"";
  ASSERT_EQ(name.size(), PRODUCER_CONFIG_MAX_NAME_BYTES);

  EXPECT_EQ(set_channels("One", "[(1, true, '" + name + "')]"), DONE);
  expect_channels("One", "[(1, true, '" + name + "'), (2, false, '')]");
  g_autofree gchar *configured = producer_config_get_name("One", 1);
  EXPECT_EQ(configured, name);
  EXPECT_EQ(set_producers("{'One': [(2, true, '" + name + "')]}"), DONE);
  expect_channels("One", "[(1, true, '" + name + "'), (2, true, '" + name + "')]");
}

TEST_F(DBusProducerManagerCallOneTest, RefusesANameThatIsTooLong)
{
  const std::string characters = repeat("ü", PRODUCER_CONFIG_MAX_NAME_BYTES / 2) + "x";
  ASSERT_EQ(TOO_LONG.size(), PRODUCER_CONFIG_MAX_NAME_BYTES + 1);
  ASSERT_EQ(characters.size(), PRODUCER_CONFIG_MAX_NAME_BYTES + 1) << "the limit is in bytes";
  add("Two");
  take_signals();

  EXPECT_EQ(saves([&] {
              for (const std::string &name : {TOO_LONG, characters}) {
                const std::string enable = "(1, true, '" + name + "')";
                EXPECT_EQ(set_channels("One", "[" + enable + "]"), NAME_TOO_LONG);
                EXPECT_EQ(set_channels("One", "[(2, true, 'x'), " + enable + "]"), NAME_TOO_LONG);
                EXPECT_EQ(set_channels("One", "[" + enable + ", (1, false, '')]"), NAME_TOO_LONG);
                EXPECT_EQ(set_producers("{'One': [(1, true, 'x')], 'Two': [" + enable + "]}"), NAME_TOO_LONG);
                EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Two': [(1, true, 'x')]}"), NAME_TOO_LONG);
              }
            }),
            0U);
  expect_channels("One", BOTH_DISABLED);
  expect_channels("Two", BOTH_DISABLED);
  EXPECT_EQ(content(), "# producers\n");
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerCallOneTest, ReportsOtherErrorsBeforeANameThatIsTooLong)
{
  const std::string enable = "(1, true, '" + TOO_LONG + "')";
  add("Two", {2});

  EXPECT_EQ(set_channels("One", "[" + enable + ", (3, false, '')]"), NOT_SUPPORTED);
  EXPECT_EQ(set_channels("One", "[(3, true, '" + TOO_LONG + "')]"), NOT_SUPPORTED);
  EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Unknown': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'Unknown': [" + enable + "]}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Two': [(1, false, '')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [" + enable + "], 'One': []}"), NOT_SUPPORTED_ON_PRODUCER);
}

TEST_F(DBusProducerManagerCallOneTest, IgnoresTheNameInATupleThatDisables)
{
  set_channels("One", "[(1, true, 'x'), (2, true, 'x')]");

  EXPECT_EQ(set_channels("One", "[(1, false, '" + TOO_LONG + "')]"), DONE);
  EXPECT_EQ(set_producers("{'One': [(2, false, '" + TOO_LONG + "')]}"), DONE);
  expect_channels("One", BOTH_DISABLED);
  EXPECT_EQ(content(), "[Producers.0.One]\nName=\n\n[Producers.1.One]\nName=\n");
}

TEST_F(DBusProducerManagerCallTest, ExportsALongNameFromTheFile)
{
  producer_config_free();
  std::ofstream(file_) << "[Producers.0.One]\nName=" + TOO_LONG + "\n";
  ASSERT_TRUE(producer_config_setup(file_.c_str()));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "configuration name longer than 256 bytes in producers.conf: "
                                       "Producers.0.One"}}));
  acquire();
  add("One");
  expect_channels("One", "[(1, true, '" + TOO_LONG + "'), (2, false, '')]");

  EXPECT_EQ(set_channels("One", "[(2, true, 'x')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(1, true, '" + TOO_LONG + "')]"), NAME_TOO_LONG);
  expect_channels("One", "[(1, true, '" + TOO_LONG + "'), (2, true, 'x')]");
  remove("One");
  add("One");
  expect_channels("One", "[(1, true, '" + TOO_LONG + "'), (2, true, 'x')]");
}

TEST_F(DBusProducerManagerCallOneTest, AcceptsAnEmptyName)
{
  EXPECT_EQ(set_channels("One", "[(1, true, '')]"), DONE);
  expect_channels("One", "[(1, true, ''), (2, false, '')]");
}

TEST_F(DBusProducerManagerCallOneTest, RefusesArgumentsOfAnotherType)
{
  for (const char *arguments : {"()", "(1,)", "([(uint32 1, true, 'x')],)", "([(1, true)],)",
                                "([(1, 'x', true)],)", "([(1, true, 'x')], 1)", "(<[(1, true, 'x')]>,)"}) {
    GVariant *parsed = g_variant_new_parsed(arguments);
    const std::string reply = tool_->call(method(path_of("One"), PRODUCER, "SetChannelsEnabled", parsed));
    EXPECT_TRUE(reply.starts_with("org.freedesktop.DBus.Error.InvalidArgs: Type of message, “")) << reply;
  }
  expect_channels("One", BOTH_DISABLED);
}

/* SetProducersEnabled. */

TEST_F(DBusProducerManagerCallOneTest, ChangesSeveralProducers)
{
  add("Two");

  EXPECT_EQ(saves([this] {
              EXPECT_EQ(set_producers("{'One': [(1, true, 'a'), (2, true, 'b')], 'Two': [(2, true, 'c')]}"),
                        DONE);
            }),
            3U);
  expect_channels("One", "[(1, true, 'a'), (2, true, 'b')]");
  expect_channels("Two", "[(1, false, ''), (2, true, 'c')]");
}

TEST_F(DBusProducerManagerCallOneTest, SucceedsWithoutAnyProducer)
{
  EXPECT_EQ(set_producers("{}"), DONE);
  EXPECT_EQ(set_producers("{'One': []}"), DONE);
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerCallOneTest, ChangesNothingForAnUnknownProducer)
{
  EXPECT_EQ(set_producers("{'One': [(1, true, 'a')], 'Two': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'': [(1, true, 'a')]}"), NO_PRODUCER);
  EXPECT_EQ(content(), "# producers\n");
  expect_channels("One", BOTH_DISABLED);
}

TEST_F(DBusProducerManagerCallOneTest, ChangesNothingForAnUnsupportedChannel)
{
  add("Two", {3});

  EXPECT_EQ(set_producers("{'One': [(1, true, 'a')], 'Two': [(1, true, 'a')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [(1, true, 'a')], 'One': [(1, true, 'a')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerCallOneTest, ReportsAnUnknownProducerBeforeAnUnsupportedChannel)
{
  EXPECT_EQ(set_producers("{'One': [(3, true, 'a')], 'Two': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [], 'One': [(3, true, 'a')]}"), NO_PRODUCER);
}

TEST_F(DBusProducerManagerCallOneTest, AppliesTheSameProducerTwiceInOrder)
{
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa(ibs)}"));
  g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[(1, true, 'first')]"));
  g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[(1, true, 'last')]"));

  EXPECT_EQ(
      tool_->call(method(ROOT, MANAGER, "SetProducersEnabled", g_variant_new("(a{sa(ibs)})", &builder))),
      DONE);
  expect_channels("One", "[(1, true, 'last'), (2, false, '')]");
}

TEST_F(DBusProducerManagerCallOneTest, KeepsTheOtherChangesWhenAProducerIsRemovedDuringACall)
{
  add("First");
  add("Passing");
  add("Last");
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(
      set_producers_call(
          "{'First': [(1, true, 'a')], 'Passing': [(1, true, 'b')], 'Last': [(1, true, 'c')]}"),
      sync);
  remove("Passing");
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
  expect_channels("First", "[(1, true, 'a'), (2, false, '')]");
  expect_channels("Last", "[(1, true, 'c'), (2, false, '')]");
  EXPECT_EQ(content(), "[Producers.0.First]\nName=a\n\n[Producers.0.Last]\nName=c\n");
}

TEST_F(DBusProducerManagerCallTest, ContinuesWithANewProducerOfTheNameThatSupportsTheChannel)
{
  acquire();
  add("One", {1, 2, 3});
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(
      set_producers_call("{'One': [(1, true, 'a'), (2, true, 'b'), (3, true, 'c'), (1, true, 'd')]}"), sync);
  remove("One");
  add("One", {1, 2});
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
  expect_channels("One", "[(1, true, 'a'), (2, true, 'b')]");
  EXPECT_EQ(content(), "[Producers.0.One]\nName=a\n\n[Producers.1.One]\nName=b\n");
}

TEST_F(DBusProducerManagerCallOneTest, FailsForAnEntryWithoutTuplesWhoseProducerIsRemoved)
{
  add("Passing");
  faults::HeldSync sync;
  const Peer::Outcome outcome =
      start_and_hold(set_producers_call("{'One': [(1, true, 'a')], 'Passing': []}"), sync);
  remove("Passing");
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
}

/* Limits of calls. */

TEST_F(DBusProducerManagerCallTest, LimitsTheTuplesOfACall)
{
  ASSERT_EQ(DBUS_PRODUCER_MANAGER_MAX_TUPLES, 4096);
  if (std::filesystem::is_directory(MEMORY_DIR)) {
    producer_config_free();
    load(MEMORY_DIR + "/tessard-"s + std::to_string(getpid()) + ".conf");
  }
  acquire();
  add("One");
  add("Two");
  const auto tuples = [](gint32 count) {
    std::string text;
    for (gint32 i = 1; i <= count; i++) {
      text += (i > 1 ? ", (" : "(") + std::to_string(1 + i % 2) + ", true, '" + std::to_string(i) + "')";
    }
    return text;
  };

  EXPECT_EQ(saves([&] {
              EXPECT_EQ(set_channels("One", "[" + tuples(4097) + "]"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_channels("One", "[" + tuples(4096) + ", (3, true, 'x')]"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'Unknown': [" + tuples(4097) + "]}"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'One': [" + tuples(4000) + "], 'Two': [" + tuples(97) + "]}"),
                        TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'One': [" + tuples(4096) + "], 'Two': []}"), TOO_MANY_TUPLES);
            }),
            0U);
  expect_channels("One", BOTH_DISABLED);
  EXPECT_EQ(saves([&] { EXPECT_EQ(set_channels("One", "[" + tuples(4096) + "]"), DONE); }), 4096U);
  expect_channels("One", "[(1, true, '4096'), (2, true, '4095')]");
  EXPECT_EQ(set_producers("{'One': [" + tuples(4000) + "], 'Two': [" + tuples(96) + "]}"), DONE);
  expect_channels("One", "[(1, true, '4000'), (2, true, '3999')]");
  expect_channels("Two", "[(1, true, '96'), (2, true, '95')]");
  if (file_.starts_with(MEMORY_DIR)) {
    std::filesystem::remove(file_);
  }
}

TEST_F(DBusProducerManagerCallOneTest, CountsEntriesWithoutTuples)
{
  const auto call = [this](gsize entries) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa(ibs)}"));
    for (gsize i = 0; i < entries; i++) {
      g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[]"));
    }
    return tool_->call(method(ROOT, MANAGER, "SetProducersEnabled", g_variant_new("(a{sa(ibs)})", &builder)));
  };

  EXPECT_EQ(call(DBUS_PRODUCER_MANAGER_MAX_TUPLES), DONE);
  EXPECT_EQ(call(DBUS_PRODUCER_MANAGER_MAX_TUPLES + 1), TOO_MANY_TUPLES);
}

TEST_F(DBusProducerManagerCallOneTest, LimitsTheQueuedCalls)
{
  faults::HeldSync sync;
  const Peer::Outcome first = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  std::vector<Peer::Call> calls;
  calls.reserve(DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS);
  for (int i = 0; i < DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS; i++) {
    calls.push_back(i % 2 != 0 ? set_channels_call("One", "[]") : set_producers_call("{}"));
  }
  const std::vector<Peer::Outcome> waiting = start_behind(calls);

  EXPECT_EQ(set_channels("One", "[(2, true, 'y')]"), TOO_MANY_CALLS);
  EXPECT_EQ(set_producers("{'One': [(2, true, 'y')]}"), TOO_MANY_CALLS);
  sync.release();
  EXPECT_EQ(wait_for(first), DONE);
  for (const Peer::Outcome &outcome : waiting) {
    EXPECT_EQ(wait_for(outcome), DONE);
  }
  expect_channels("One", "[(1, true, 'x'), (2, false, '')]");
  EXPECT_EQ(set_channels("One", "[(2, true, 'y')]"), DONE);
}

TEST_F(DBusProducerManagerCallOneTest, LimitsTheSizeOfQueuedCalls)
{
  const std::string half(DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES / 2, 'x');
  const std::string disable = "[(1, false, '" + half + "')]";
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, false, '" + half + half + half + "')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind({set_channels_call("One", disable)});

  EXPECT_EQ(set_channels("One", disable), TOO_MANY_CALLS);
  const std::vector<Peer::Outcome> small = start_behind({set_channels_call("One", "[(2, true, 'x')]")});
  sync.release();
  EXPECT_EQ(wait_for(first), DONE) << "the first call may have any size";
  EXPECT_EQ(wait_for(waiting[0]), DONE);
  EXPECT_EQ(wait_for(small[0]), DONE);
  expect_channels("One", "[(1, false, ''), (2, true, 'x')]");
}

/* Calls during saves and other calls. */

TEST_F(DBusProducerManagerCallOneTest, ServesOtherCallsDuringASave)
{
  faults::HeldSync sync;
  const Peer::Outcome outcome =
      start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);

  EXPECT_TRUE(analytics_producer_get_channel_enabled(one_, 1, nullptr)) << "in memory at once";
  EXPECT_FALSE(analytics_producer_get_channel_enabled(one_, 2, nullptr)) << "one after the other";
  /* The object shows the changes when they are all on disk. */
  expect_channels("One", BOTH_DISABLED);
  add("Two");
  EXPECT_EQ(take_signals().size(), 1U) << "of the other producer";
  EXPECT_FALSE(outcome->has_value());

  sync.release();
  EXPECT_EQ(wait_for(outcome), DONE);
  expect_channels("One", "[(1, true, 'x'), (2, true, 'y')]");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'x'), (2, true, 'y')]")}));
}

TEST_F(DBusProducerManagerCallOneTest, ShowsAllChangesOfACallBeforeItsReply)
{
  Texts events;
  const OnChange on_change(one_, [&events] {
    events.push_back("shown after " + std::to_string(faults::file_calls_size()) + " calls");
  });
  faults::keep_file_calls();
  EXPECT_EQ(set_channels("One", "[(1, true, 'x'), (2, true, 'y')]"), DONE);

  EXPECT_EQ(events, (Texts{"shown after 14 calls"})) << "two saves, and no reply yet";
  EXPECT_EQ(faults::take_file_calls().size(), 15U);
  EXPECT_EQ(take_signals().size(), 1U);
}

TEST_F(DBusProducerManagerCallOneTest, ExecutesCallsInTheOrderOfTheirArrival)
{
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, true, 'a'), (2, true, 'a')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_producers_call("{'One': [(1, true, 'b'), (2, true, 'b')]}"),
       set_channels_call("One", "[(3, true, 'x')]"), set_channels_call("One", "[(2, true, 'c')]"),
       set_producers_call("{'Late': [(1, true, 'd')]}"), set_producers_call("{'Unknown': []}")});
  for (const Peer::Outcome &outcome : waiting) {
    EXPECT_FALSE(outcome->has_value());
  }
  add("Late");
  take_signals();
  sync.release();

  EXPECT_EQ(wait_for(waiting.back()), NO_PRODUCER);
  EXPECT_EQ((Texts{wait_for(first), wait_for(waiting[0]), wait_for(waiting[1]), wait_for(waiting[2]),
                   wait_for(waiting[3])}),
            (Texts{DONE, DONE, NOT_SUPPORTED, DONE, DONE}))
      << "each is checked in its turn";
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'a'), (2, true, 'a')]"),
                                   changed("One", "[(1, true, 'b'), (2, true, 'b')]"),
                                   changed("One", "[(1, true, 'b'), (2, true, 'c')]"),
                                   changed("Late", "[(1, true, 'd'), (2, false, '')]")}));
}

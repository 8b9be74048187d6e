/* SPDX-License-Identifier: MIT */
#include "receiverwatch.h"

#include "testbus.h"
#include "testhost.h"
#include "testreceiver.h"

#include <gio/gio.h>
#include <string>
#include <syslog.h>
#include <vector>

using testhost::spin_until;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers";
constexpr const char *PRODUCER = "com.quon.MetadataReceiver1.Producer";
constexpr const char *MANAGER = "org.freedesktop.DBus.ObjectManager";
constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";

const SyslogLine REFUSED = {LOG_WARNING, "Failed to connect to metadata-receiver over DBus: "
                                         "GDBus.Error:com.quon.Test.Error: No."};

/* The callbacks, in order. */
Texts events;
std::vector<guint> waits_s; /* before each retry */
bool has_short_waits;       /* whether each lasts a millisecond */

std::string
name_of(const gchar *path)
{
  const std::string text = path;

  return text.substr(text.rfind('/') + 1);
}

std::string
join(const gchar *const *names)
{
  g_autofree gchar *text = g_strjoinv(" ", const_cast<gchar **>(names));

  return text;
}

void
on_added(const gchar *path, GVariant *interfaces)
{
  events.push_back("+" + name_of(path) + " " + std::to_string(g_variant_n_children(interfaces)));
}

void
on_removed(const gchar *path, const gchar *const *interfaces)
{
  events.push_back("-" + name_of(path) + " " + join(interfaces));
}

void
on_cut(const gchar *path)
{
  events.push_back("!" + name_of(path));
}

void
on_changed(const gchar *path, GVariant *changed, const gchar *const *invalidated)
{
  g_autofree gchar *text = g_variant_print(changed, FALSE);

  events.push_back("*" + name_of(path) + " " + text + " " + join(invalidated));
}

void
on_vanished()
{
  events.emplace_back("vanished");
}

constexpr ReceiverWatchFuncs FUNCS = {on_added, on_removed, on_cut, on_changed, on_vanished};

class ReceiverWatchTest : public testreceiver::Fixture
{
protected:
  void TearDown() override
  {
    receiver_watch_stop();
    events.clear();
    waits_s.clear();
    has_short_waits = false;
    Fixture::TearDown();
  }

  void start() const
  {
    receiver_watch_start(connection_, &FUNCS);
  }

  /* Expects these events until now and no others. */
  void expect_events(Texts texts)
  {
    receiver_->emit(ROOT, MANAGER, "InterfacesAdded", "(objectpath '/last', @a{sa{sv}} {})");
    texts.emplace_back("+last 0");
    EXPECT_TRUE(spin_until([&texts] { return events.size() >= texts.size() && events.back() == "+last 0"; }));
    EXPECT_EQ(events, texts);
    events.clear();
  }

  /* Starts and takes the event of one object. */
  void start_with_object()
  {
    receiver_->add("First");
    start();
    ASSERT_TRUE(spin_until([] { return !events.empty(); }));
    EXPECT_EQ(events, Texts({"+First 1"}));
    events.clear();
  }

  /* The signals arrive before the reply to a call. */
  void receive_all_signals_of_stranger() const
  {
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(connection_, "com.quon.Stranger1", "/", "com.quon.Other1", "Anything",
                                    nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  }
};

} // namespace

/* The linker requires these names and that they are visible. */
#pragma GCC visibility push(default)
extern "C" {

guint __real_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data);
guint __wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data);

guint
__wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data)
{
  waits_s.push_back(interval);
  return has_short_waits ? g_timeout_add(1, function, user_data)
                         : __real_g_timeout_add_seconds(interval, function, user_data);
}
}
#pragma GCC visibility pop

TEST_F(ReceiverWatchTest, ReportsObjectsAndTheirChanges)
{
  start_with_object();

  receiver_->add("Second");
  receiver_->emit(std::string(ROOT) + "/Second", PROPERTIES, "PropertiesChanged",
                  "('com.quon.MetadataReceiver1.Producer', {'Name': <'Other'>}, ['NiceName', 'x'])");
  receiver_->remove("Second");
  receiver_->remove_interface("First", "");
  expect_events(
      {"+Second 1", "*Second {'Name': <'Other'>} NiceName x", std::string("-Second ") + PRODUCER, "-First "});
}

TEST_F(ReceiverWatchTest, IgnoresOtherSignals)
{
  start_with_object();

  receiver_->emit(std::string(ROOT) + "/First", PROPERTIES, "PropertiesChanged",
                  "('com.quon.Other1', {'Name': <'Other'>}, @as [])");
  receiver_->emit(std::string(ROOT) + "/First", MANAGER, "InterfacesAdded",
                  "(objectpath '/x', @a{sa{sv}} {})");
  receiver_->emit(ROOT, "com.quon.Other1", "InterfacesAdded", "(objectpath '/x', @a{sa{sv}} {})");
  receiver_->emit(ROOT, MANAGER, "Other", "(1,)");
  expect_events({});
}

/* The signals are broadcast or sent to the daemon. */
TEST_F(ReceiverWatchTest, IgnoresSignalsOfOtherSenders)
{
  const char *daemon = g_dbus_connection_get_unique_name(connection_);
  testbus::Service stranger("com.quon.Stranger1", testbus::refuse());
  start_with_object();

  for (const char *destination : {static_cast<const char *>(nullptr), daemon}) {
    for (const char *body : {"(objectpath '/x', @a{sa{sv}} {})", "(1,)"}) {
      for (const char *signal : {"InterfacesAdded", "InterfacesRemoved"}) {
        g_autoptr(GDBusMessage) message = g_dbus_message_new_signal(ROOT, MANAGER, signal);
        g_dbus_message_set_destination(message, destination);
        g_dbus_message_set_body(message, g_variant_new_parsed(body));
        stranger.send(message);
      }
      g_autoptr(GDBusMessage) message = g_dbus_message_new_signal(ROOT, PROPERTIES, "PropertiesChanged");
      g_dbus_message_set_destination(message, destination);
      g_dbus_message_set_body(message, g_variant_new_parsed(body));
      stranger.send(message);
    }
  }
  receive_all_signals_of_stranger();
  expect_events({});
}

TEST_F(ReceiverWatchTest, IgnoresForgedChangesOfTheNamesOwner)
{
  testbus::Service stranger("com.quon.Stranger1", testbus::refuse());
  start_with_object();

  g_autoptr(GDBusMessage) message =
      g_dbus_message_new_signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged");
  g_dbus_message_set_destination(message, g_dbus_connection_get_unique_name(connection_));
  g_dbus_message_set_body(message, g_variant_new("(sss)", RECEIVER_NAME, ":1.1", ""));
  stranger.send(message);
  receive_all_signals_of_stranger();
  expect_events({});
}

TEST_F(ReceiverWatchTest, FollowsTheOwnerOfTheName)
{
  start_with_object();

  receiver_->leave();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  receiver_->come_back();
  ASSERT_TRUE(spin_until([] { return events.size() >= 2; }));
  EXPECT_EQ(events, Texts({"vanished", "+First 1"}));
}

TEST_F(ReceiverWatchTest, ReportsNothingUntilTheReceiverAppears)
{
  receiver_->leave();
  start();

  receiver_->add("First");
  receiver_->come_back();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  EXPECT_EQ(events, Texts({"+First 1"}));
}

TEST_F(ReceiverWatchTest, CallsNothingAfterStop)
{
  start_with_object();

  receiver_->add("Second");
  receiver_->leave();
  receiver_watch_stop();
  testbus::Peer peer;
  EXPECT_TRUE(spin_until([&peer] { return !peer.has_owner(RECEIVER_NAME); }));
  testhost::dispatch_ready();
  EXPECT_EQ(events, Texts());
  receiver_watch_stop();
}

TEST_F(ReceiverWatchTest, CanStopAtAnyTime)
{
  receiver_->set_managed_objects(receiver_->hold());
  start();
  receiver_watch_stop();
  start();
  ASSERT_TRUE(spin_until([this] { return receiver_->held() == 1; }));
  receiver_watch_stop();
  receiver_->set_managed_objects(testbus::refuse());
  start();
  EXPECT_TRUE(spin_until([] { return testhost::syslog_size() == 1; }));
  receiver_watch_stop();
  EXPECT_EQ(testhost::take_syslog(), SyslogLines({REFUSED}));
  receiver_->release_held(testbus::reply("(@a{oa{sa{sv}}} {'/x': {}},)"));
  receiver_->set_managed_objects({});
  start_with_object();
}

TEST_F(ReceiverWatchTest, StartsOnce)
{
  start();
  start();
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"watch.connection == NULL"}));
}

/* The waits double up to a limit. A reply and a new owner of the name reset them. */
TEST_F(ReceiverWatchTest, RetriesWithIncreasingIntervals)
{
  const std::vector<guint> waits = {1, 2, 4, 8, 16, 32, 60, 60};
  ASSERT_EQ(waits.front(), RECEIVER_WATCH_FIRST_RETRY_S);
  ASSERT_EQ(waits.back(), RECEIVER_WATCH_LAST_RETRY_S);
  has_short_waits = true;
  receiver_->set_managed_objects(testbus::refuse());
  start();
  ASSERT_TRUE(spin_until([&waits] { return waits_s.size() >= waits.size(); }));
  EXPECT_EQ(std::vector<guint>(waits_s.begin(), waits_s.begin() + 8), waits);

  receiver_->set_managed_objects({});
  receiver_->add("First");
  ASSERT_TRUE(spin_until([] { return events.size() == 2; }));
  waits_s.clear();
  receiver_->set_managed_objects(testbus::refuse());
  receiver_watch_ask_again();
  ASSERT_TRUE(spin_until([] { return waits_s.size() >= 4; }));
  EXPECT_EQ(std::vector<guint>(waits_s.begin(), waits_s.begin() + 4), std::vector<guint>({1, 1, 2, 4}));

  receiver_->leave();
  ASSERT_TRUE(spin_until([] { return events.back() == "vanished"; }));
  waits_s.clear();
  receiver_->come_back();
  ASSERT_TRUE(spin_until([] { return waits_s.size() >= 2; }));
  EXPECT_EQ(std::vector<guint>(waits_s.begin(), waits_s.begin() + 2), std::vector<guint>({1, 2}));
  receiver_watch_stop();
  const SyslogLines lines = testhost::take_syslog();
  EXPECT_EQ(lines, SyslogLines(lines.size(), REFUSED));
}

TEST_F(ReceiverWatchTest, ReportsTheFirstObjectsUpToALimit)
{
  constexpr gsize TOO_MANY = 3;
  const auto objects = [](gsize count) {
    std::string text = "({objectpath '/first': @a{sa{sv}} {}";
    for (gsize i = 1; i < count; i++) {
      text += ", '/object" + std::to_string(i) + "': {}";
    }
    return testbus::reply(text + "},)");
  };
  receiver_->set_managed_objects(objects(RECEIVER_WATCH_MAX_OBJECTS));
  start();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  EXPECT_EQ(events.size(), RECEIVER_WATCH_MAX_OBJECTS);
  EXPECT_EQ(events.front(), "+first 0");
  EXPECT_EQ(events.back(), "+object1023 0");

  events.clear();
  receiver_->set_managed_objects(objects(RECEIVER_WATCH_MAX_OBJECTS + TOO_MANY));
  receiver_watch_ask_again();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  EXPECT_EQ(events.size(), RECEIVER_WATCH_MAX_OBJECTS + 1);
  EXPECT_EQ(events[RECEIVER_WATCH_MAX_OBJECTS - 1], "+object1023 0");
  EXPECT_EQ(events.back(), "!object1024");
}

TEST_F(ReceiverWatchTest, MergesSeveralRetries)
{
  has_short_waits = true;
  start_with_object();

  receiver_watch_ask_again();
  receiver_watch_ask_again();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  expect_events({"+First 1"});
  EXPECT_EQ(waits_s, std::vector<guint>({RECEIVER_WATCH_FIRST_RETRY_S}));
}

TEST_F(ReceiverWatchTest, DoesNotRetryWithoutAReceiver)
{
  receiver_watch_ask_again();
  receiver_->leave();
  start();
  receiver_watch_ask_again();
  testhost::dispatch_ready();
  receiver_watch_ask_again();
  EXPECT_EQ(waits_s, std::vector<guint>());
}

TEST_F(ReceiverWatchTest, CancelsTheRetryWhenTheReceiverLeaves)
{
  start_with_object();
  receiver_watch_ask_again();

  receiver_->leave();
  ASSERT_TRUE(spin_until([] { return !events.empty(); }));
  receiver_->come_back();
  ASSERT_TRUE(spin_until([] { return events.size() == 2; }));
  expect_events({"vanished", "+First 1"});
}

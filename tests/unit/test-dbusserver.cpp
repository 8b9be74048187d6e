/* SPDX-License-Identifier: MIT */
#include "dbusserver.h"

#include "captureservice.h"
#include "producerconfig.h"
#include "systembus.h"
#include "testbus.h"
#include "testhost.h"

#include <fstream>
#include <gio/gunixfdlist.h>
#include <optional>
#include <syslog.h>
#include <unistd.h>

using testbus::Bus;
using testbus::Peer;
using testbus::Service;
using testhost::Observed;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *NAME = "com.quon.MetadataServer1";

const SyslogLine BUS_ACQUIRED = {LOG_INFO, "Bus acquired"};
const SyslogLine NAME_ACQUIRED = {LOG_INFO, "DBus-name acquired"};
const SyslogLine NAME_LOST = {LOG_INFO, "DBus-name was lost"};

const SyslogLine NO_BUS = {LOG_WARNING,
                           "The control service is unavailable: there is no connection to the system bus."};

SyslogLine
name_taken(const Peer &owner)
{
  return {LOG_WARNING,
          "The control service is unavailable: " + owner.name() + " has the name com.quon.MetadataServer1."};
}

class DBusServerTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    file_ = path("producers.conf");
    std::ofstream(file_) << "# producers\n";
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
    producers_ = analytics_producer_list_new();
  }

  void TearDown() override
  {
    dbus_server_teardown();
    analytics_producer_list_free(producers_);
    producer_config_free();
    wait_for_release();
    bus_.reset();
    Fixture::TearDown();
  }

  /* Waits for this number of lines and compares them. */
  static void expect_log(const SyslogLines &lines)
  {
    EXPECT_TRUE(testhost::spin_until([&lines] { return testhost::syslog_size() >= lines.size(); }));
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Waits until the server has the bus and has logged these lines. Observes the connection. */
  void expect_bus(const SyslogLines &name_lines = {NAME_ACQUIRED})
  {
    SyslogLines lines = {BUS_ACQUIRED};
    lines.insert(lines.end(), name_lines.begin(), name_lines.end());
    expect_log(lines);
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    EXPECT_FALSE(g_dbus_connection_get_exit_on_close(bus));
    shared_.emplace(bus);
  }

  /* The shared connection has no reference, so GLib will make a new one. */
  void wait_for_release()
  {
    EXPECT_TRUE(testhost::spin_until([this] { return !shared_.has_value() || !shared_->alive(); }));
    shared_.reset();
  }

  void add(const char *name)
  {
    const guint32 channel = 1;
    g_autoptr(GArray) channels = g_array_new(FALSE, FALSE, sizeof(guint32));
    g_array_append_val(channels, channel);
    g_autoptr(AnalyticsProducer) producer =
        analytics_producer_new(name, name, "<sample/>", channels, ANALYTICS_PRODUCER_BUILT_IN);

    ASSERT_TRUE(analytics_producer_list_add(producers_, producer));
  }

  static std::string enable(const Peer &tool, const char *producer)
  {
    return tool.call({NAME, "/com/quon/MetadataServer1/Producers", "com.quon.MetadataServer1.ProducerManager",
                      "SetProducersEnabled", g_variant_new_parsed("({%s: [(1, true, 'x')]},)", producer)});
  }

  AnalyticsProducerList *producers_ = nullptr;
  std::optional<Bus> bus_;
  std::optional<Observed> shared_;

private:
  std::string file_;
};

} // namespace

TEST_F(DBusServerTest, ServesUnderItsName)
{
  bus_.emplace();
  dbus_server_init(producers_);
  add("One");
  expect_bus();

  const Peer tool;
  EXPECT_EQ(enable(tool, "One"), "()");
}

TEST_F(DBusServerTest, RefusesDescriptors)
{
  bus_.emplace();
  dbus_server_init(producers_);
  expect_bus();

  const Peer tool;
  g_autoptr(GUnixFDList) fds = g_unix_fd_list_new();
  ASSERT_EQ(g_unix_fd_list_append(fds, STDERR_FILENO, nullptr), 0);
  g_autoptr(GDBusMessage) call = g_dbus_message_new_method_call(
      NAME, "/com/quon/MetadataServer1/Producers", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
  g_dbus_message_set_unix_fd_list(call, fds);
  g_autoptr(GDBusMessage) reply = g_dbus_connection_send_message_with_reply_sync(
      tool.connection(), call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  EXPECT_STREQ(g_dbus_message_get_error_name(reply), "org.freedesktop.DBus.Error.NotSupported");
  expect_log(
      {{LOG_WARNING, "refused file descriptors from " + tool.name() + ": the daemon did not request them"}});
}

TEST_F(DBusServerTest, DoesNotBlockAtItsStart)
{
  bus_.emplace();
  dbus_server_init(producers_);

  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  dbus_server_teardown();
  g_autoptr(GDBusConnection) bus = system_bus_get(nullptr, nullptr);
  shared_.emplace(bus);
  g_clear_object(&bus);
  wait_for_release();
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
}

TEST_F(DBusServerTest, ReleasesItsNameAtTearDown)
{
  bus_.emplace();
  dbus_server_init(producers_);
  expect_bus();
  const Peer tool;
  EXPECT_TRUE(tool.has_owner(NAME));

  dbus_server_teardown();
  EXPECT_FALSE(tool.has_owner(NAME));
  dbus_server_teardown();
}

TEST_F(DBusServerTest, StartsAgainAfterTearDown)
{
  bus_.emplace();
  dbus_server_init(producers_);
  expect_bus();
  dbus_server_teardown();
  wait_for_release();
  dbus_server_init(producers_);
  expect_bus();
}

TEST_F(DBusServerTest, GetsTheNameWhenItsOwnerReleasesIt)
{
  bus_.emplace();
  const Peer owner;
  owner.own(NAME);
  dbus_server_init(producers_);
  add("One");
  expect_bus({NAME_LOST, name_taken(owner)});

  owner.release(NAME);
  expect_log({NAME_ACQUIRED});
  EXPECT_EQ(enable(owner, "One"), "()");
}

TEST_F(DBusServerTest, CancelsItsLookUpAtTearDown)
{
  bus_.emplace();
  const Peer owner;
  owner.own(NAME);
  dbus_server_init(producers_);
  /* No event of the bus is dispatched between the loss and the tear-down. */
  ASSERT_TRUE(testhost::spin_until([] { return testhost::syslog_size() >= 2; }));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{BUS_ACQUIRED, NAME_LOST}));
  {
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    shared_.emplace(bus);
  }
  dbus_server_teardown();
  wait_for_release();
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
}

TEST_F(DBusServerTest, WorksWithoutABus)
{
  dbus_server_init(producers_);
  expect_log({NAME_LOST, NO_BUS});

  add("One");
  bus_.emplace();
  g_autoptr(GDBusConnection) bus = system_bus_get(nullptr, nullptr);
  ASSERT_NE(bus, nullptr);
  shared_.emplace(bus);
  const Peer tool;
  EXPECT_FALSE(tool.has_owner(NAME)) << "it does not request the name again";
}

TEST_F(DBusServerTest, SurvivesTheEndOfTheBus)
{
  bus_.emplace();
  dbus_server_init(producers_);
  add("One");
  expect_bus();

  bus_.reset();
  expect_log({NAME_LOST, NO_BUS});
  add("Two");
  analytics_producer_list_remove(producers_, "One");
}

TEST_F(DBusServerTest, SurvivesTheEndOfTheBusWhileItIsQueuedForItsName)
{
  bus_.emplace();
  {
    const Peer owner;
    owner.own(NAME);
    dbus_server_init(producers_);
    expect_bus({NAME_LOST, name_taken(owner)});
    bus_.reset();
  }
  testhost::dispatch_ready();
  add("One");
}

TEST_F(DBusServerTest, StaysOffABusThatComesBack)
{
  guint32 rotation = 0;
  bus_.emplace();
  dbus_server_init(producers_);
  expect_bus();
  bus_.reset();
  expect_log({NAME_LOST, NO_BUS});
  wait_for_release();
  EXPECT_FALSE(capture_service_query_rotation(1, &rotation, nullptr, nullptr));

  bus_.emplace();
  Service capture("com.quon.Capt1", testbus::reply("(<{'rotation': <uint32 180>}>,)"));
  EXPECT_TRUE(capture_service_query_rotation(1, &rotation, nullptr, nullptr));
  EXPECT_EQ(rotation, 180U);
  const Peer tool;
  EXPECT_FALSE(tool.has_owner(NAME)) << "it does not request the name again";
}

TEST_F(DBusServerTest, ChecksItsArguments)
{
  dbus_server_init(nullptr);
  dbus_server_init(producers_);
  dbus_server_init(producers_);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"producers != NULL", "owner_id == 0"}));
  expect_log({NAME_LOST, NO_BUS});
}

/* SPDX-License-Identifier: MIT */
#include "receiverbus.h"

#include "descriptorreserve.h"
#include "faults.h"
#include "receiverwatch.h"
#include "systembus.h"
#include "testbus.h"
#include "testhost.h"

#include <optional>
#include <syslog.h>

using testbus::Bus;
using testhost::spin_until;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr const char *FAILURE = "Failed to connect to metadata-receiver over DBus: ";

/* The callbacks, in order. */
Texts calls;
GWeakRef connection;

void
on_connected(GDBusConnection *connected)
{
  EXPECT_FALSE(g_dbus_connection_is_closed(connected));
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connected));
  g_weak_ref_set(&connection, connected);
  calls.emplace_back("connected");
}

void
on_closed()
{
  calls.emplace_back("closed");
  receiver_bus_disconnect();
}

const ReceiverBusFuncs FUNCS = {.on_connected = on_connected, .on_closed = on_closed};

bool
is_connection_alive()
{
  g_autoptr(GDBusConnection) alive = static_cast<GDBusConnection *>(g_weak_ref_get(&connection));

  return alive != nullptr;
}

class ReceiverBusTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    calls.clear();
    bus_.emplace();
  }

  void TearDown() override
  {
    receiver_bus_disconnect();
    bus_.reset();
    EXPECT_TRUE(spin_until([] { return !is_connection_alive(); }));
    Fixture::TearDown();
  }

  static void expect_calls(const Texts &expected)
  {
    EXPECT_TRUE(spin_until([&expected] { return calls.size() >= expected.size(); }));
    EXPECT_EQ(calls, expected);
  }

  static void expect_failures(gsize count, const std::string &reason)
  {
    EXPECT_TRUE(spin_until([count] { return testhost::syslog_size() >= count; }));
    EXPECT_EQ(testhost::take_syslog(), SyslogLines(count, {LOG_WARNING, FAILURE + reason}));
  }

  std::optional<Bus> bus_;
};

} // namespace

TEST_F(ReceiverBusTest, ConnectsWithoutBlocking)
{
  receiver_bus_connect(&FUNCS);
  EXPECT_EQ(calls, Texts());

  expect_calls({"connected"});
  EXPECT_TRUE(is_connection_alive());
  receiver_bus_disconnect();
  EXPECT_TRUE(spin_until([] { return !is_connection_alive(); }));
  EXPECT_EQ(calls, Texts({"connected"}));
}

TEST_F(ReceiverBusTest, DropsAClosedConnectionAndDoesNotReconnect)
{
  receiver_bus_connect(&FUNCS);
  expect_calls({"connected"});

  bus_.reset();
  expect_calls({"connected", "closed"});
  EXPECT_TRUE(spin_until([] { return !is_connection_alive(); }));
  bus_.emplace();
  testhost::dispatch_ready();
  EXPECT_EQ(calls, Texts({"connected", "closed"}));
  receiver_bus_connect(&FUNCS);
  expect_calls({"connected", "closed", "connected"});
}

TEST_F(ReceiverBusTest, RetriesWithIncreasingIntervals)
{
  const std::vector<unsigned> waits = {1, 2, 4, 8, 16, 32, 60, 60};
  ASSERT_EQ(waits.front(), RECEIVER_WATCH_FIRST_RETRY_S);
  ASSERT_EQ(waits.back(), RECEIVER_WATCH_LAST_RETRY_S);
  const faults::ShortSeconds seconds;
  {
    const testhost::FreeDescriptors too_few(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
    receiver_bus_connect(&FUNCS);
    expect_failures(waits.size(), "Too few free file descriptors");
  }
  EXPECT_EQ(seconds.begun(), waits);

  expect_calls({"connected"});
  EXPECT_EQ(seconds.count(), 0U);
}

TEST_F(ReceiverBusTest, RetriesUntilThereIsABus)
{
  bus_.reset();
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(system_bus_get(nullptr, &error), nullptr);

  receiver_bus_connect(&FUNCS);
  expect_failures(1, error->message);
  bus_.emplace();
  expect_calls({"connected"});
}

TEST_F(ReceiverBusTest, CallsNothingForACancelledAttempt)
{
  receiver_bus_connect(&FUNCS);
  receiver_bus_disconnect();
  receiver_bus_connect(&FUNCS);

  expect_calls({"connected"});
  receiver_bus_disconnect();
  receiver_bus_connect(&FUNCS);
  receiver_bus_disconnect();
  g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
  testhost::dispatch_ready();
  EXPECT_EQ(calls, Texts({"connected"}));
}

TEST_F(ReceiverBusTest, CancelsAPendingRetry)
{
  const faults::ShortSeconds seconds;
  {
    const testhost::FreeDescriptors too_few(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
    receiver_bus_connect(&FUNCS);
    receiver_bus_disconnect();
  }
  expect_failures(1, "Too few free file descriptors");
  EXPECT_EQ(seconds.count(), 0U);
  receiver_bus_disconnect();
}

TEST_F(ReceiverBusTest, ConnectsOnce)
{
  receiver_bus_connect(&FUNCS);
  receiver_bus_connect(&FUNCS);

  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"receiver_bus.funcs == NULL"}));
  expect_calls({"connected"});
}

#include "systembus.h"

#include "testbus.h"
#include "testhost.h"

using testbus::Bus;
using testhost::FreeDescriptors;

namespace
{

class SystemBusTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }
};

} // namespace

TEST_F(SystemBusTest, GetsTheSharedConnectionThatSurvivesTheBus)
{
  const Bus bus;
  g_autoptr(GError) error = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_get(&error);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connection));
  g_autoptr(GDBusConnection) other = system_bus_get(&error);
  EXPECT_EQ(other, connection);
}

TEST_F(SystemBusTest, FailsWithoutABus)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(system_bus_get(&error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(system_bus_get(nullptr), nullptr);
}

TEST_F(SystemBusTest, FailsWhileTooFewDescriptorsAreFree)
{
  const Bus bus;

  for (rlim_t count = 0; count < SYSTEM_BUS_SPARE_DESCRIPTORS; count++) {
    const FreeDescriptors free(count);
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(system_bus_get(&error), nullptr);
    ASSERT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) << count;
    EXPECT_STREQ(error->message, "Too few free file descriptors");
  }
}

TEST_F(SystemBusTest, NeedsNoMoreDescriptorsThanItLooksFor)
{
  const Bus bus;
  const FreeDescriptors free(SYSTEM_BUS_SPARE_DESCRIPTORS);
  g_autoptr(GError) error = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_get(&error);
  ASSERT_NE(connection, nullptr);
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  EXPECT_NE(reply, nullptr);
}

#include "systembus.h"

#include "testbus.h"
#include "testhost.h"

#include <fcntl.h>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>

using testbus::Bus;

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

/* Leaves only so many descriptors to open, as long as this object lives. */
class FreeDescriptors
{
public:
  explicit FreeDescriptors(rlim_t count)
  {
    std::set<int> taken = testhost::open_descriptors();
    struct rlimit limit = {};

    getrlimit(RLIMIT_NOFILE, &before_);
    limit = before_;
    limit.rlim_cur = 0;
    for (rlim_t left = count; left > 0; limit.rlim_cur++) {
      left -= taken.contains(static_cast<int>(limit.rlim_cur)) ? 0 : 1;
    }
    setrlimit(RLIMIT_NOFILE, &limit);
  }

  ~FreeDescriptors()
  {
    setrlimit(RLIMIT_NOFILE, &before_);
  }

  FreeDescriptors(const FreeDescriptors &) = delete;
  FreeDescriptors &operator=(const FreeDescriptors &) = delete;

private:
  struct rlimit before_;
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

#include "systembus.h"

#include "descriptorfilter.h"
#include "testbus.h"
#include "testhost.h"

#include <array>
#include <atomic>
#include <thread>

using testbus::Bus;
using testbus::Peer;
using testhost::FreeDescriptors;

namespace
{

std::atomic<int> filters_added;

} // namespace

extern "C" {
void __real_descriptor_filter_add(GDBusConnection *connection);
void __wrap_descriptor_filter_add(GDBusConnection *connection);
}

void
__wrap_descriptor_filter_add(GDBusConnection *connection)
{
  filters_added++;
  __real_descriptor_filter_add(connection);
}

namespace
{

class SystemBusTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    filters_added = 0;
  }
};

} // namespace

TEST_F(SystemBusTest, GetsTheSharedConnectionThatSurvivesTheBus)
{
  const Bus bus;
  g_autoptr(GError) error = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_get(nullptr, &error);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connection));
  g_autoptr(GDBusConnection) other = system_bus_get(nullptr, &error);
  EXPECT_EQ(other, connection);
  EXPECT_EQ(filters_added, 1);
}

TEST_F(SystemBusTest, PreparesAConnectionOnce)
{
  const Bus bus;
  const Peer peer;

  g_dbus_connection_set_exit_on_close(peer.connection(), TRUE);
  system_bus_prepare(peer.connection());
  EXPECT_FALSE(g_dbus_connection_get_exit_on_close(peer.connection()));
  system_bus_prepare(peer.connection());
  EXPECT_EQ(filters_added, 1);

  const Peer other;
  system_bus_prepare(other.connection());
  EXPECT_EQ(filters_added, 2);
}

TEST_F(SystemBusTest, PreparesAConnectionOnceForThreadsThatComeTogether)
{
  constexpr int ROUNDS = 20;
  constexpr int THREADS = 4;
  const Bus bus;

  for (int round = 1; round <= ROUNDS; round++) {
    const Peer peer;
    std::atomic<int> waited_for = THREADS;
    std::array<std::thread, THREADS> threads;
    for (std::thread &thread : threads) {
      thread = std::thread([&waited_for, &peer] {
        waited_for--;
        while (waited_for > 0) {
        }
        system_bus_prepare(peer.connection());
      });
    }
    for (std::thread &thread : threads) {
      thread.join();
    }
    ASSERT_EQ(filters_added, round);
  }
}

TEST_F(SystemBusTest, FailsWithoutABus)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(system_bus_get(nullptr, &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(system_bus_get(nullptr, nullptr), nullptr);
}

TEST_F(SystemBusTest, FailsWhileTooFewDescriptorsAreFree)
{
  const Bus bus;

  for (rlim_t count = 0; count < DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS; count++) {
    const FreeDescriptors free(count);
    g_autoptr(DescriptorReservation) reservation = nullptr;
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(system_bus_get(&reservation, &error), nullptr);
    EXPECT_EQ(reservation, nullptr);
    ASSERT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) << count;
    EXPECT_STREQ(error->message, "Too few free file descriptors");
  }
}

TEST_F(SystemBusTest, FindsTheSharedConnection)
{
  const Bus bus;
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GError) error = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_find(&reservation, &error);
  ASSERT_NE(connection, nullptr);
  EXPECT_NE(reservation, nullptr);
  EXPECT_EQ(error, nullptr);
  g_autoptr(GDBusConnection) other = system_bus_get(nullptr, nullptr);
  EXPECT_EQ(other, connection);
}

TEST_F(SystemBusTest, FindsNothingWithoutABus)
{
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(system_bus_find(&reservation, &error), nullptr);
  EXPECT_EQ(reservation, nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(SystemBusTest, FailsToFindTheBusWhileTooFewDescriptorsAreFree)
{
  const Bus bus;
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(system_bus_find(&reservation, &error), nullptr);
  EXPECT_EQ(reservation, nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
}

TEST_F(SystemBusTest, KeepsTheReservationForTheCaller)
{
  const Bus bus;
  g_autoptr(GDBusConnection) held = system_bus_get(nullptr, nullptr);
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS);
  g_autoptr(DescriptorReservation) reservation = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_get(&reservation, nullptr);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(descriptor_reservation_new(1, nullptr), nullptr);
  g_clear_pointer(&reservation, descriptor_reservation_free);
  g_autoptr(DescriptorReservation) other = descriptor_reservation_new(SYSTEM_BUS_CALL_DESCRIPTORS, nullptr);
  EXPECT_NE(other, nullptr);
}

TEST_F(SystemBusTest, NeedsNoMoreDescriptorsThanItReserves)
{
  const Bus bus;
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS);
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GError) error = nullptr;

  g_autoptr(GDBusConnection) connection = system_bus_get(&reservation, &error);
  ASSERT_NE(connection, nullptr);
  const FreeDescriptors none_of_the_reserve(SYSTEM_BUS_CALL_DESCRIPTORS / 2);
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  EXPECT_NE(reply, nullptr);
}

/* SPDX-License-Identifier: MIT */
#include "systembus.h"

#include "descriptorfilter.h"
#include "testbus.h"
#include "testhost.h"

#include <array>
#include <atomic>
#include <string>
#include <thread>

using testbus::Bus;
using testbus::Peer;
using testbus::Service;
using testhost::FreeDescriptors;
using testhost::Texts;

namespace
{

std::atomic<int> filters_added;

} // namespace

extern "C" {
void __real_descriptor_filter_add(GDBusConnection *connection);
TESTHOST_REPLACEMENT void __wrap_descriptor_filter_add(GDBusConnection *connection);
}

void
__wrap_descriptor_filter_add(GDBusConnection *connection)
{
  filters_added++;
  __real_descriptor_filter_add(connection);
}

namespace
{

constexpr SystemBusObject OBJECT = {"com.quon.Test", "/com/quon/Test/1", "com.quon.Test.Interface"};

GVariant *
call(GCancellable *cancellable, GError **error)
{
  return system_bus_call(&OBJECT, "Get", nullptr, -1, cancellable, error);
}

std::string
print(GVariant *value)
{
  g_autofree gchar *text = value != nullptr ? g_variant_print(value, FALSE) : g_strdup("none");

  return text;
}

std::string
first_child(const char *text)
{
  g_autoptr(GVariant) value = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
  g_autoptr(GVariant) child = system_bus_get_first_child(value);

  return print(child);
}

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

TEST_F(SystemBusTest, ReturnsTheSharedConnectionWithoutExitOnClose)
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

TEST_F(SystemBusTest, PreparesAConnectionOnceForSimultaneousThreads)
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

TEST_F(SystemBusTest, CallsAMethod)
{
  const Bus bus;
  Service service(OBJECT.name, testbus::reply("('first', 2)"));
  g_autoptr(GError) error = nullptr;

  g_autoptr(GVariant) reply =
      system_bus_call(&OBJECT, "Add", g_variant_new("(ss)", "a", "b"), -1, nullptr, &error);
  EXPECT_EQ(print(reply), "('first', 2)");
  g_autoptr(GVariant) other = system_bus_call(&OBJECT, "Get", nullptr, -1, nullptr, &error);
  EXPECT_EQ(print(other), "('first', 2)");
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(service.take_calls(), (Texts{"/com/quon/Test/1 com.quon.Test.Interface.Add ('a', 'b')",
                                         "/com/quon/Test/1 com.quon.Test.Interface.Get ()"}));
}

TEST_F(SystemBusTest, FailsWithoutAnErrorIfBusServiceOrReplyIsMissing)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(call(nullptr, &error), nullptr) << "no bus";
  const Bus bus;
  EXPECT_EQ(call(nullptr, &error), nullptr) << "no service";
  const Service service(OBJECT.name, testbus::refuse());
  EXPECT_EQ(call(nullptr, &error), nullptr) << "no reply";
  EXPECT_EQ(error, nullptr);
}

/* GDBus maps this error name to a GError of its domain and code. */
TEST_F(SystemBusTest, DistinguishesErrorsOfAServiceFromItsOwn)
{
  const Bus bus;
  const Service service(OBJECT.name, [](GDBusMessage *call) {
    g_autoptr(GError) error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "made up");
    g_autofree gchar *name = g_dbus_error_encode_gerror(error);
    return g_dbus_message_new_method_error_literal(call, name, error->message);
  });
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(call(cancellable, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(SystemBusTest, EndsACallAtItsTimeout)
{
  const Bus bus;
  Service service(OBJECT.name, testbus::reply("()"));
  service.set_slow(true);
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(system_bus_call(&OBJECT, "Get", nullptr, 0, nullptr, &error), nullptr);
  EXPECT_EQ(system_bus_call(&OBJECT, "Get", nullptr, 1, nullptr, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(SystemBusTest, EndsACallThatIsCancelled)
{
  const Bus bus;
  Service service(OBJECT.name, testbus::reply("()"));
  service.set_slow(true);
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;
  std::thread caller([&] { EXPECT_EQ(call(cancellable, &error), nullptr); });

  EXPECT_TRUE(testhost::spin_until([&] { return service.calls_size() == 1; }));
  g_cancellable_cancel(cancellable);
  caller.join();
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(SystemBusTest, LosesNoDescriptorWhenReplyAndCancellationCoincide)
{
  constexpr SystemBusObject BUS = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
  const Bus bus;
  g_autoptr(GDBusConnection) held = system_bus_get(nullptr, nullptr);

  testbus::expect_no_loss_when_cancelled([&](GCancellable *cancellable) {
    return system_bus_call(&BUS, "GetId", nullptr, -1, cancellable, nullptr);
  });
}

TEST_F(SystemBusTest, FailsACallWithAnErrorWhileTooFewDescriptorsAreFree)
{
  const Bus bus;
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SYSTEM_BUS_CALL_DESCRIPTORS - 1);
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(call(nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
}

TEST_F(SystemBusTest, ReturnsTheFirstChildOfAnyValue)
{
  EXPECT_EQ(first_child("(1, 'two')"), "1");
  EXPECT_EQ(first_child("<'boxed'>"), "'boxed'");
  EXPECT_EQ(first_child("[uint32 3, 4]"), "3");
  EXPECT_EQ(first_child("()"), "none");
  EXPECT_EQ(first_child("@as []"), "none");
  EXPECT_EQ(first_child("'text'"), "none");
  EXPECT_EQ(system_bus_get_first_child(nullptr), nullptr);
}

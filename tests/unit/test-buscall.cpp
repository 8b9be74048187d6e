#include "buscall.h"

#include "testbus.h"
#include "testhost.h"

#include <random>
#include <thread>

using testbus::Bus;
using testbus::Peer;

namespace
{

class BusCallTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  static BusCall call_of(const Peer &peer, const char *method, GVariant *parameters = nullptr)
  {
    return {peer.connection(),
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            method,
            parameters,
            -1};
  }
};

/* On GDBus' own thread. */
GDBusMessage *
drop_and_cancel(GDBusConnection *connection, GDBusMessage *message, gboolean is_incoming, gpointer user_data)
{
  if (is_incoming && g_strcmp0(g_dbus_message_get_member(message), "Ask") == 0) {
    g_clear_object(&message);
    g_cancellable_cancel(G_CANCELLABLE(user_data));
  }
  return message;
}

/* Keeps the calling thread busy for so long: the moments of a cancellation are finer than a sleep. */
void
spin_for(gint64 time_us)
{
  const gint64 end_us = g_get_monotonic_time() + time_us;

  while (g_get_monotonic_time() < end_us) {
  }
}

} // namespace

TEST_F(BusCallTest, ReturnsTheReply)
{
  const Bus bus;
  const Peer peer;
  const BusCall call = call_of(peer, "NameHasOwner", g_variant_new("(s)", "org.freedesktop.DBus"));
  g_autoptr(GError) error = nullptr;

  g_autoptr(GVariant) reply = bus_call_sync(&call, nullptr, &error);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(error, nullptr);
  g_autofree gchar *text = g_variant_print(reply, FALSE);
  EXPECT_STREQ(text, "(true,)");
}

TEST_F(BusCallTest, FailsWithTheErrorOfTheBus)
{
  const Bus bus;
  const Peer peer;
  const BusCall call = call_of(peer, "NoSuchMethod");
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(bus_call_sync(&call, nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD));
  const BusCall same = call_of(peer, "NoSuchMethod");
  EXPECT_EQ(bus_call_sync(&same, nullptr, nullptr), nullptr);
}

TEST_F(BusCallTest, EndsWhenItIsCancelledBefore)
{
  const Bus bus;
  const Peer peer;
  const BusCall call = call_of(peer, "GetId");
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;

  g_cancellable_cancel(cancellable);
  EXPECT_EQ(bus_call_sync(&call, cancellable, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

/* The call is cancelled when it reaches its destination, which drops it. */
TEST_F(BusCallTest, EndsWhenItIsCancelledMeanwhile)
{
  const Bus bus;
  const Peer peer;
  const Peer silent;
  const std::string name = silent.name();
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_dbus_connection_add_filter(silent.connection(), drop_and_cancel, g_object_ref(cancellable),
                               g_object_unref);
  const BusCall call = {peer.connection(), name.c_str(), "/", "org.example.Silent", "Ask", nullptr, -1};
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(bus_call_sync(&call, cancellable, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

/* At each moment from the call to long behind its reply. */
TEST_F(BusCallTest, LosesNoDescriptorWhenTheReplyAndTheCancellationComeTogether)
{
  constexpr unsigned ROUNDS = 3000;
  constexpr unsigned LONGEST_US = 400;
  const Bus bus;
  const Peer peer;
  std::minstd_rand chance(1);
  unsigned replies = 0;
  const gsize before = testhost::open_descriptors().size();

  for (unsigned round = 0; round < ROUNDS; round++) {
    const BusCall call = call_of(peer, "GetId");
    const unsigned delay_us = chance() % LONGEST_US;
    g_autoptr(GCancellable) cancellable = g_cancellable_new();
    std::thread canceller([cancellable, delay_us] {
      spin_for(delay_us);
      g_cancellable_cancel(cancellable);
    });
    g_autoptr(GVariant) reply = bus_call_sync(&call, cancellable, nullptr);
    canceller.join();
    replies += reply != nullptr ? 1 : 0;
  }
  EXPECT_GT(replies, 0U);
  EXPECT_LT(replies, ROUNDS);
  EXPECT_TRUE(testhost::spin_until([before] { return testhost::open_descriptors().size() <= before; }));
}

/* SPDX-License-Identifier: MIT */
#include "buscall.h"

#include "testbus.h"
#include "testhost.h"

using testbus::Peer;
using testbus::Service;

namespace
{

class BusCallTest : public testbus::Fixture
{
protected:
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

} // namespace

TEST_F(BusCallTest, ReturnsTheReply)
{
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
  const Peer peer;
  const BusCall call = call_of(peer, "NoSuchMethod");
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(bus_call_sync(&call, nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD));
  const BusCall same = call_of(peer, "NoSuchMethod");
  EXPECT_EQ(bus_call_sync(&same, nullptr, nullptr), nullptr);
}

TEST_F(BusCallTest, EndsWhenItIsAlreadyCancelled)
{
  const Peer peer;
  const BusCall call = call_of(peer, "GetId");
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GError) error = nullptr;

  g_cancellable_cancel(cancellable);
  EXPECT_EQ(bus_call_sync(&call, cancellable, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(BusCallTest, EndsWhenItIsCancelledDuringTheCall)
{
  constexpr const char *NAME = "com.quon.Test";
  const Peer peer;
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  const Service silent(NAME, [&](GDBusMessage *) -> GDBusMessage * {
    g_cancellable_cancel(cancellable);
    return nullptr;
  });
  const BusCall call = {peer.connection(), NAME, "/", NAME, "Ask", nullptr, -1};
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(bus_call_sync(&call, cancellable, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
}

TEST_F(BusCallTest, LosesNoDescriptorWhenReplyAndCancellationCoincide)
{
  const Peer peer;

  testbus::expect_no_loss_when_cancelled([&peer](GCancellable *cancellable) {
    const BusCall call = call_of(peer, "GetId");
    return bus_call_sync(&call, cancellable, nullptr);
  });
}

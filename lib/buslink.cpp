/* SPDX-License-Identifier: MIT */
/* The connection is not GLib's shared one: what an application has at the receiver belongs to a connection,
 * and the end of the bus must not end the application.
 */
#include "buslink.h"
#include "tessarderror.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace
{

constexpr auto CONNECTION_FLAGS = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

constexpr gchar ABSENT[] = "The receiver is not on the bus: '" TESSARD_RECEIVER_BUS_NAME "' has no owner.";

/* An attempt to connect. The link can go while it is pending. */
struct Attempt {
  BusLink *link;
  GCancellable *cancellable;
};

} // namespace

/**
 * RetryDelay::next:
 *
 * Returns: the time until the next attempt, in milliseconds
 */
guint
RetryDelay::next()
{
  return std::exchange(milliseconds, std::min<guint>(milliseconds * 2, TESSARD_LAST_RETRY_MS));
}

/**
 * RetryDelay::reset:
 *
 * An attempt has succeeded: the next delay is the first one.
 */
void
RetryDelay::reset()
{
  milliseconds = TESSARD_FIRST_RETRY_MS;
}

/**
 * bus_closed_error:
 *
 * Returns: (transfer full): the error of %TESSARD_ERROR for the end of a connection
 */
GError *
bus_closed_error(void)
{
  return g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.");
}

void
BusLink::Client::bus_connected(GDBusConnection *new_connection)
{
}

/**
 * BusLink::BusLink:
 * @bus_address: the bus, empty for the system bus
 * @link_client: outlives the link
 */
BusLink::BusLink(std::string bus_address, Client *link_client)
    : address(std::move(bus_address)), client(link_client)
{
  connect();
}

BusLink::~BusLink()
{
  if (cancellable != nullptr) {
    g_cancellable_cancel(cancellable);
  }
  disconnect();
}

void
BusLink::connect()
{
  g_autoptr(GError) cause = nullptr;
  g_autofree gchar *system = nullptr;

  if (address.empty()) {
    system = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &cause);
    if (system == nullptr) {
      fail(cause->message);
      return;
    }
  }
  cancellable = g_cancellable_new();
  g_dbus_connection_new_for_address(system != nullptr ? system : address.c_str(), CONNECTION_FLAGS, nullptr,
                                    cancellable, on_connected,
                                    new Attempt{this, G_CANCELLABLE(g_object_ref(cancellable))});
  /* The process that listens at the address can be anything, and never reply. */
  timer.start_timer(TESSARD_CONNECT_MS, [this] {
    g_cancellable_cancel(cancellable);
    fail("No reply in time");
  });
}

void
BusLink::on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Attempt> attempt(static_cast<Attempt *>(user_data));
  g_autoptr(GCancellable) cancellable = attempt->cancellable;
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GDBusConnection) connection = g_dbus_connection_new_for_address_finish(result, &cause);

  if (g_cancellable_is_cancelled(cancellable)) {
    if (connection != nullptr) {
      g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
    }
    return;
  }
  if (connection == nullptr) {
    attempt->link->fail(cause->message);
  } else {
    attempt->link->take(G_DBUS_CONNECTION(g_steal_pointer(&connection)));
  }
}

/* Tries again after a time. */
void
BusLink::fail(const gchar *cause)
{
  g_autoptr(GError) error =
      g_error_new(TESSARD_ERROR, TESSARD_ERROR_NO_BUS, "Could not connect to the bus: %s.", cause);

  g_clear_object(&cancellable);
  timer.start_timer(delay.next(), [this] { connect(); });
  client->receiver_vanished(error);
}

void
BusLink::take(GDBusConnection *new_connection)
{
  g_clear_object(&cancellable);
  timer.clear();
  delay.reset();
  connection = new_connection;
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  closed = g_signal_connect(connection, "closed", G_CALLBACK(on_closed), this);
  client->bus_connected(connection);
  watch = g_bus_watch_name_on_connection(connection, TESSARD_RECEIVER_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                         on_appeared, on_vanished, this, nullptr);
}

/* What is queued is still sent. */
void
BusLink::disconnect()
{
  if (watch != 0) {
    g_bus_unwatch_name(std::exchange(watch, 0));
  }
  if (connection != nullptr) {
    g_signal_handler_disconnect(connection, closed);
    g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
  }
  g_clear_object(&connection);
}

void
BusLink::on_closed(GDBusConnection *bus, gboolean remote_peer_vanished, GError *error, gpointer user_data)
{
  auto *self = static_cast<BusLink *>(user_data);
  g_autoptr(GError) reason = bus_closed_error();

  self->disconnect();
  self->timer.start_timer(self->delay.next(), [self] { self->connect(); });
  self->client->receiver_vanished(reason);
}

void
BusLink::on_appeared(GDBusConnection *bus, const gchar *name, const gchar *owner, gpointer user_data)
{
  static_cast<BusLink *>(user_data)->client->receiver_appeared(bus, owner);
}

/* Also called when the bus closes the connection, whose own signal says more. */
void
BusLink::on_vanished(GDBusConnection *bus, const gchar *name, gpointer user_data)
{
  g_autoptr(GError) reason = g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_NO_RECEIVER, ABSENT);

  if (bus != nullptr && !g_dbus_connection_is_closed(bus)) {
    static_cast<BusLink *>(user_data)->client->receiver_vanished(reason);
  }
}

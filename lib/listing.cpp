/* SPDX-License-Identifier: MIT */
/* The daemon's control service lists the producers that it has accepted; docs/dbus.md documents it. The reply
 * to the first call can be older than a signal that has come before it, never newer: GDBus delivers both in
 * the order of the bus. So the last one counts.
 */
#include "listing.h"

#include <utility>

namespace
{

#define SERVER "com.quon.MetadataServer1"
#define PRODUCER SERVER ".Producer"
#define PRODUCERS_PATH "/com/quon/MetadataServer1/Producers"
#define ENABLED "ChannelsEnabled"
#define OBJECT_MANAGER "org.freedesktop.DBus.ObjectManager"
#define PROPERTIES "org.freedesktop.DBus.Properties"

const GVariantType *const ENABLED_TYPE = G_VARIANT_TYPE("a(ibs)");

/* An object path, if the name is valid; the service has no other names. */
std::string
make_path(const std::string &name)
{
  std::string path = PRODUCERS_PATH "/" + name;

  return g_variant_is_object_path(path.c_str()) ? path : PRODUCERS_PATH;
}

EnabledChannels
read_enabled(GVariant *value)
{
  EnabledChannels enabled;
  GVariantIter channels;
  gint32 channel = 0;
  gboolean is_enabled = FALSE;
  const gchar *configuration = nullptr;

  g_variant_iter_init(&channels, value);
  while (g_variant_iter_next(&channels, "(ib&s)", &channel, &is_enabled, &configuration)) {
    if (is_enabled) {
      enabled[static_cast<guint32>(channel)] = configuration;
    }
  }
  return enabled;
}

} // namespace

/**
 * Listing::Listing:
 * @bus: (transfer none): the connection to the bus
 * @name: the producer
 * @listing_function: called on the worker for every change, and sometimes without one
 */
Listing::Listing(GDBusConnection *bus, const std::string &name, Function listing_function)
    : connection(G_DBUS_CONNECTION(g_object_ref(bus))), path(make_path(name)),
      function(std::move(listing_function)),
      watch(g_bus_watch_name_on_connection(connection, SERVER, G_BUS_NAME_WATCHER_FLAGS_NONE, on_appeared,
                                           on_vanished, this, nullptr))
{
}

Listing::~Listing()
{
  g_bus_unwatch_name(watch);
  forget_owner();
  g_object_unref(connection);
}

void
Listing::forget_owner()
{
  if (cancellable != nullptr) {
    g_cancellable_cancel(cancellable);
  }
  g_clear_object(&cancellable);
  for (guint *id : {&objects, &properties}) {
    if (*id != 0) {
      g_dbus_connection_signal_unsubscribe(connection, std::exchange(*id, 0));
    }
  }
}

void
Listing::on_appeared(GDBusConnection *bus, const gchar *name, const gchar *owner, gpointer user_data)
{
  auto *self = static_cast<Listing *>(user_data);

  self->forget_owner();
  self->objects =
      g_dbus_connection_signal_subscribe(bus, owner, OBJECT_MANAGER, nullptr, PRODUCERS_PATH, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, on_signal, self, nullptr);
  self->properties =
      g_dbus_connection_signal_subscribe(bus, owner, PROPERTIES, "PropertiesChanged", self->path.c_str(),
                                         PRODUCER, G_DBUS_SIGNAL_FLAGS_NONE, on_signal, self, nullptr);
  self->ask(owner);
}

void
Listing::on_vanished(GDBusConnection *bus, const gchar *name, gpointer user_data)
{
  auto *self = static_cast<Listing *>(user_data);

  self->forget_owner();
  self->function(std::nullopt);
}

/* An error means that the object is not there. */
void
Listing::ask(const gchar *owner)
{
  const BusMethod get = {path.c_str(), PROPERTIES, "Get", "(v)"};

  cancellable = g_cancellable_new();
  bus_call(connection, owner, &get, g_variant_new("(ss)", PRODUCER, ENABLED), cancellable,
           [this](GVariant *reply, GUnixFDList *fds, const GError *error) {
             if (reply != nullptr) {
               g_autoptr(GVariant) value = nullptr;
               g_variant_get(reply, "(v)", &value);
               take_value(value);
             } else {
               function(std::nullopt);
             }
           });
}

void
Listing::on_signal(GDBusConnection *bus, const gchar *sender, const gchar *changed_path,
                   const gchar *interface, const gchar *signal, GVariant *body, gpointer user_data)
{
  auto *self = static_cast<Listing *>(user_data);

  if (g_str_equal(signal, "InterfacesAdded") && g_variant_is_of_type(body, G_VARIANT_TYPE("(oa{sa{sv}})"))) {
    self->take_added(body);
  } else if (g_str_equal(signal, "InterfacesRemoved") &&
             g_variant_is_of_type(body, G_VARIANT_TYPE("(oas)"))) {
    self->take_removed(body);
  } else if (g_str_equal(signal, "PropertiesChanged") &&
             g_variant_is_of_type(body, G_VARIANT_TYPE("(sa{sv}as)"))) {
    self->take_changed(changed_path, body);
  }
}

void
Listing::take_added(GVariant *body)
{
  const gchar *object = nullptr;
  g_autoptr(GVariant) interfaces = nullptr;

  g_variant_get(body, "(&o@a{sa{sv}})", &object, &interfaces);
  g_autoptr(GVariant) members = g_variant_lookup_value(interfaces, PRODUCER, G_VARIANT_TYPE_VARDICT);
  if (path != object || members == nullptr) {
    return;
  }
  g_autoptr(GVariant) value = g_variant_lookup_value(members, ENABLED, nullptr);
  take_value(value);
}

void
Listing::take_removed(GVariant *body)
{
  const gchar *object = nullptr;

  g_variant_get(body, "(&oas)", &object, nullptr);
  if (path == object) {
    function(std::nullopt);
  }
}

void
Listing::take_changed(const gchar *changed_path, GVariant *body)
{
  g_autoptr(GVariant) members = g_variant_get_child_value(body, 1);
  g_autoptr(GVariant) value = g_variant_lookup_value(members, ENABLED, nullptr);

  if (path == changed_path && value != nullptr) {
    take_value(value);
  }
}

/* A value of a wrong type enables nothing. */
void
Listing::take_value(GVariant *value)
{
  const gboolean valid = value != nullptr && g_variant_is_of_type(value, ENABLED_TYPE);

  function(valid ? read_enabled(value) : EnabledChannels());
}

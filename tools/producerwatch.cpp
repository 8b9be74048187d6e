/* SPDX-License-Identifier: MIT */
/* Producers are identified by object path. When the daemon appears, the watch subscribes to the signals of
 * that owner of the name and then requests all objects. The bus keeps the order: the reply already includes
 * every signal that arrives before it, so those are ignored, and every later one is a change.
 */
#include "producerwatch.h"
#include "command.h"
#include "producerbus.h"

#include <array>

struct ProducerWatch::SignalHandler {
  const gchar *interface;
  const gchar *signal;
  const gchar *type;
  void (ProducerWatch::*handle)(const gchar *object_path, GVariant *body);
};

/* A call for all producers, which can outlive the watch. It is cancelled then. */
struct ProducerWatch::Load {
  ProducerWatch *watch;
  GCancellable *cancellable;
};

/**
 * ProducerWatch:
 * @connection: (transfer none): the bus; it must outlive the watch
 * @callbacks: called by the main loop of the default context, never before the constructor returns
 */
ProducerWatch::ProducerWatch(GDBusConnection *connection, Callbacks callbacks)
    : connection_(connection), callbacks_(std::move(callbacks)),
      watch_(g_bus_watch_name_on_connection(connection, PRODUCER_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                            on_daemon_appeared, on_daemon_vanished, this, nullptr))
{
}

ProducerWatch::~ProducerWatch()
{
  g_bus_unwatch_name(watch_);
  forget_owner();
}

void
ProducerWatch::fail(GError *error)
{
  failed_ = TRUE;
  forget_owner();
  callbacks_.on_failed(error);
}

void
ProducerWatch::forget_owner()
{
  if (loading_ != nullptr) {
    g_cancellable_cancel(loading_);
    g_clear_object(&loading_);
  }
  if (subscription_ != 0) {
    g_dbus_connection_signal_unsubscribe(connection_, subscription_);
    subscription_ = 0;
  }
}

void
ProducerWatch::handle_interfaces_added(const gchar *object_path, GVariant *body)
{
  const gchar *path = nullptr;
  g_autoptr(GVariant) interfaces = nullptr;
  g_autoptr(GError) error = nullptr;

  g_variant_get(body, "(&o@a{sa{sv}})", &path, &interfaces);
  g_autoptr(GVariant) properties = g_variant_lookup_value(interfaces, PRODUCER_BUS_PRODUCER, nullptr);
  if (properties == nullptr) {
    return;
  }
  std::optional<Producer> producer = producer_read(path, properties, &error);
  if (!producer.has_value()) {
    fail(g_steal_pointer(&error));
    return;
  }
  if (producers_.size() >= PRODUCERS_MAX && !producers_.contains(path)) {
    fail(g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The daemon has more than %d producers.",
                     PRODUCERS_MAX));
    return;
  }
  producers_.insert_or_assign(path, std::move(*producer));
  callbacks_.on_changed(producers_);
}

void
ProducerWatch::handle_interfaces_removed(const gchar *object_path, GVariant *body)
{
  const gchar *path = nullptr;
  g_autofree const gchar **interfaces = nullptr;

  g_variant_get(body, "(&o^a&s)", &path, &interfaces);
  if (g_strv_contains(interfaces, PRODUCER_BUS_PRODUCER) && producers_.erase(path) > 0) {
    callbacks_.on_changed(producers_);
  }
}

/* A producer's other properties are constant. */
void
ProducerWatch::handle_properties_changed(const gchar *object_path, GVariant *body)
{
  const auto position = producers_.find(object_path);
  const gchar *interface = nullptr;
  g_autoptr(GVariant) properties = nullptr;
  g_autoptr(GError) error = nullptr;

  g_variant_get(body, "(&s@a{sv}@as)", &interface, &properties, nullptr);
  if (position == producers_.end() || !g_str_equal(interface, PRODUCER_BUS_PRODUCER) ||
      !g_variant_lookup(properties, "ChannelsEnabled", "*", nullptr)) {
    return;
  }
  std::optional<std::vector<ProducerChannel>> channels =
      producer_read_channels(object_path, properties, &error);
  if (!channels.has_value()) {
    fail(g_steal_pointer(&error));
    return;
  }
  position->second.channels = std::move(*channels);
  callbacks_.on_changed(producers_);
}

void
ProducerWatch::on_daemon_signal(GDBusConnection *connection, const gchar *sender_name,
                                const gchar *object_path, const gchar *interface_name,
                                const gchar *signal_name, GVariant *body, gpointer user_data)
{
  static constexpr std::array HANDLERS = {
      SignalHandler{PRODUCER_BUS_OBJECT_MANAGER, "InterfacesAdded", "(oa{sa{sv}})",
                    &ProducerWatch::handle_interfaces_added},
      SignalHandler{PRODUCER_BUS_OBJECT_MANAGER, "InterfacesRemoved", "(oas)",
                    &ProducerWatch::handle_interfaces_removed},
      SignalHandler{"org.freedesktop.DBus.Properties", "PropertiesChanged", "(sa{sv}as)",
                    &ProducerWatch::handle_properties_changed},
  };
  auto *self = static_cast<ProducerWatch *>(user_data);
  g_autoptr(GError) error = nullptr;

  if (self->loading_ != nullptr || self->failed_) {
    return;
  }
  for (const SignalHandler &handler : HANDLERS) {
    if (!g_str_equal(interface_name, handler.interface) || !g_str_equal(signal_name, handler.signal)) {
      continue;
    }
    if (!producer_bus_check_type(body, signal_name, G_VARIANT_TYPE(handler.type), &error)) {
      self->fail(g_steal_pointer(&error));
      return;
    }
    (self->*handler.handle)(object_path, body);
  }
}

/* A daemon that has left the bus is no error here: the watch on its name reports that, and its return. */
void
ProducerWatch::handle_load_failure(const GError *cause)
{
  g_autoptr(GError) error = producer_bus_convert_failure(cause, PRODUCER_BUS_TIMEOUT_SECONDS);

  if (error->code != EXIT_STATUS_NO_CONNECTION && error->code != EXIT_STATUS_ENDED) {
    fail(g_steal_pointer(&error));
  }
}

void
ProducerWatch::take_objects(GVariant *objects)
{
  g_autoptr(GError) error = nullptr;
  std::optional<Producers> producers;

  if (producer_bus_check_type(objects, "GetManagedObjects", PRODUCER_BUS_OBJECTS_TYPE, &error)) {
    producers = producers_read(objects, &error);
  }
  if (!producers.has_value()) {
    fail(g_steal_pointer(&error));
    return;
  }
  producers_.clear();
  for (Producer &producer : *producers) {
    std::string path = producer.path;
    producers_.emplace(std::move(path), std::move(producer));
  }
  callbacks_.on_present(producers_);
}

void
ProducerWatch::on_objects_loaded(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  auto *load = static_cast<Load *>(user_data);
  ProducerWatch *self = g_cancellable_is_cancelled(load->cancellable) ? nullptr : load->watch;
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GVariant) objects =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(source_object), result, &cause);

  g_object_unref(load->cancellable);
  delete load;
  if (self == nullptr) {
    return;
  }
  if (objects == nullptr) {
    self->handle_load_failure(cause);
    return;
  }
  g_clear_object(&self->loading_);
  self->take_objects(objects);
}

void
ProducerWatch::on_daemon_appeared(GDBusConnection *connection, const gchar *name, const gchar *owner,
                                  gpointer user_data)
{
  auto *self = static_cast<ProducerWatch *>(user_data);

  if (self->failed_) {
    return;
  }
  self->subscription_ =
      g_dbus_connection_signal_subscribe(connection, owner, nullptr, nullptr, nullptr, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, on_daemon_signal, self, nullptr);
  self->loading_ = g_cancellable_new();
  auto *load = new Load{self, G_CANCELLABLE(g_object_ref(self->loading_))};
  g_dbus_connection_call(connection, owner, PRODUCER_BUS_ROOT, PRODUCER_BUS_OBJECT_MANAGER,
                         "GetManagedObjects", nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                         PRODUCER_BUS_TIMEOUT_SECONDS * 1000, self->loading_, on_objects_loaded, load);
}

/* Also called when the bus closes the connection, which says nothing about the daemon. */
void
ProducerWatch::on_daemon_vanished(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
  auto *self = static_cast<ProducerWatch *>(user_data);

  if (self->failed_) {
    return;
  }
  self->forget_owner();
  self->producers_.clear();
  if (!g_dbus_connection_is_closed(self->connection_)) {
    self->callbacks_.on_absent();
  }
}

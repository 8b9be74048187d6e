/* SPDX-License-Identifier: MIT */
#include "registryservice.h"

#include "error.h"
#include "metadatareceiver1.h"
#include "producerobject.h"
#include "receiverlimits.h"

#include <cstring>
#include <gio/gunixfdlist.h>
#include <optional>

/* The unique name of its connection identifies an application; the bus never reuses it. When an application
 * registers its first producer, the service watches its connection and looks up its user. Its calls wait for
 * the user, and are then served in order. The watch begins before the look-up, so that the service detects a
 * connection that closes at any time: either the look-up fails, or the bus reports it. The service keeps
 * nothing about an application without a producer. */

namespace receiver
{

namespace
{

constexpr const char *REGISTRY_PATH = "/com/quon/MetadataReceiver1";
constexpr const char *BUS_DAEMON = "org.freedesktop.DBus";
constexpr const char *BUS_DAEMON_PATH = "/org/freedesktop/DBus";

std::vector<guint32>
channels_of(GVariant *channels)
{
  gsize count = 0;
  auto numbers = static_cast<const guint32 *>(g_variant_get_fixed_array(channels, &count, sizeof(guint32)));

  return {numbers, numbers + count};
}

/* No option is defined. An error shows an application that its option has no effect. */
bool
check_options(GVariant *options, GError **error)
{
  if (g_variant_n_children(options) == 0) {
    return true;
  }
  g_autoptr(GVariant) entry = g_variant_get_child_value(options, 0);
  const gchar *name = nullptr;
  g_variant_get(entry, "{&sv}", &name, nullptr);
  return refuse(error, Error::INVALID_OPTION, "There is no option %s", name);
}

/* Refuses a name that cannot be registered, so that a call that waits is short. */
bool
refuse_long_name(GDBusMethodInvocation *invocation, const gchar *name)
{
  GError *error = nullptr;

  if (strlen(name) <= RECEIVER_MAX_NAME_BYTES) {
    return false;
  }
  refuse(&error, Error::UNKNOWN_PRODUCER, "There is no such producer");
  g_dbus_method_invocation_take_error(invocation, error);
  return true;
}

} // namespace

/* A call that waits. */
struct RegistryService::Invocation {
  struct Free {
    void operator()(GDBusMethodInvocation *held) const
    {
      g_object_unref(held);
    }
  };

  std::unique_ptr<GDBusMethodInvocation, Free> invocation;
  Work work;
};

struct RegistryService::Application {
  GDBusConnection *connection;
  guint watch = 0;
  GCancellable *look_up = g_cancellable_new();
  std::optional<guint32> user;
  std::deque<Invocation> waiting;

  explicit Application(GDBusConnection *with) : connection(with)
  {
  }

  ~Application()
  {
    g_cancellable_cancel(look_up);
    g_object_unref(look_up);
    g_dbus_connection_signal_unsubscribe(connection, watch);
  }

  Application(const Application &) = delete;
  Application &operator=(const Application &) = delete;
};

/* The callbacks of GDBus. */
struct RegistryService::Handlers {
  static gboolean on_register(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                              const gchar *name, const gchar *nice_name, GVariant *channels,
                              const gchar *sample_frame, GVariant *options, gpointer user_data);
  static gboolean on_open(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation, GUnixFDList *,
                          const gchar *name, guint channel, gpointer user_data);
  static gboolean on_unregister(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                                const gchar *name, gpointer user_data);
  static void on_owner_changed(GDBusConnection *connection, const gchar *bus, const gchar *path,
                               const gchar *interface, const gchar *signal, GVariant *parameters,
                               gpointer user_data);
  static void on_user_reply(GObject *connection, GAsyncResult *result, gpointer user_data);
};

/**
 * RegistryService:
 * @registry: (transfer none): the registry; outlives the service
 * @connection: (transfer none): the connection to the bus
 */
RegistryService::RegistryService(Registry *registry, GDBusConnection *connection)
    : registry_(registry), connection_(G_DBUS_CONNECTION(g_object_ref(connection))),
      skeleton_(G_DBUS_INTERFACE_SKELETON(metadata_receiver1_registry_skeleton_new()))
{
  g_signal_connect(skeleton_, "handle-register-producer", G_CALLBACK(Handlers::on_register), this);
  g_signal_connect(skeleton_, "handle-open-channel", G_CALLBACK(Handlers::on_open), this);
  g_signal_connect(skeleton_, "handle-unregister-producer", G_CALLBACK(Handlers::on_unregister), this);
}

RegistryService::~RegistryService()
{
  applications_.clear();
  g_dbus_interface_skeleton_unexport(skeleton_);
  g_signal_handlers_disconnect_by_data(skeleton_, this);
  g_object_unref(skeleton_);
  g_object_unref(connection_);
}

/**
 * RegistryService::publish:
 * @error: set if the connection already has the object
 *
 * Exports the registry. Call it once.
 *
 * Returns: whether the registry is exported
 */
bool
RegistryService::publish(GError **error)
{
  return g_dbus_interface_skeleton_export(skeleton_, connection_, REGISTRY_PATH, error) != FALSE;
}

gboolean
RegistryService::Handlers::on_register(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                                       const gchar *name, const gchar *nice_name, GVariant *channels,
                                       const gchar *sample_frame, GVariant *options, gpointer user_data)
{
  auto *self = static_cast<RegistryService *>(user_data);
  const Description description = {name, nice_name, channels_of(channels), sample_frame};
  GError *error = nullptr;

  if (!description_check(description, &error) || !check_options(options, &error)) {
    g_dbus_method_invocation_take_error(invocation, error);
    return TRUE;
  }
  self->run_with_user(invocation, [self, object, invocation, description](const Caller &caller) {
    GError *problem = nullptr;
    if (!self->registry_->register_producer(caller, description, &problem)) {
      g_dbus_method_invocation_take_error(invocation, problem);
    } else {
      metadata_receiver1_registry_complete_register_producer(object, invocation);
    }
  });
  return TRUE;
}

gboolean
RegistryService::Handlers::on_open(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                                   GUnixFDList *, const gchar *name, guint channel, gpointer user_data)
{
  auto *self = static_cast<RegistryService *>(user_data);

  if (refuse_long_name(invocation, name)) {
    return TRUE;
  }
  self->run_in_order(
      invocation, [self, object, invocation, channel, name = std::string(name)](const Caller &caller) {
        GError *error = nullptr;
        const int fd = self->registry_->open_channel(caller.sender, name, channel, &error);
        if (fd < 0) {
          g_dbus_method_invocation_take_error(invocation, error);
          return;
        }
        g_autoptr(GUnixFDList) fds = descriptor_list_new(fd);
        metadata_receiver1_registry_complete_open_channel(object, invocation, fds, g_variant_new_handle(0));
      });
  return TRUE;
}

gboolean
RegistryService::Handlers::on_unregister(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                                         const gchar *name, gpointer user_data)
{
  auto *self = static_cast<RegistryService *>(user_data);

  if (refuse_long_name(invocation, name)) {
    return TRUE;
  }
  self->run_in_order(invocation, [self, object, invocation, name = std::string(name)](const Caller &caller) {
    GError *error = nullptr;
    if (!self->registry_->unregister_producer(caller.sender, name, &error)) {
      g_dbus_method_invocation_take_error(invocation, error);
      return;
    }
    metadata_receiver1_registry_complete_unregister_producer(object, invocation);
  });
  return TRUE;
}

/* Runs @work when the user of the caller is known.
 *
 * @invocation: (transfer full): the call, which @work completes */
void
RegistryService::run_with_user(GDBusMethodInvocation *invocation, Work work)
{
  const std::string sender = g_dbus_method_invocation_get_sender(invocation);
  Application *application = watch_application(sender);

  if (!application->user.has_value()) {
    queue_call(application, invocation, std::move(work));
    return;
  }
  work({sender, *application->user});
  remove_if_unused(sender);
}

/* Runs @work after the waiting calls of the same application. It needs no user.
 *
 * @invocation: (transfer full): the call, which @work completes */
void
RegistryService::run_in_order(GDBusMethodInvocation *invocation, Work work)
{
  const std::string sender = g_dbus_method_invocation_get_sender(invocation);
  const auto found = applications_.find(sender);

  if (found != applications_.end() && !found->second->user.has_value()) {
    queue_call(found->second.get(), invocation, std::move(work));
    return;
  }
  work({sender, 0});
  remove_if_unused(sender);
}

/* Returns: the application, watched; its user is looked up */
RegistryService::Application *
RegistryService::watch_application(const std::string &sender)
{
  std::unique_ptr<Application> &application = applications_[sender];

  if (application != nullptr) {
    return application.get();
  }
  application = std::make_unique<Application>(connection_);
  application->watch = g_dbus_connection_signal_subscribe(
      connection_, BUS_DAEMON, BUS_DAEMON, "NameOwnerChanged", BUS_DAEMON_PATH, sender.c_str(),
      G_DBUS_SIGNAL_FLAGS_NONE, Handlers::on_owner_changed, this, nullptr);
  auto *call = new std::pair<RegistryService *, std::string>(this, sender);
  g_dbus_connection_call(connection_, BUS_DAEMON, BUS_DAEMON_PATH, BUS_DAEMON, "GetConnectionUnixUser",
                         g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
                         -1, application->look_up, Handlers::on_user_reply, call);
  return application.get();
}

/* @invocation: (transfer full): the call, which gets an error if too many wait */
void
RegistryService::queue_call(Application *application, GDBusMethodInvocation *invocation, Work work)
{
  GError *error = nullptr;

  if (waiting_ == RECEIVER_MAX_WAITING_CALLS) {
    const std::string sender = g_dbus_method_invocation_get_sender(invocation);
    refuse(&error, Error::LIMIT_EXCEEDED, "%d calls wait", RECEIVER_MAX_WAITING_CALLS);
    g_dbus_method_invocation_take_error(invocation, error);
    remove_if_unused(sender);
    return;
  }
  waiting_++;
  application->waiting.push_back({decltype(Invocation::invocation)(invocation), std::move(work)});
}

void
RegistryService::Handlers::on_user_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<std::pair<RegistryService *, std::string>> call(
      static_cast<std::pair<RegistryService *, std::string> *>(user_data));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
  guint32 user = 0;

  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &user);
    call->first->on_user(call->second, user);
  } else if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    call->first->on_disconnected(call->second);
  }
}

/* Runs the calls that wait for the user. */
void
RegistryService::on_user(const std::string &sender, guint32 user)
{
  Application *application = applications_[sender].get();

  application->user = user;
  while (!application->waiting.empty()) {
    Invocation next = std::move(application->waiting.front());
    application->waiting.pop_front();
    waiting_--;
    static_cast<void>(next.invocation.release());
    next.work({sender, user});
  }
  remove_if_unused(sender);
}

void
RegistryService::Handlers::on_owner_changed(GDBusConnection *connection, const gchar *bus, const gchar *path,
                                            const gchar *interface, const gchar *signal, GVariant *parameters,
                                            gpointer user_data)
{
  const gchar *name = nullptr;
  const gchar *owner = nullptr;

  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) {
    return;
  }
  g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &owner);
  if (*owner == '\0') {
    static_cast<RegistryService *>(user_data)->on_disconnected(name);
  }
}

/* The connection of an application has closed; its replies are not needed any more. */
void
RegistryService::on_disconnected(const std::string &sender)
{
  const auto found = applications_.find(sender);

  if (found == applications_.end()) {
    return;
  }
  waiting_ -= found->second->waiting.size();
  applications_.erase(found);
  registry_->application_disconnected(sender);
}

void
RegistryService::remove_if_unused(const std::string &sender)
{
  const auto found = applications_.find(sender);

  if (found != applications_.end() && found->second->waiting.empty() && !registry_->has_producer_of(sender)) {
    applications_.erase(found);
  }
}

} // namespace receiver

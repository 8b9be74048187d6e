/* SPDX-License-Identifier: MIT */
#include "registryservice.h"

#include "error.h"
#include "metadatareceiver1.h"
#include "producerobject.h"
#include "receiverlimits.h"

#include <cstring>
#include <gio/gunixfdlist.h>

namespace receiver
{

namespace
{

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

/* The callbacks of GDBus. */
struct RegistryService::Handlers {
  static gboolean on_register(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                              const gchar *name, const gchar *nice_name, GVariant *channels,
                              const gchar *sample_frame, GVariant *options, gpointer user_data);
  static gboolean on_open(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation, GUnixFDList *,
                          const gchar *name, guint channel, gpointer user_data);
  static gboolean on_unregister(MetadataReceiver1Registry *object, GDBusMethodInvocation *invocation,
                                const gchar *name, gpointer user_data);
};

/**
 * RegistryService:
 * @registry: (transfer none): the registry; outlives the service
 * @connection: (transfer none): the connection to the bus
 */
RegistryService::RegistryService(Registry *registry, GDBusConnection *connection)
    : registry_(registry), connection_(G_DBUS_CONNECTION(g_object_ref(connection))),
      applications_(
          connection, [registry](const std::string &sender) { return registry->has_producer_of(sender); },
          [registry](const std::string &sender) { registry->application_disconnected(sender); }),
      skeleton_(G_DBUS_INTERFACE_SKELETON(metadata_receiver1_registry_skeleton_new()))
{
  g_signal_connect(skeleton_, "handle-register-producer", G_CALLBACK(Handlers::on_register), this);
  g_signal_connect(skeleton_, "handle-open-channel", G_CALLBACK(Handlers::on_open), this);
  g_signal_connect(skeleton_, "handle-unregister-producer", G_CALLBACK(Handlers::on_unregister), this);
}

RegistryService::~RegistryService()
{
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
  return g_dbus_interface_skeleton_export(skeleton_, connection_, RECEIVER_PATH, error) != FALSE;
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
  self->applications_.run_with_user(
      invocation, [self, object, invocation, description](const Caller &caller) {
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
  self->applications_.run_in_order(
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
  self->applications_.run_in_order(
      invocation, [self, object, invocation, name = std::string(name)](const Caller &caller) {
        GError *error = nullptr;
        if (!self->registry_->unregister_producer(caller.sender, name, &error)) {
          g_dbus_method_invocation_take_error(invocation, error);
          return;
        }
        metadata_receiver1_registry_complete_unregister_producer(object, invocation);
      });
  return TRUE;
}

} // namespace receiver

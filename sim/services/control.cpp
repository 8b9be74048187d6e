/* SPDX-License-Identifier: MIT */
#include "control.h"

#include "bus.h"
#include "verbs.h"

/* The server and the client of the D-Bus interface that controls a running simulated camera. The camera
 * acquires this name last, so all services are available when the name appears. */

namespace sim
{

namespace
{

constexpr const char *BUS_NAME = "tessard.SimulatedCamera1";
constexpr const char *OBJECT_PATH = "/tessard/SimulatedCamera1";
constexpr const char *ERROR_NAME = "tessard.SimulatedCamera1.Error.Refused";

constexpr const char *XML = R"(
<node>
  <interface name="tessard.SimulatedCamera1">
    <method name="Tell">
      <arg name="command" type="as" direction="in"/>
      <arg name="result" type="s" direction="out"/>
    </method>
  </interface>
</node>)";

void
on_call(GDBusConnection *connection, const gchar *sender, const gchar *path, const gchar *interface,
        const gchar *method, GVariant *arguments, GDBusMethodInvocation *invocation, gpointer user_data)
{
  auto *platform = static_cast<Platform *>(user_data);
  g_autofree const gchar **texts = nullptr;
  g_autoptr(GError) error = nullptr;

  g_variant_get(arguments, "(^a&s)", &texts);
  const Arguments command(texts, texts + g_strv_length(const_cast<gchar **>(texts)));
  const std::optional<std::string> result = verbs_run(platform, command, &error);
  if (result.has_value()) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", result->c_str()));
  } else {
    g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NAME, error->message);
  }
}

} // namespace

/**
 * control_publish:
 * @platform: (transfer none): the camera, which must outlive the connection
 * @connection: the connection to the bus
 * @error: set if another simulated camera is on the bus
 *
 * Exports the control interface.
 *
 * Returns: whether it is exported
 */
bool
control_publish(Platform *platform, GDBusConnection *connection, GError **error)
{
  static constexpr GDBusInterfaceVTable VTABLE = {on_call, nullptr, nullptr, {}};

  return bus_register_object(connection, OBJECT_PATH, XML, &VTABLE, platform, error) &&
         bus_name_own(connection, BUS_NAME, error);
}

/**
 * control_tell:
 * @connection: the connection to the bus
 * @command: a verb and its arguments, %NULL-terminated
 * @result: (out) (transfer full): the result of the verb
 * @error: set if the camera refuses the command, with its message, or if there is no camera
 *
 * Sends a command to the simulated camera on the bus. Blocks until it has taken effect.
 *
 * Returns: whether the command has taken effect
 */
bool
control_tell(GDBusConnection *connection, const char *const *command, char **result, GError **error)
{
  for (const char *const *argument = command; *argument != nullptr; argument++) {
    if (!check_text(*argument, error)) {
      return false;
    }
  }

  g_autoptr(GError) found = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, BUS_NAME, OBJECT_PATH, BUS_NAME, "Tell", g_variant_new("(^as)", command),
      G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, &found);

  if (reply != nullptr) {
    g_variant_get(reply, "(s)", result);
    return true;
  }
  if (g_error_matches(found, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
      g_error_matches(found, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "there is no simulated camera on the bus");
    return false;
  }
  g_dbus_error_strip_remote_error(found);
  g_propagate_error(error, g_steal_pointer(&found));
  return false;
}

} // namespace sim

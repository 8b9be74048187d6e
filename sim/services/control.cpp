#include "control.h"

#include "bus.h"
#include "verbs.h"

/* Both ends of the simulated camera's own interface, by which tests and people tell a running one what to do.
 * Its name is taken last: who sees it may rely on everything else. */

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
      <arg name="words" type="as" direction="in"/>
      <arg name="answer" type="s" direction="out"/>
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
  const Words words(texts, texts + g_strv_length(const_cast<gchar **>(texts)));
  const std::optional<std::string> answer = verbs_run(platform, words, &error);
  if (answer.has_value()) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", answer->c_str()));
  } else {
    g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NAME, error->message);
  }
}

} /* namespace */

/**
 * control_publish:
 * @platform: (transfer none): the camera, which must outlive the connection
 * @connection: the connection to the bus
 * @error: set if another simulated camera is on the bus
 *
 * Takes verbs from the bus from now on.
 *
 * Returns: whether it does
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
 * @words: a verb and its arguments, %NULL-terminated
 * @answer: (out) (transfer full): the camera's answer
 * @error: set if the camera refuses, with what it says, or if there is none
 *
 * Tells the simulated camera on the bus to do something. Blocks until it is done.
 *
 * Returns: whether it is done
 */
bool
control_tell(GDBusConnection *connection, const char *const *words, char **answer, GError **error)
{
  for (const char *const *word = words; *word != nullptr; word++) {
    if (!check_text(*word, error)) {
      return false;
    }
  }

  g_autoptr(GError) found = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, BUS_NAME, OBJECT_PATH, BUS_NAME, "Tell", g_variant_new("(^as)", words),
      G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, &found);

  if (reply != nullptr) {
    g_variant_get(reply, "(s)", answer);
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

} /* namespace sim */

/* SPDX-License-Identifier: MIT */
/* Queries the platform's video capture service for the rotation of a channel's picture. */
#include "captureservice.h"

#include "systembus.h"

namespace
{

constexpr const char *NAME = "com.quon.Capt1";
constexpr const char *CHANNEL_PATH = "/com/quon/Capt1/Channels/%d";
constexpr const char *CHANNEL_INTERFACE = "com.quon.Capt1.Channel";
constexpr const char *SETTINGS_PROPERTY = "settings";

/* NULL without an error when the reply is not one variant, or when there is none. */
GVariant *
get_settings(gint32 channel, GCancellable *cancellable, GError **error)
{
  g_autofree gchar *path = g_strdup_printf(CHANNEL_PATH, channel);
  const SystemBusObject object = {NAME, path, SYSTEM_BUS_PROPERTIES};
  g_autoptr(GVariant) reply = system_bus_call(
      &object, "Get", g_variant_new("(ss)", CHANNEL_INTERFACE, SETTINGS_PROPERTY), -1, cancellable, error);
  GVariant *settings = nullptr;

  if (reply != nullptr && g_variant_is_of_type(reply, G_VARIANT_TYPE("(v)"))) {
    g_variant_get(reply, "(v)", &settings);
  }
  return settings;
}

} // namespace

/**
 * capture_service_query_rotation:
 * @channel: a channel
 * @rotation: (out): the rotation of its picture in degrees; 0 when the settings do not contain it as an
 *   unsigned 32-bit number, and on failure
 * @cancellable: (nullable): ends the wait for the reply
 * @error: (out) (optional): where to put a shortage of descriptors or the cancellation; other failures are
 *   no errors
 *
 * Calls the capture service and waits for the reply, with GDBus' default time-out of 25 s. Logs nothing.
 * Any thread except the main thread.
 *
 * Returns: %FALSE without an error when there is no bus, no service, or no reply with the channel's settings;
 *   %FALSE with @error set as system_bus_call() sets it
 */
gboolean
capture_service_query_rotation(gint32 channel, guint32 *rotation, GCancellable *cancellable, GError **error)
{
  g_autoptr(GVariant) settings = get_settings(channel, cancellable, error);

  *rotation = 0;
  if (settings == nullptr || !g_variant_is_of_type(settings, G_VARIANT_TYPE_VARDICT)) {
    return FALSE;
  }
  g_variant_lookup(settings, "rotation", "u", rotation);
  return TRUE;
}

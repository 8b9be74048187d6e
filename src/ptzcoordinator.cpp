/* SPDX-License-Identifier: MIT */
/* Queries the platform's PTZ coordinator for the movements of the camera's head. */
#include "ptzcoordinator.h"

#include "systembus.h"

#include <syslog.h>

namespace
{

constexpr SystemBusObject COORDINATOR = {"com.quon.PTZ.Coordinator", "/com/quon/PTZ/Coordinator/1",
                                         SYSTEM_BUS_PROPERTIES};
constexpr const char *COORDINATOR_INTERFACE = "com.quon.PTZ.Coordinator";
constexpr const char *MOVE_CAPABILITIES_PROPERTY = "DriverMoveCapabilities";

/* Calls through a proxy. When a coordinator that the bus can start does not start, the proxy's error names
 * that, and the log shows the text. */
GVariant *
get_property(const gchar *property, GError **error)
{
  g_autoptr(DescriptorReservation) reservation = nullptr;
  g_autoptr(GDBusConnection) bus = system_bus_get(&reservation, error);
  if (bus == nullptr) {
    return nullptr;
  }
  constexpr auto FLAGS = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                      G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS);
  g_autoptr(GDBusProxy) proxy = g_dbus_proxy_new_sync(bus, FLAGS, nullptr, COORDINATOR.name, COORDINATOR.path,
                                                      COORDINATOR.interface, nullptr, error);
  if (proxy == nullptr) {
    return nullptr;
  }
  return g_dbus_proxy_call_sync(proxy, "Get", g_variant_new("(ss)", COORDINATOR_INTERFACE, property),
                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
}

gboolean
unpack_int32(GVariant *reply, gint32 *number, GError **error)
{
  g_autoptr(GVariant) boxed = system_bus_get_first_child(reply);
  g_autoptr(GVariant) value = system_bus_get_first_child(boxed);

  if (value == nullptr || !g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
    g_set_error_literal(error, g_variant_parse_error_quark(), 0, "Failed to unpack variant");
    return FALSE;
  }
  *number = g_variant_get_int32(value);
  return TRUE;
}

} // namespace

/**
 * ptz_coordinator_query_move_capabilities:
 *
 * Calls the PTZ coordinator and waits for the reply, with GDBus' default time-out of 25 s. A failure is
 * logged at info priority. Any thread.
 *
 * Returns: the move capabilities of the PTZ driver; 0 on failure
 */
gint32
ptz_coordinator_query_move_capabilities(void)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = get_property(MOVE_CAPABILITIES_PROPERTY, &error);
  gint32 capabilities = 0;

  if (reply == nullptr || !unpack_int32(reply, &capabilities, &error)) {
    /* docs/compatibility.md, "last blank of a line". */
    syslog(LOG_INFO, "could not get property %s from %s: %s ", MOVE_CAPABILITIES_PROPERTY, COORDINATOR.path,
           error->message);
  }
  return capabilities;
}

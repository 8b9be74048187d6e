/* The daemon's name on the system bus. Whether it has the name changes nothing but who is able to find it:
 * the producers' objects are on the connection as long as that lives, and clients' streams need neither.
 *
 * Main thread, in the default main context.
 */
#include "dbusserver.h"

#include "dbusproducermanager.h"
#include "systembus.h"

#include <syslog.h>

namespace
{

constexpr const char *BUS_NAME = "com.quon.MetadataServer1";

guint owner_id; /* 0 when the name is not asked for */

} // namespace

static void
on_bus_acquired(GDBusConnection *connection, const gchar *, gpointer user_data)
{
  syslog(LOG_INFO, "Bus acquired");
  system_bus_prepare(connection);
  dbus_producer_manager_on_bus_acquired(connection, static_cast<AnalyticsProducerList *>(user_data));
}

static void
on_name_acquired(GDBusConnection *, const gchar *, gpointer)
{
  syslog(LOG_INFO, "DBus-name acquired");
}

/* There is no bus, the bus went away, or another process owns the name; docs/compatibility.md, "lost bus
 * name". The daemon stays in the bus' queue, so the name may still come. */
static void
on_name_lost(GDBusConnection *, const gchar *, gpointer)
{
  syslog(LOG_INFO, "DBus-name was lost");
}

/**
 * dbus_server_init:
 * @producers: (transfer none): the daemon's producers; must live until dbus_server_teardown()
 *
 * Begins to export the producers and asks for the daemon's name on the system bus. The rest comes about in
 * the main loop: nothing waits for the bus here, and without one the daemon just has no control service. Main
 * thread.
 *
 * Infos: "Bus acquired", "DBus-name acquired", "DBus-name was lost"
 */
void
dbus_server_init(AnalyticsProducerList *producers)
{
  g_return_if_fail(producers != NULL);
  g_return_if_fail(owner_id == 0);

  dbus_producer_manager_init(producers);
  owner_id = g_bus_own_name(G_BUS_TYPE_SYSTEM, BUS_NAME, G_BUS_NAME_OWNER_FLAGS_NONE, on_bus_acquired,
                            on_name_acquired, on_name_lost, producers, nullptr);
}

/**
 * dbus_server_teardown:
 *
 * Gives the name up and withdraws every object. Nothing happens before dbus_server_init(). Main thread.
 */
void
dbus_server_teardown(void)
{
  if (owner_id != 0) {
    g_bus_unown_name(owner_id);
    owner_id = 0;
  }
  dbus_producer_manager_teardown();
}

/* The one way to the system bus. GLib shares one connection among all who hold it, makes a new one when
 * nobody does, and has each of them end the process when the bus goes away. The daemon's clients do not need
 * the bus for what they already receive, so here its death is nobody's end.
 *
 * GLib ends the process too when it finds no descriptor for what a call that waits needs, and clients can use
 * all of them up. So nobody gets to the bus unless there are some; somebody else may still take them in the
 * moment between, but not as easily.
 */
#include "systembus.h"

#include <array>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/* Opens a few descriptors at once and closes them again. */
gboolean
can_open_descriptors()
{
  std::array<int, SYSTEM_BUS_SPARE_DESCRIPTORS> opened = {};
  gboolean all = TRUE;

  for (int &fd : opened) {
    fd = all ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
    all = fd >= 0;
  }
  for (const int fd : opened) {
    if (fd >= 0) {
      close(fd);
    }
  }
  return all;
}

} // namespace

/**
 * system_bus_get:
 * @error: (out) (optional): where to put the failure
 *
 * Gets the shared connection, making it when there is none. What is called on the bus while the connection is
 * held, through GLib's functions for a bus type too, uses this connection. May block while it connects. Any
 * thread.
 *
 * Returns: (transfer full) (nullable): the connection, %NULL with @error set (%G_IO_ERROR, %G_DBUS_ERROR)
 * when the bus cannot be reached, or when fewer than %SYSTEM_BUS_SPARE_DESCRIPTORS descriptors are free
 */
GDBusConnection *
system_bus_get(GError **error)
{
  if (!can_open_descriptors()) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "Too few free file descriptors");
    return nullptr;
  }

  GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
  if (connection != nullptr) {
    g_dbus_connection_set_exit_on_close(connection, FALSE);
  }
  return connection;
}

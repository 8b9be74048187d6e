/* SPDX-License-Identifier: MIT */
/* What the daemon's libraries cost without the daemon. The program is linked with all of them; it initialises
 * GStreamer, with the argument "bus" also connects to the system bus, and writes a byte. It ends with its
 * standard input.
 */
#include <cstdlib>
#include <cstring>
#include <gio/gio.h>
#include <gst/gst.h>
#include <unistd.h>

int
main(int argc, char **argv)
{
  gst_init(&argc, &argv);

  const bool connects = argc > 1 && strcmp(argv[1], "bus") == 0;
  g_autoptr(GDBusConnection) bus = connects ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr) : nullptr;
  if ((connects && bus == nullptr) || write(STDOUT_FILENO, "\n", 1) != 1) {
    return EXIT_FAILURE;
  }
  char byte = '\0';
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return EXIT_SUCCESS;
}

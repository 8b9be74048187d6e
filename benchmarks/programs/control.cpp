/* SPDX-License-Identifier: MIT */
/* Measures changes of producers over the bus, and what they consist of.
 *
 *   benchcontrol PRODUCER
 *
 * Each line of standard input is a command:
 *
 *   change COUNT         one call that gives the producer a new name on the channels 1 to COUNT: for one or
 *                        none SetChannelsEnabled, for more SetProducersEnabled
 *   replace COUNT FILE   as many durable replacements of a file beside FILE, with FILE's content
 *   ping                 one call without arguments, to the daemon
 *   await                calls the daemon until it replies
 *
 * It prints the time in nanoseconds.
 */
#include "streams.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gio/gio.h>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace benchmarks
{

namespace
{

constexpr const char *NAME = "com.quon.MetadataServer1";
constexpr const char *ROOT = "/com/quon/MetadataServer1/Producers";
constexpr int TIMEOUT_MS = 60 * 1000;
constexpr int FILE_MODE = 0644;

[[noreturn]] void
die(const char *what)
{
  fprintf(stderr, "benchcontrol: %s\n", what);
  exit(EXIT_FAILURE);
}

bool
try_call(GDBusConnection *bus, const char *path, const char *interface, const char *method,
         GVariant *arguments, GError **error)
{
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_sync(bus, NAME, path, interface, method, arguments, nullptr,
                                  G_DBUS_CALL_FLAGS_NO_AUTO_START, TIMEOUT_MS, nullptr, error);

  return reply != nullptr;
}

void
call(GDBusConnection *bus, const char *path, const char *interface, const char *method, GVariant *arguments)
{
  g_autoptr(GError) error = nullptr;

  if (!try_call(bus, path, interface, method, arguments, &error)) {
    die(error->message);
  }
}

bool
ping(GDBusConnection *bus, GError **error)
{
  return try_call(bus, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, error);
}

void
await_daemon(GDBusConnection *bus)
{
  constexpr gulong LOOK_US = 2000;
  const gint64 deadline = g_get_monotonic_time() + TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;

  while (!ping(bus, nullptr)) {
    if (g_get_monotonic_time() > deadline) {
      die("the daemon is not on the bus");
    }
    g_usleep(LOOK_US);
  }
}

/* Each change gives another name, so that none is without effect. */
void
change(GDBusConnection *bus, const std::string &producer, int count)
{
  static guint changes = 0;
  const std::string path = std::string(ROOT) + "/" + producer;
  const std::string name = "profile" + std::to_string(changes++ % 2);
  GVariantBuilder tuples;

  g_variant_builder_init(&tuples, G_VARIANT_TYPE("a(ibs)"));
  for (int channel = 1; channel <= count; channel++) {
    g_variant_builder_add(&tuples, "(ibs)", channel, TRUE, name.c_str());
  }
  if (count <= 1) {
    call(bus, path.c_str(), "com.quon.MetadataServer1.Producer", "SetChannelsEnabled",
         g_variant_new("(a(ibs))", &tuples));
    return;
  }
  GVariantBuilder producers;
  g_variant_builder_init(&producers, G_VARIANT_TYPE("a{sa(ibs)}"));
  g_variant_builder_add(&producers, "{sa(ibs)}", producer.c_str(), &tuples);
  call(bus, ROOT, "com.quon.MetadataServer1.ProducerManager", "SetProducersEnabled",
       g_variant_new("(a{sa(ibs)})", &producers));
}

void
require(bool done, const char *what)
{
  if (!done) {
    die(what);
  }
}

/* Replaces a file as the daemon does: writes and syncs another one, renames it, and syncs the folder. */
void
replace(const std::string &path, const std::string &content)
{
  const std::string other = path + ".new";
  const int file = open(other.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE);

  require(file >= 0 && write(file, content.data(), content.size()) == static_cast<gssize>(content.size()) &&
              fsync(file) == 0 && close(file) == 0 && rename(other.c_str(), path.c_str()) == 0,
          "a file cannot be replaced");
  g_autofree gchar *folder = g_path_get_dirname(path.c_str());
  const int directory = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  require(directory >= 0 && fsync(directory) == 0 && close(directory) == 0, "a folder cannot be synced");
}

void
replace_often(const std::string &path, int count)
{
  g_autofree gchar *content = nullptr;
  gsize size = 0;

  require(g_file_get_contents(path.c_str(), &content, &size, nullptr), "a file cannot be read");
  for (int i = 0; i < count; i++) {
    replace(path + ".bare", std::string(content, size));
  }
}

void
run_command(GDBusConnection *bus, const std::string &producer, const std::string &line)
{
  std::istringstream words(line);
  std::string command;
  std::string path;
  int count = 0;

  words >> command >> count >> path;
  const gint64 began = now_ns();
  if (command == "change" && count >= 0) {
    change(bus, producer, count);
  } else if (command == "replace" && count > 0) {
    replace_often(path, count);
  } else if (command == "await") {
    await_daemon(bus);
  } else if (command != "ping" || !ping(bus, nullptr)) {
    die("not a command, or the daemon is gone");
  }
  printf("%" G_GINT64_FORMAT "\n", now_ns() - began);
  fflush(stdout);
}

int
run_commands(const char *producer)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);

  if (bus == nullptr) {
    die(error->message);
  }
  for (std::string line; std::getline(std::cin, line);) {
    run_command(bus, producer, line);
  }
  return EXIT_SUCCESS;
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  if (argc != 2) {
    fprintf(stderr, "Usage: benchcontrol PRODUCER\n");
    return 2;
  }
  return benchmarks::run_commands(argv[1]);
}

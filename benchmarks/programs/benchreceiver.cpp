/* SPDX-License-Identifier: MIT */
#include "benchreceiver.h"

#include "messages.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

namespace benchmarks
{

namespace
{

constexpr const char *NAME = "com.quon.MetadataReceiver1";
constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers";
constexpr const char *PRODUCER_PATH = "/com/quon/MetadataReceiver1/Producers/Benchmark";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr gsize SAMPLE_BYTES = 200;

constexpr const char *INTROSPECTION =
    "<node><interface name='org.freedesktop.DBus.ObjectManager'><method name='GetManagedObjects'>"
    "<arg type='a{oa{sa{sv}}}' direction='out'/></method></interface>"
    "<interface name='com.quon.MetadataReceiver1.Producer'>"
    "<method name='GetSampleFrame'><arg type='s' direction='out'/></method>"
    "<method name='GetStreamFd'><arg type='i' direction='in'/><arg type='h' direction='out'/></method>"
    "</interface></node>";

GVariant *
make_objects()
{
  const guint32 channel = 1;
  GVariantBuilder properties;
  GVariantBuilder interfaces;
  GVariantBuilder objects;

  g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&properties, "{sv}", "Name", g_variant_new_string(PRODUCER_NAME));
  g_variant_builder_add(&properties, "{sv}", "NiceName", g_variant_new_string(PRODUCER_NAME));
  g_variant_builder_add(&properties, "{sv}", "SupportedChannels",
                        g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, &channel, 1, sizeof channel));
  g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
  g_variant_builder_add(&interfaces, "{sa{sv}}", PRODUCER_INTERFACE, &properties);
  g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
  g_variant_builder_add(&objects, "{oa{sa{sv}}}", PRODUCER_PATH, &interfaces);
  return g_variant_new("(a{oa{sa{sv}}})", &objects);
}

} // namespace

BenchReceiver::BenchReceiver() = default;

BenchReceiver::~BenchReceiver()
{
  for (const int stream : streams_) {
    close(stream);
  }
  g_clear_object(&connection_);
}

void
BenchReceiver::on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                       const gchar *interface, const gchar *method, GVariant *arguments,
                       GDBusMethodInvocation *invocation, gpointer user_data)
{
  if (g_str_equal(method, "GetManagedObjects")) {
    g_dbus_method_invocation_return_value(invocation, make_objects());
  } else if (g_str_equal(method, "GetSampleFrame")) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", make_item(SAMPLE_BYTES).c_str()));
  } else {
    static_cast<BenchReceiver *>(user_data)->send_stream(invocation);
  }
}

/* The read end is blocking, so that messages longer than the pipe arrive whole. */
void
BenchReceiver::send_stream(GDBusMethodInvocation *invocation)
{
  std::array<int, 2> ends = {-1, -1};
  g_autoptr(GUnixFDList) descriptors = nullptr;

  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    g_dbus_method_invocation_return_error(invocation, G_IO_ERROR, G_IO_ERROR_FAILED, "%s", g_strerror(errno));
    return;
  }
  fcntl(ends[1], F_SETFL, fcntl(ends[1], F_GETFL) | O_NONBLOCK);
  descriptors = g_unix_fd_list_new_from_array(ends.data(), 1);
  streams_.push_back(ends[1]);
  g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0), descriptors);
}

bool
BenchReceiver::register_objects(GError **error)
{
  static const GDBusInterfaceVTable CALLS = {.method_call = on_call};
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(INTROSPECTION, error);

  return node != nullptr &&
         g_dbus_connection_register_object(connection_, ROOT, node->interfaces[0], &CALLS, this, nullptr,
                                           error) != 0 &&
         g_dbus_connection_register_object(connection_, PRODUCER_PATH, node->interfaces[1], &CALLS, this,
                                           nullptr, error) != 0;
}

bool
BenchReceiver::own_name(GError **error)
{
  constexpr guint32 DO_NOT_QUEUE = 4;
  constexpr guint32 OWNER = 1;
  guint32 result = 0;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", NAME, DO_NOT_QUEUE), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      error);

  if (reply == nullptr) {
    return false;
  }
  g_variant_get(reply, "(u)", &result);
  if (result != OWNER) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "the name %s has another owner", NAME);
  }
  return result == OWNER;
}

/**
 * BenchReceiver::start:
 * @error: set if there is no bus, or if the receiver's name has an owner
 *
 * Returns: whether the receiver is on the bus
 */
bool
BenchReceiver::start(GError **error)
{
  connection_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
  return connection_ != nullptr && register_objects(error) && own_name(error);
}

} // namespace benchmarks

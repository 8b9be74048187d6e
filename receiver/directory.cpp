/* SPDX-License-Identifier: MIT */
#include "directory.h"

namespace receiver
{

namespace
{

constexpr const char *PRODUCERS_PATH = "/com/quon/MetadataReceiver1/Producers";

std::string
path_of(const std::string &name)
{
  return std::string(PRODUCERS_PATH) + "/" + name;
}

} // namespace

Directory::Directory() : manager_(g_dbus_object_manager_server_new(PRODUCERS_PATH))
{
}

Directory::~Directory()
{
  g_dbus_object_manager_server_set_connection(manager_, nullptr);
  g_object_unref(manager_);
}

/**
 * Directory::set_connection:
 * @connection: (transfer none) (nullable): a connection to a bus
 *
 * Exports the object manager and all objects on this connection only.
 */
void
Directory::set_connection(GDBusConnection *connection)
{
  g_dbus_object_manager_server_set_connection(manager_, connection);
}

/**
 * Directory::add:
 * @name: a valid name that no object has
 * @interface: (transfer none): the only interface of the object
 *
 * Exports a producer's object.
 */
void
Directory::add(const std::string &name, GDBusInterfaceSkeleton *interface)
{
  g_autoptr(GDBusObjectSkeleton) object = g_dbus_object_skeleton_new(path_of(name).c_str());

  g_dbus_object_skeleton_add_interface(object, interface);
  g_dbus_object_manager_server_export(manager_, object);
}

/**
 * Directory::remove:
 * @name: the name of an object
 *
 * Removes a producer's object from the bus.
 */
void
Directory::remove(const std::string &name)
{
  g_dbus_object_manager_server_unexport(manager_, path_of(name).c_str());
}

} // namespace receiver

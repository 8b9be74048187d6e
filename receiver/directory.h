/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <string>

namespace receiver
{

constexpr const char *BUS_NAME = "com.quon.MetadataReceiver1";
constexpr const char *RECEIVER_PATH = "/com/quon/MetadataReceiver1";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";

/* The object manager and the producers' objects. Main thread only. */
class Directory
{
public:
  Directory();
  ~Directory();
  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;

  void set_connection(GDBusConnection *connection);
  void add(const std::string &name, GDBusInterfaceSkeleton *interface);
  void remove(const std::string &name);

private:
  GDBusObjectManagerServer *manager_; /* owned */
};

} // namespace receiver

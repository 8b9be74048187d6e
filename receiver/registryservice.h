/* SPDX-License-Identifier: MIT */
#pragma once

#include "applications.h"
#include "registry.h"

#include <gio/gio.h>

namespace receiver
{

/* The registry on the bus: it serves the calls of applications. Main thread only. */
class RegistryService
{
public:
  RegistryService(Registry *registry, GDBusConnection *connection);
  ~RegistryService();
  RegistryService(const RegistryService &) = delete;
  RegistryService &operator=(const RegistryService &) = delete;

  bool publish(GError **error);

private:
  struct Handlers;

  Registry *registry_;
  GDBusConnection *connection_; /* owned */
  Applications applications_;
  GDBusInterfaceSkeleton *skeleton_; /* owned */
};

} // namespace receiver

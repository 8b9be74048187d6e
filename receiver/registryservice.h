/* SPDX-License-Identifier: MIT */
#pragma once

#include "registry.h"

#include <deque>
#include <gio/gio.h>

namespace receiver
{

/* The registry on the bus: it serves the calls of applications and watches their connections. Main thread
 * only.
 */
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
  struct Application;
  struct Invocation;

  /* A call, with the function that replies to it. */
  using Work = std::function<void(const Caller &caller)>;

  void run_with_user(GDBusMethodInvocation *invocation, Work work);
  void run_in_order(GDBusMethodInvocation *invocation, Work work);
  Application *watch_application(const std::string &sender);
  void queue_call(Application *application, GDBusMethodInvocation *invocation, Work work);
  void on_user(const std::string &sender, guint32 user);
  void remove_if_unused(const std::string &sender);
  void on_disconnected(const std::string &sender);

  Registry *registry_;
  GDBusConnection *connection_;      /* owned */
  GDBusInterfaceSkeleton *skeleton_; /* owned */
  std::map<std::string, std::unique_ptr<Application>> applications_;
  gsize waiting_ = 0; /* calls of all applications */
};

} // namespace receiver

/* SPDX-License-Identifier: MIT */
#pragma once

#include <deque>
#include <functional>
#include <gio/gio.h>
#include <map>
#include <memory>
#include <string>

namespace receiver
{

/* The connection of an application, and its user. */
struct Caller {
  std::string sender; /* the unique name on the bus */
  guint32 user;
};

/* The applications that have something in the receiver, and their calls. Main thread only. */
class Applications
{
public:
  /* A call, with the function that replies to it. */
  using Work = std::function<void(const Caller &caller)>;
  using IsNeeded = std::function<bool(const std::string &sender)>;
  using Disconnected = std::function<void(const std::string &sender)>;

  Applications(GDBusConnection *connection, IsNeeded is_needed, Disconnected disconnected);
  ~Applications();
  Applications(const Applications &) = delete;
  Applications &operator=(const Applications &) = delete;

  void run_with_user(GDBusMethodInvocation *invocation, Work work);
  void run_in_order(GDBusMethodInvocation *invocation, Work work);

private:
  struct Application;
  struct Invocation;

  static void on_owner_changed(GDBusConnection *connection, const gchar *bus, const gchar *path,
                               const gchar *interface, const gchar *signal, GVariant *parameters,
                               gpointer user_data);
  static void on_user_reply(GObject *connection, GAsyncResult *result, gpointer user_data);

  Application *watch(const std::string &sender);
  void queue_call(Application *application, GDBusMethodInvocation *invocation, Work work);
  void on_user(const std::string &sender, guint32 user);
  void remove_if_unused(const std::string &sender);
  void on_disconnected(const std::string &sender);

  GDBusConnection *connection_; /* owned */
  const IsNeeded is_needed_;
  const Disconnected disconnected_;
  std::map<std::string, std::unique_ptr<Application>> applications_;
  gsize waiting_ = 0; /* calls of all applications */
};

} // namespace receiver

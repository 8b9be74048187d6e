/* SPDX-License-Identifier: MIT */
#include "applications.h"

#include "error.h"
#include "receiverlimits.h"

#include <optional>

/* The unique name of its connection identifies an application; the bus never reuses it. When an application
 * makes the first call that needs its user, its connection is watched and its user is looked up. Its calls
 * wait for the user, and are then served in order. The watch begins before the look-up, so that a connection
 * that closes at any time is detected: either the look-up fails, or the bus reports it. Nothing is kept about
 * an application that is not needed. */

namespace receiver
{

namespace
{

constexpr const char *BUS_DAEMON = "org.freedesktop.DBus";
constexpr const char *BUS_DAEMON_PATH = "/org/freedesktop/DBus";

} // namespace

/* A call that waits. */
struct Applications::Invocation {
  struct Free {
    void operator()(GDBusMethodInvocation *held) const
    {
      g_object_unref(held);
    }
  };

  std::unique_ptr<GDBusMethodInvocation, Free> invocation;
  Work work;
};

struct Applications::Application {
  GDBusConnection *connection;
  guint watch = 0;
  GCancellable *look_up = g_cancellable_new();
  std::optional<guint32> user;
  std::deque<Invocation> waiting;

  explicit Application(GDBusConnection *with) : connection(with)
  {
  }

  ~Application()
  {
    g_cancellable_cancel(look_up);
    g_object_unref(look_up);
    g_dbus_connection_signal_unsubscribe(connection, watch);
  }

  Application(const Application &) = delete;
  Application &operator=(const Application &) = delete;
};

/**
 * Applications:
 * @connection: (transfer none): the connection to the bus
 * @is_needed: whether an application has something that ends with its connection
 * @disconnected: called when the connection of an application has closed
 */
Applications::Applications(GDBusConnection *connection, IsNeeded is_needed, Disconnected disconnected)
    : connection_(G_DBUS_CONNECTION(g_object_ref(connection))), is_needed_(std::move(is_needed)),
      disconnected_(std::move(disconnected))
{
}

Applications::~Applications()
{
  applications_.clear();
  g_object_unref(connection_);
}

/**
 * Applications::run_with_user:
 * @invocation: (transfer full): the call, which @work completes
 * @work: runs when the user of the caller is known; never if its connection closes before
 *
 * Watches the connection of the caller as long as the caller is needed. If too many calls wait, this one gets
 * an error.
 */
void
Applications::run_with_user(GDBusMethodInvocation *invocation, Work work)
{
  const std::string sender = g_dbus_method_invocation_get_sender(invocation);
  Application *application = watch(sender);

  if (!application->user.has_value()) {
    queue_call(application, invocation, std::move(work));
    return;
  }
  work({sender, *application->user});
  remove_if_unused(sender);
}

/**
 * Applications::run_in_order:
 * @invocation: (transfer full): the call, which @work completes
 * @work: runs after the waiting calls of the same application; the caller's user can be wrong
 *
 * For calls that only an application can make that is known already.
 */
void
Applications::run_in_order(GDBusMethodInvocation *invocation, Work work)
{
  const std::string sender = g_dbus_method_invocation_get_sender(invocation);
  const auto found = applications_.find(sender);

  if (found != applications_.end() && !found->second->user.has_value()) {
    queue_call(found->second.get(), invocation, std::move(work));
    return;
  }
  work({sender, 0});
  remove_if_unused(sender);
}

/* Returns: the application, watched; its user is looked up */
Applications::Application *
Applications::watch(const std::string &sender)
{
  std::unique_ptr<Application> &application = applications_[sender];

  if (application != nullptr) {
    return application.get();
  }
  application = std::make_unique<Application>(connection_);
  application->watch = g_dbus_connection_signal_subscribe(
      connection_, BUS_DAEMON, BUS_DAEMON, "NameOwnerChanged", BUS_DAEMON_PATH, sender.c_str(),
      G_DBUS_SIGNAL_FLAGS_NONE, on_owner_changed, this, nullptr);
  auto *call = new std::pair<Applications *, std::string>(this, sender);
  g_dbus_connection_call(connection_, BUS_DAEMON, BUS_DAEMON_PATH, BUS_DAEMON, "GetConnectionUnixUser",
                         g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
                         -1, application->look_up, on_user_reply, call);
  return application.get();
}

/* @invocation: (transfer full): the call, which gets an error if too many wait */
void
Applications::queue_call(Application *application, GDBusMethodInvocation *invocation, Work work)
{
  GError *error = nullptr;

  if (waiting_ == RECEIVER_MAX_WAITING_CALLS) {
    const std::string sender = g_dbus_method_invocation_get_sender(invocation);
    refuse(&error, Error::LIMIT_EXCEEDED, "%d calls wait", RECEIVER_MAX_WAITING_CALLS);
    g_dbus_method_invocation_take_error(invocation, error);
    remove_if_unused(sender);
    return;
  }
  waiting_++;
  application->waiting.push_back({decltype(Invocation::invocation)(invocation), std::move(work)});
}

void
Applications::on_user_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<std::pair<Applications *, std::string>> call(
      static_cast<std::pair<Applications *, std::string> *>(user_data));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
  guint32 user = 0;

  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &user);
    call->first->on_user(call->second, user);
  } else if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    call->first->on_disconnected(call->second);
  }
}

/* Runs the calls that wait for the user. */
void
Applications::on_user(const std::string &sender, guint32 user)
{
  Application *application = applications_[sender].get();

  application->user = user;
  while (!application->waiting.empty()) {
    Invocation next = std::move(application->waiting.front());
    application->waiting.pop_front();
    waiting_--;
    static_cast<void>(next.invocation.release());
    next.work({sender, user});
  }
  remove_if_unused(sender);
}

void
Applications::on_owner_changed(GDBusConnection *connection, const gchar *bus, const gchar *path,
                               const gchar *interface, const gchar *signal, GVariant *parameters,
                               gpointer user_data)
{
  const gchar *name = nullptr;
  const gchar *owner = nullptr;

  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) {
    return;
  }
  g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &owner);
  if (*owner == '\0') {
    static_cast<Applications *>(user_data)->on_disconnected(name);
  }
}

/* The connection of an application has closed; its replies are not needed any more. */
void
Applications::on_disconnected(const std::string &sender)
{
  const auto found = applications_.find(sender);

  if (found == applications_.end()) {
    return;
  }
  waiting_ -= found->second->waiting.size();
  applications_.erase(found);
  disconnected_(sender);
}

void
Applications::remove_if_unused(const std::string &sender)
{
  const auto found = applications_.find(sender);

  if (found != applications_.end() && found->second->waiting.empty() && !is_needed_(sender)) {
    applications_.erase(found);
  }
}

} // namespace receiver

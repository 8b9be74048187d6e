/* SPDX-License-Identifier: MIT */
/* A stream of the daemon has the producers that were enabled when it was requested. A daemon that starts can
 * grant a request before it knows the producers, and can list them by the time that it is on the bus. So the
 * text for a channel is another one not only when its producers have changed, but also when another daemon
 * has come.
 */
#include "producerfollower.h"

#include "producerbus.h"

#include <syslog.h>
#include <utility>

namespace gateway
{

/* A connection to the bus that is being made, which can outlive the follower: NULL then. Belongs to its
 * callback. */
struct ProducerFollower::Attempt {
  ProducerFollower *follower;
  GCancellable *cancellable = g_cancellable_new();

  explicit Attempt(ProducerFollower *of) : follower(of)
  {
  }
  ~Attempt()
  {
    g_object_unref(cancellable);
  }
  Attempt(const Attempt &) = delete;
  Attempt &operator=(const Attempt &) = delete;
};

/**
 * ProducerFollower:
 * @bus_address: (nullable): the bus; %NULL for the system bus
 * @on_producers: see %ProducersFunction
 */
ProducerFollower::ProducerFollower(const char *bus_address, ProducersFunction on_producers)
    : bus_address_(bus_address != nullptr ? bus_address : ""), on_producers_(std::move(on_producers))
{
  connect();
}

ProducerFollower::~ProducerFollower()
{
  if (attempt_ != nullptr) {
    attempt_->follower = nullptr;
    g_cancellable_cancel(attempt_->cancellable);
  }
  g_clear_handle_id(&time_out_, g_source_remove);
  g_clear_handle_id(&retry_, g_source_remove);
  disconnect();
}

/**
 * ProducerFollower::connection:
 *
 * Returns: (transfer none) (nullable): the connection to the bus; not %NULL while producers are known
 */
GDBusConnection *
ProducerFollower::connection() const
{
  return connection_;
}

/**
 * ProducerFollower::enabled_on:
 * @channel: a channel
 *
 * Returns: the text of %EnabledFunction; while the producers are not known, the last one
 */
std::string
ProducerFollower::enabled_on(guint channel) const
{
  const auto found = enabled_.find(static_cast<gint32>(channel));
  return std::to_string(daemons_) + "\n" + (found != enabled_.end() ? found->second : "");
}

/**
 * ProducerFollower::watch_channel:
 * @watcher: identifies the caller for unwatch_channel()
 * @channel: a channel
 * @on_enabled: called whenever the producers have become known or have changed. It must not add or remove
 *   watchers.
 */
void
ProducerFollower::watch_channel(const void *watcher, guint channel, EnabledFunction on_enabled)
{
  watchers_.insert_or_assign(watcher, Watcher{channel, std::move(on_enabled)});
}

/**
 * ProducerFollower::unwatch_channel:
 * @watcher: a watcher, or none
 */
void
ProducerFollower::unwatch_channel(const void *watcher)
{
  watchers_.erase(watcher);
}

/**
 * ProducerFollower::begin_again:
 * @message: what has failed
 *
 * The producers are not known until the bus has been tried again, later. Logs the message unless it is that
 * of the last failure.
 */
void
ProducerFollower::begin_again(const char *message)
{
  take_producers(nullptr);
  if (message != failure_) {
    failure_ = message;
    syslog(LOG_WARNING, "The producers are not known: %s", message);
  }
  if (retry_ == 0) {
    retry_ = g_timeout_add_seconds(GATEWAY_BUS_RETRY_SECONDS, on_retry, this);
  }
}

void
ProducerFollower::connect()
{
  g_autoptr(GError) error = nullptr;
  g_autofree gchar *address = bus_address_.empty()
                                  ? g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error)
                                  : g_strdup(bus_address_.c_str());
  if (address == nullptr) {
    begin_again(error->message);
    return;
  }
  attempt_ = new Attempt(this);
  time_out_ = g_timeout_add_seconds(PRODUCER_BUS_TIMEOUT_SECONDS, on_connect_time_out, this);
  producer_bus_connect_async(address, attempt_->cancellable, on_connected, attempt_);
}

gboolean
ProducerFollower::on_connect_time_out(gpointer user_data)
{
  auto *self = static_cast<ProducerFollower *>(user_data);
  self->time_out_ = 0;
  g_cancellable_cancel(self->attempt_->cancellable);
  return G_SOURCE_REMOVE;
}

void
ProducerFollower::on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Attempt> attempt(static_cast<Attempt *>(user_data));
  ProducerFollower *self = attempt->follower;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) connection = g_dbus_connection_new_for_address_finish(result, &error);
  if (self == nullptr) {
    return;
  }
  g_clear_handle_id(&self->time_out_, g_source_remove);
  self->attempt_ = nullptr;
  if (connection == nullptr) {
    self->begin_again(error->message);
    return;
  }
  self->take_connection(g_steal_pointer(&connection));
}

/* @connection: (transfer full) */
void
ProducerFollower::take_connection(GDBusConnection *connection)
{
  connection_ = connection;
  g_signal_connect(connection_, "closed", G_CALLBACK(on_bus_closed), this);
  watch_ = std::make_unique<ProducerWatch>(
      connection_, ProducerWatch::Callbacks{
                       .on_present = [this](const ProducersByPath &producers) { take_producers(&producers); },
                       .on_changed = [this](const ProducersByPath &producers) { take_producers(&producers); },
                       .on_absent = [this]() { take_producers(nullptr); },
                       .on_failed =
                           [this](GError *error) {
                             begin_again(error->message);
                             g_error_free(error);
                           },
                   });
}

void
ProducerFollower::on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                                gpointer user_data)
{
  static_cast<ProducerFollower *>(user_data)->begin_again("The bus closed the connection.");
}

void
ProducerFollower::disconnect()
{
  watch_.reset();
  if (connection_ != nullptr) {
    g_signal_handlers_disconnect_by_data(connection_, this);
    g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
    g_clear_object(&connection_);
  }
}

gboolean
ProducerFollower::on_retry(gpointer user_data)
{
  auto *self = static_cast<ProducerFollower *>(user_data);
  self->retry_ = 0;
  self->disconnect();
  self->connect();
  return G_SOURCE_REMOVE;
}

void
ProducerFollower::remember(const ProducersByPath &producers)
{
  enabled_.clear();
  for (const auto &[path, producer] : producers) {
    for (const ProducerChannel &channel : producer.channels) {
      if (channel.enabled) {
        enabled_[channel.channel] += producer.name + "\n" + channel.configuration + "\n";
      }
    }
  }
}

/* @producers: (nullable): %NULL while they are not known. A callback that begins again has not taken them. */
void
ProducerFollower::take_producers(const ProducersByPath *producers)
{
  daemons_ += producers != nullptr && !is_known_ ? 1 : 0;
  is_known_ = producers != nullptr;
  if (producers != nullptr) {
    remember(*producers);
  }
  if (on_producers_) {
    on_producers_(producers);
  }
  if (!is_known_) {
    return;
  }
  failure_.clear();
  for (const auto &[watcher, details] : watchers_) {
    details.on_enabled(enabled_on(details.channel));
  }
}

} // namespace gateway

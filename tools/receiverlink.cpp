/* SPDX-License-Identifier: MIT */
/* The calls of a producer at the metadata receiver.
 *
 * Calls go to the unique name of the receiver, one at a time: the registration, and then a call for each
 * channel that is not open. They have no time limit, because a reply that comes too late would leave a
 * producer or a channel behind; the receiver's end on the bus ends them. When the receiver comes back,
 * everything begins anew.
 *
 * A refusal that can pass is followed by the same call after a time. Every other one is final.
 */
#include "receiverlink.h"
#include "command.h"
#include "producerbus.h"

#include <algorithm>
#include <array>
#include <gio/gunixfdlist.h>

namespace
{

constexpr gint NO_TIME_LIMIT = G_MAXINT;

/* Nothing is loaded or watched: creating the proxy makes no call. */
constexpr auto PROXY_FLAGS = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                          G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS |
                                                          G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START);

constexpr gchar NOT_ALLOWED[] = "The bus policy refused the call: only root and members of the "
                                "group '" RECEIVER_LINK_GROUP "' can register producers.";

#define RECEIVER_ERROR(name) RECEIVER_LINK_BUS_NAME ".Error." name

/* Errors that can pass: of the receiver, and of the bus when the receiver leaves. */
constexpr std::array PASSING_ERRORS = {
    RECEIVER_ERROR("LimitExceeded"),
    RECEIVER_ERROR("NoDescriptor"),
    RECEIVER_ERROR("ChannelOpen"),
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply",
};

/* Errors of a receiver that does not know the producer any more. */
constexpr std::array LOST_ERRORS = {
    RECEIVER_ERROR("UnknownProducer"),
    RECEIVER_ERROR("NotOwner"),
};

template <gsize COUNT>
gboolean
is_one_of(const gchar *name, const std::array<const gchar *, COUNT> &names)
{
  return std::any_of(names.begin(), names.end(),
                     [name](const gchar *other) { return g_strcmp0(name, other) == 0; });
}

gboolean
is_of_bus(const gchar *name)
{
  return g_str_has_prefix(name, "org.freedesktop.DBus.");
}

GError *
convert_failure(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);

  if (g_error_matches(cause, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
    return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, NOT_ALLOWED);
  }
  if (is_one_of(name, PASSING_ERRORS) && is_of_bus(name)) {
    return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "It left without a reply");
  }
  if (name != nullptr || g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
    return producer_bus_convert_failure(cause, 0);
  }
  return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The receiver sent a malformed reply: %s.",
                     cause->message);
}

GVariant *
make_channels(const std::vector<guint32> &channels)
{
  return g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, channels.data(), channels.size(), sizeof(guint32));
}

/* Returns: the descriptor, -1 with an error if the reply has none */
int
take_descriptor(GVariant *handle, GUnixFDList *fds, GError **error)
{
  const gint32 index = g_variant_get_handle(handle);

  if (fds == nullptr || index < 0 || index >= g_unix_fd_list_get_length(fds)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "it has no descriptor");
    return -1;
  }
  return g_unix_fd_list_get(fds, index, error);
}

} // namespace

/**
 * ReceiverLink::ReceiverLink:
 * @bus_connection: (transfer none): the connection to the bus
 * @producer: what to register
 * @link_events: (transfer none): called with @data; outlives the link
 * @data: for @link_events
 *
 * Registers the producer when the receiver is on the bus.
 */
ReceiverLink::ReceiverLink(GDBusConnection *bus_connection, ProducerDescription producer,
                           const ReceiverLinkEvents *link_events, gpointer data)
    : connection(bus_connection), description(std::move(producer)), events(link_events), user_data(data),
      watch(g_bus_watch_name_on_connection(connection, RECEIVER_LINK_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                           on_appeared, on_vanished, this, nullptr))
{
}

/* No callback can run afterwards, not even that of a cancelled call. */
ReceiverLink::~ReceiverLink()
{
  g_bus_unwatch_name(watch);
  forget_owner();
  while (pending_replies > 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

/**
 * ReceiverLink::reopen:
 * @channel: a channel that was open and that the receiver has closed
 *
 * Opens the channel again, after a time.
 */
void
ReceiverLink::reopen(guint32 channel)
{
  if (g_get_monotonic_time() - opened_at > RECEIVER_LINK_LAST_RETRY_MS * G_TIME_SPAN_MILLISECOND) {
    retry_ms = RECEIVER_LINK_FIRST_RETRY_MS;
  }
  closed.push_back(channel);
  retry_later();
}

/**
 * ReceiverLink::unregister:
 *
 * Ends the link: from now on, only the events on_unregistered() and on_absent() follow. Every channel must be
 * closed.
 *
 * Returns: whether one of them follows; %FALSE if nothing is registered
 */
gboolean
ReceiverLink::unregister()
{
  ending = TRUE;
  g_clear_handle_id(&retry_source, g_source_remove);
  if (registered) {
    call_unregister();
  }
  return registered || calling;
}

void
ReceiverLink::on_appeared(GDBusConnection *bus, const gchar *name, const gchar *owner, gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);
  g_autoptr(GError) error = nullptr;

  self->forget_owner();
  self->registry = metadata_receiver1_registry_proxy_new_sync(bus, PROXY_FLAGS, owner, RECEIVER_LINK_PATH,
                                                              nullptr, &error);
  if (self->registry == nullptr) {
    self->events->on_failure(convert_failure(error), self->user_data);
    return;
  }
  g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(self->registry), NO_TIME_LIMIT);
  self->cancellable = g_cancellable_new();
  self->closed = self->description.channels;
  self->retry_ms = RECEIVER_LINK_FIRST_RETRY_MS;
  self->proceed();
}

/* Also called when the bus closes the connection, whose own signal says more. */
void
ReceiverLink::on_vanished(GDBusConnection *bus, const gchar *name, gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);

  self->forget_owner();
  if (!g_dbus_connection_is_closed(self->connection)) {
    self->events->on_absent(self->user_data);
  }
}

void
ReceiverLink::forget_owner()
{
  g_clear_handle_id(&retry_source, g_source_remove);
  if (cancellable != nullptr) {
    g_cancellable_cancel(cancellable);
  }
  g_clear_object(&cancellable);
  g_clear_object(&registry);
  calling = FALSE;
  registered = FALSE;
}

/* Makes the next call, if there is one to make. */
void
ReceiverLink::proceed()
{
  if (registry == nullptr || calling || ending || retry_source != 0) {
    return;
  }
  if (!registered) {
    call_register();
  } else if (!closed.empty()) {
    call_open(closed.front());
  }
}

void
ReceiverLink::call_register()
{
  calling = TRUE;
  pending_replies++;
  metadata_receiver1_registry_call_register_producer(
      registry, description.name.c_str(), description.nice_name.c_str(), make_channels(description.channels),
      description.sample_frame.c_str(), g_variant_new("a{sv}", nullptr), cancellable, on_registered, this);
}

void
ReceiverLink::call_open(guint32 channel)
{
  calling = TRUE;
  pending_replies++;
  metadata_receiver1_registry_call_open_channel(registry, description.name.c_str(), channel, nullptr,
                                                cancellable, on_opened, this);
}

void
ReceiverLink::call_unregister()
{
  pending_replies++;
  metadata_receiver1_registry_call_unregister_producer(registry, description.name.c_str(), cancellable,
                                                       on_unregistered, this);
}

/* Counts a reply.
 *
 * @cause: (nullable): the error instead of a reply
 *
 * Returns: whether it is one of the current owner, and no error */
gboolean
ReceiverLink::take_reply(const GError *cause)
{
  pending_replies--;
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return FALSE;
  }
  calling = FALSE;
  if (cause != nullptr) {
    handle_failure(cause);
  }
  return cause == nullptr;
}

void
ReceiverLink::on_registered(GObject *proxy, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);
  g_autoptr(GError) cause = nullptr;

  metadata_receiver1_registry_call_register_producer_finish(METADATA_RECEIVER1_REGISTRY(proxy), result,
                                                            &cause);
  if (!self->take_reply(cause)) {
    return;
  }
  self->registered = TRUE;
  if (self->ending) {
    self->call_unregister();
  }
  self->proceed();
}

void
ReceiverLink::on_opened(GObject *proxy, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);
  g_autoptr(GVariant) handle = nullptr;
  g_autoptr(GUnixFDList) fds = nullptr;
  g_autoptr(GError) cause = nullptr;
  int fd = -1;

  if (metadata_receiver1_registry_call_open_channel_finish(METADATA_RECEIVER1_REGISTRY(proxy), &handle, &fds,
                                                           result, &cause)) {
    fd = take_descriptor(handle, fds, &cause);
  }
  if (!self->take_reply(cause)) {
    return;
  }
  const guint32 channel = self->closed.front();
  self->closed.erase(self->closed.begin());
  self->opened_at = g_get_monotonic_time();
  self->events->on_channel_open(channel, fd, self->user_data);
  self->proceed();
}

void
ReceiverLink::on_unregistered(GObject *proxy, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);
  g_autoptr(GError) cause = nullptr;

  self->pending_replies--;
  metadata_receiver1_registry_call_unregister_producer_finish(METADATA_RECEIVER1_REGISTRY(proxy), result,
                                                              &cause);
  if (!g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    self->events->on_unregistered(self->user_data);
  }
}

void
ReceiverLink::handle_failure(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
  const gboolean lost = is_one_of(name, LOST_ERRORS);
  g_autoptr(GError) error = convert_failure(cause);

  if (ending) {
    if (!registered) {
      events->on_unregistered(user_data);
    }
    return;
  }
  if (!lost && !is_one_of(name, PASSING_ERRORS)) {
    events->on_failure(g_steal_pointer(&error), user_data);
    return;
  }
  registered = registered && !lost;
  retry_later();
  events->on_delay(error->message, user_data);
}

void
ReceiverLink::retry_later()
{
  if (retry_source == 0 && registry != nullptr && !ending) {
    retry_source = g_timeout_add(retry_ms, on_retry, this);
    retry_ms = std::min<guint>(retry_ms * 2, RECEIVER_LINK_LAST_RETRY_MS);
  }
}

gboolean
ReceiverLink::on_retry(gpointer data)
{
  auto *self = static_cast<ReceiverLink *>(data);

  self->retry_source = 0;
  self->proceed();
  return G_SOURCE_REMOVE;
}

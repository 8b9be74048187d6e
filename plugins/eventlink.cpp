/* SPDX-License-Identifier: MIT */
#include "eventlink.h"

#include <algorithm>
#include <gio/gunixfdlist.h>
#include <gst/gst.h>
#include <unistd.h>

/* The link has its own connection to the bus: an application that links this code can refuse descriptors on
 * the shared one. A call goes to the receiver's name without starting it; if the name has no owner, the
 * change of its owner causes the next call. After any other failure, a time-out does. */

GST_DEBUG_CATEGORY_STATIC(event_link_debug);
#define GST_CAT_DEFAULT event_link_debug

namespace plugins
{

namespace
{

constexpr const char *NAME = "com.quon.MetadataReceiver1";
constexpr const char *PATH = "/com/quon/MetadataReceiver1";
constexpr const char *INTERFACE = "com.quon.MetadataReceiver1.Events";
constexpr const char *BUS_DAEMON = "org.freedesktop.DBus";
constexpr const char *BUS_DAEMON_PATH = "/org/freedesktop/DBus";
constexpr int REPLY_TIMEOUT_MS = 25000;

void
init_debug()
{
  static gsize once = 0;
  if (g_once_init_enter(&once)) {
    GST_DEBUG_CATEGORY_INIT(event_link_debug, "tessardeventlink", 0, "Link to the metadata receiver");
    g_once_init_leave(&once, 1);
  }
}

/* Returns: the descriptor, or -1. Closes all others. */
int
take_descriptor(GVariant *reply, GUnixFDList *list)
{
  gint32 index = -1;
  g_variant_get(reply, "(h)", &index);
  if (list == nullptr || index < 0 || index >= g_unix_fd_list_get_length(list)) {
    return -1;
  }
  return g_unix_fd_list_get(list, index, nullptr);
}

} // namespace

/**
 * EventLink:
 * @context: the calling thread's default context; outlives the link
 * @cancellable: ends every wait when another thread cancels it; outlives the link
 * @began: called when a stream begins
 * @deliver: called with each message
 * @gone: called when there is no stream
 */
EventLink::EventLink(GMainContext *context, GCancellable *cancellable, Began began,
                     MessageStream::Deliver deliver, Gone gone)
    : context_(context), cancellable_(cancellable), began_(std::move(began)), deliver_(std::move(deliver)),
      gone_(std::move(gone))
{
  init_debug();
}

/* The replies of cancelled calls are in the context, and signals of the bus that came before the end of the
 * subscription: each of them holds the connection and the context. */
EventLink::~EventLink()
{
  cancel_retry();
  stream_.reset();
  disconnect();
  while (calls_ > 0 || g_main_context_pending(context_)) {
    g_main_context_iteration(context_, TRUE);
  }
}

/**
 * EventLink::start:
 *
 * Connects to the bus and requests a stream, again and again until there is one. Blocks only for the
 * connection, and no longer than until the cancellable is cancelled.
 */
void
EventLink::start()
{
  if (connection_ == nullptr && !connect()) {
    gone_();
    retry_later();
    return;
  }
  request_stream();
}

bool
EventLink::connect()
{
  g_autoptr(GError) error = nullptr;
  g_autofree gchar *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable_, &error);
  if (address != nullptr) {
    connection_ = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &error);
  }
  if (connection_ == nullptr) {
    GST_INFO("No connection to the system bus: %s", error->message);
    return false;
  }
  closed_ = g_signal_connect(connection_, "closed", G_CALLBACK(on_closed), this);
  subscription_ = g_dbus_connection_signal_subscribe(connection_, BUS_DAEMON, BUS_DAEMON, "NameOwnerChanged",
                                                     BUS_DAEMON_PATH, NAME, G_DBUS_SIGNAL_FLAGS_NONE,
                                                     on_owner_changed, this, nullptr);
  return true;
}

void
EventLink::disconnect()
{
  if (call_ != nullptr) {
    g_cancellable_cancel(call_);
    g_clear_object(&call_);
  }
  if (connection_ != nullptr) {
    g_dbus_connection_signal_unsubscribe(connection_, subscription_);
    g_signal_handler_disconnect(connection_, closed_);
    g_clear_object(&connection_);
  }
}

void
EventLink::request_stream()
{
  cancel_retry();
  if (call_ != nullptr) {
    g_cancellable_cancel(call_);
    g_object_unref(call_);
  }
  call_ = g_cancellable_new();
  calls_++;
  g_dbus_connection_call_with_unix_fd_list(connection_, NAME, PATH, INTERFACE, "GetEventStream", nullptr,
                                           G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                           REPLY_TIMEOUT_MS, nullptr, call_, on_stream, this);
}

void
EventLink::on_stream(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<EventLink *>(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GUnixFDList) list = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(connection), &list, result, &error);
  self->calls_--;
  if (reply != nullptr) {
    self->take_stream(take_descriptor(reply, list));
    return;
  }
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  GST_INFO("No stream of events: %s", error->message);
  self->gone_();
  if (!g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) &&
      !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN)) {
    self->retry_later();
  }
}

/* @fd: (transfer full): the descriptor, or -1 */
void
EventLink::take_stream(int fd)
{
  if (fd < 0 || !MessageStream::is_usable(fd)) {
    GST_WARNING("The receiver's stream of events is not a pipe");
    if (fd >= 0) {
      close(fd);
    }
    gone_();
    retry_later();
    return;
  }
  began_();
  stream_ = std::make_unique<MessageStream>(
      fd, context_,
      [this](std::string_view text) {
        retry_ms_ = EVENT_LINK_FIRST_RETRY_MS;
        return deliver_(text);
      },
      [this](const char *reason) { end_stream(reason); });
}

/* Without a change of the owner, the receiver has ended this stream alone. */
void
EventLink::end_stream(const char *reason)
{
  GST_WARNING("The stream of events ends, because %s", reason);
  stream_.reset();
  gone_();
  retry_later();
}

void
EventLink::on_owner_changed(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                            GVariant *parameters, gpointer user_data)
{
  auto *self = static_cast<EventLink *>(user_data);
  const gchar *owner = nullptr;
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) {
    return;
  }
  g_variant_get(parameters, "(&s&s&s)", nullptr, nullptr, &owner);
  self->cancel_retry();
  self->stream_.reset();
  self->gone_();
  self->retry_ms_ = EVENT_LINK_FIRST_RETRY_MS;
  if (*owner != '\0') {
    self->request_stream();
  }
}

void
EventLink::on_closed(GDBusConnection *, gboolean, GError *, gpointer user_data)
{
  auto *self = static_cast<EventLink *>(user_data);
  self->stream_.reset();
  self->disconnect();
  self->gone_();
  self->retry_later();
}

void
EventLink::retry_later()
{
  cancel_retry();
  retry_ = g_timeout_source_new(retry_ms_);
  retry_ms_ = std::min(2 * retry_ms_, EVENT_LINK_LAST_RETRY_MS);
  g_source_set_callback(retry_, on_retry, this, nullptr);
  g_source_attach(retry_, context_);
}

gboolean
EventLink::on_retry(gpointer user_data)
{
  auto *self = static_cast<EventLink *>(user_data);
  self->cancel_retry();
  self->start();
  return G_SOURCE_REMOVE;
}

void
EventLink::cancel_retry()
{
  if (retry_ != nullptr) {
    g_source_destroy(retry_);
    g_clear_pointer(&retry_, g_source_unref);
  }
}

} // namespace plugins

/* SPDX-License-Identifier: MIT */
/* Refuses file descriptors that peers attach to messages. The kernel installs them in the daemon when a
 * message is read, and a message that waits for the main loop keeps them, so a few peers could use up the
 * daemon's descriptors. No call that the daemon serves and no signal that it subscribes to has descriptors.
 * Only the reply to one of the daemon's stream calls can have one.
 *
 * Such a reply is identified by the serial of the call. Its sender is not checked: the bus delivers replies
 * only from the peer that got the call, unless its policy allows unrequested replies, and then GDBus, which
 * uses the serial too, would accept the reply anyway. The first reply ends the call, so at most one message
 * passes for each call.
 *
 * Filters are used on GDBus' thread, which reads and writes the messages of all connections, so there is no
 * lock. GDBus releases a refused message, and closes its descriptors, on the same thread.
 */
#include "descriptorfilter.h"

#include "memory.h"
#include "ratelimitedlog.h"

#include <algorithm>
#include <gio/gunixfdlist.h>
#include <syslog.h>
#include <vector>

struct DescriptorFilter {
  std::vector<guint32> stream_calls; /* serials of the calls without a reply, the oldest first */
};

namespace
{

constexpr const char *STREAM_SERVICE_NAME = "com.quon.MetadataReceiver1";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr const char *STREAM_METHOD = "GetStreamFd";

constexpr const char *DATA_KEY = "tessard-descriptor-filter";

/* Shared by all connections. */
RateLimitedLog refused_descriptors_log = RATE_LIMITED_LOG_INIT(DESCRIPTOR_FILTER_LOG_INTERVAL_US);

constexpr const char *REFUSED_ERROR = "org.freedesktop.DBus.Error.NotSupported";

gboolean
is_stream_call(GDBusMessage *message)
{
  return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
         g_strcmp0(g_dbus_message_get_destination(message), STREAM_SERVICE_NAME) == 0 &&
         g_strcmp0(g_dbus_message_get_interface(message), PRODUCER_INTERFACE) == 0 &&
         g_strcmp0(g_dbus_message_get_member(message), STREAM_METHOD) == 0;
}

/* A peer can send a type that the enumeration does not have. */
gboolean
is_reply(GDBusMessage *message)
{
  const int type = g_dbus_message_get_message_type(message);

  return type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR;
}

/* Without free descriptor numbers GLib has no list; the header still has the count. */
gboolean
has_descriptors(GDBusMessage *message)
{
  GUnixFDList *fds = g_dbus_message_get_unix_fd_list(message);

  return g_dbus_message_get_num_unix_fds(message) > 0 ||
         (fds != nullptr && g_unix_fd_list_get_length(fds) > 0);
}

/* The bus ends the call of a peer that leaves, but a peer that stays may never reply. */
void
note_stream_call(DescriptorFilter *filter, guint32 serial)
{
  if (filter->stream_calls.size() == DESCRIPTOR_FILTER_MAX_CALLS) {
    filter->stream_calls.erase(filter->stream_calls.begin());
  }
  filter->stream_calls.push_back(serial);
}

/* Returns whether the call had no reply yet. */
gboolean
end_stream_call(DescriptorFilter *filter, guint32 serial)
{
  auto &calls = filter->stream_calls;
  const auto found = std::find(calls.begin(), calls.end(), serial);
  if (found == calls.end()) {
    return FALSE;
  }
  calls.erase(found);
  return TRUE;
}

/* Also ends the stream call that the message replies to. */
gboolean
may_pass(DescriptorFilter *filter, GDBusMessage *message)
{
  const gboolean ends_call =
      is_reply(message) && end_stream_call(filter, g_dbus_message_get_reply_serial(message));

  return !has_descriptors(message) ||
         (ends_call && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
}

/* The bus disconnects a peer that replies without a serial or to an impossible name. */
gboolean
expects_reply(GDBusMessage *message)
{
  const gchar *sender = g_dbus_message_get_sender(message);

  return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
         (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0 &&
         g_dbus_message_get_serial(message) != 0 && sender != nullptr && g_dbus_is_unique_name(sender);
}

GDBusMessage *
new_error(guint32 reply_serial, const gchar *text)
{
  GDBusMessage *error = g_dbus_message_new();

  g_dbus_message_set_message_type(error, G_DBUS_MESSAGE_TYPE_ERROR);
  g_dbus_message_set_flags(error, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_reply_serial(error, reply_serial);
  g_dbus_message_set_error_name(error, REFUSED_ERROR);
  g_dbus_message_set_body(error, g_variant_new("(s)", text));
  return error;
}

GDBusMessage *
new_refusal(GDBusMessage *call)
{
  GDBusMessage *reply = new_error(g_dbus_message_get_serial(call), "No call here takes file descriptors");

  g_dbus_message_set_destination(reply, g_dbus_message_get_sender(call));
  return reply;
}

/* Makes the failure that replaces a refused reply, so that the caller does not wait. */
GDBusMessage *
new_failed_reply(GDBusMessage *reply)
{
  GDBusMessage *failure = new_error(g_dbus_message_get_reply_serial(reply),
                                    "The reply has file descriptors that were not requested");

  g_dbus_message_set_serial(failure, g_dbus_message_get_serial(reply));
  g_dbus_message_set_header(failure, G_DBUS_MESSAGE_HEADER_FIELD_SENDER,
                            g_dbus_message_get_header(reply, G_DBUS_MESSAGE_HEADER_FIELD_SENDER));
  return failure;
}

void
send_reply(GDBusConnection *connection, GDBusMessage *reply)
{
  g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

GDBusMessage *
on_message(GDBusConnection *connection, GDBusMessage *message, gboolean incoming, gpointer user_data)
{
  auto *filter = static_cast<DescriptorFilter *>(user_data);
  g_autoptr(GDBusMessage) original = G_DBUS_MESSAGE(g_object_ref(message));
  g_autoptr(GDBusMessage) reply = nullptr;
  GDBusMessage *passed = descriptor_filter_pass(filter, message, incoming, &reply);

  if (reply != nullptr) {
    send_reply(connection, reply);
  }
  if (passed != original) {
    rate_limited_log(&refused_descriptors_log, LOG_WARNING,
                     "refused file descriptors from %s: the daemon did not request them",
                     g_dbus_message_get_sender(original));
  }
  memory_hand_over_kept_blocks();
  return passed;
}

} // namespace

/**
 * descriptor_filter_new:
 *
 * Makes a filter for the messages of a new connection.
 *
 * Returns: (transfer full): the filter, for descriptor_filter_free()
 */
DescriptorFilter *
descriptor_filter_new(void)
{
  return new DescriptorFilter;
}

/**
 * descriptor_filter_free:
 * @filter: (transfer full): a filter
 *
 * Frees a filter that no other thread uses.
 */
void
descriptor_filter_free(DescriptorFilter *filter)
{
  delete filter;
}

/**
 * descriptor_filter_pass:
 * @filter: (transfer none): the connection's filter
 * @message: (transfer full): the connection's next message, which may be locked
 * @incoming: whether it was received; otherwise it is about to be sent
 * @reply: (out) (transfer full) (nullable): the reply to the sender of @message
 *
 * Passes or refuses a message. Sent messages pass. Received messages pass too, unless they have descriptors
 * and are not the reply to a stream call that has passed. A refused reply is replaced by a failure of the
 * same call; other refused messages are dropped, and a call that expects a reply gets @reply.
 *
 * Returns: (transfer full) (nullable): the message that passes; %NULL when it is dropped
 */
GDBusMessage *
descriptor_filter_pass(DescriptorFilter *filter, GDBusMessage *message, gboolean incoming,
                       GDBusMessage **reply)
{
  *reply = nullptr;
  if (!incoming) {
    if (is_stream_call(message)) {
      note_stream_call(filter, g_dbus_message_get_serial(message));
    }
    return message;
  }
  if (may_pass(filter, message)) {
    return message;
  }
  g_autoptr(GDBusMessage) refused = message;
  if (expects_reply(refused)) {
    *reply = new_refusal(refused);
  }
  return is_reply(refused) ? new_failed_reply(refused) : nullptr;
}

/**
 * descriptor_filter_add:
 * @connection: (transfer none): a connection to a bus, without a filter
 *
 * Filters all messages of the connection while it exists.
 *
 * Warnings, on GDBus' thread, at most one each %DESCRIPTOR_FILTER_LOG_INTERVAL_US: "refused file descriptors
 * from %s: the daemon did not request them", with the count of the suppressed lines
 */
void
descriptor_filter_add(GDBusConnection *connection)
{
  DescriptorFilter *filter = descriptor_filter_new();

  /* The connection outlives all calls of the filter. GDBus would call a release function in this thread's
   * main context, which may have stopped when the connection ends. */
  g_object_set_data_full(G_OBJECT(connection), DATA_KEY, filter, [](gpointer data) {
    descriptor_filter_free(static_cast<DescriptorFilter *>(data));
  });
  g_dbus_connection_add_filter(connection, on_message, filter, nullptr);
}

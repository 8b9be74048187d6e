/* Keeps file descriptors out that others attach to messages. The kernel installs them in the daemon as soon
 * as a message is read, whoever sent it, and a message that waits for the main loop keeps them: a few peers
 * could take all that the daemon may have. No call that the daemon serves and no signal that it listens to
 * carries any, so only one kind of message may: the reply to a call for a stream of the metadata receiver.
 *
 * Such a reply is known by the serial of the call. Its sender needs no check: the bus passes a reply on only
 * from the peer that got the call, unless its policy allows replies that nobody asked for, and then GDBus,
 * which goes by the serial too, would take the reply anyway. The first reply ends the call, so what comes
 * through is never more than one message a call.
 *
 * Everything here but the life of a filter is for GDBus' own thread: it reads and writes all messages of all
 * connections, so there is no lock. A refused message's descriptors are closed there, when GDBus releases it
 * right behind the filter.
 */
#include "descriptorfilter.h"

#include "memory.h"
#include "ratelimitedlog.h"

#include <algorithm>
#include <gio/gunixfdlist.h>
#include <syslog.h>
#include <vector>

struct DescriptorFilter {
  std::vector<guint32> stream_calls; /* serials of those without a reply, the oldest first */
};

namespace
{

constexpr const char *STREAM_SERVICE_NAME = "com.quon.MetadataReceiver1";
constexpr const char *PRODUCER_INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr const char *STREAM_METHOD = "GetStreamFd";

constexpr const char *DATA_KEY = "tessard-descriptor-filter";

/* Of all connections. */
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

/* A peer may send a type that the enumeration cannot hold. */
gboolean
is_reply(GDBusMessage *message)
{
  const int type = g_dbus_message_get_message_type(message);

  return type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR;
}

/* GLib has no list when none could be installed for lack of free numbers; the header still announces them. */
gboolean
has_descriptors(GDBusMessage *message)
{
  GUnixFDList *fds = g_dbus_message_get_unix_fd_list(message);

  return g_dbus_message_get_num_unix_fds(message) > 0 ||
         (fds != nullptr && g_unix_fd_list_get_length(fds) > 0);
}

/* The bus tells when the peer of an open call leaves, but a peer that stays may never reply. */
void
note_stream_call(DescriptorFilter *filter, guint32 serial)
{
  if (filter->stream_calls.size() == DESCRIPTOR_FILTER_MAX_CALLS) {
    filter->stream_calls.erase(filter->stream_calls.begin());
  }
  filter->stream_calls.push_back(serial);
}

/* Whether it was open. */
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

/* Also notes that a call for a stream has its reply. */
gboolean
may_pass(DescriptorFilter *filter, GDBusMessage *message)
{
  const gboolean ends_call =
      is_reply(message) && end_stream_call(filter, g_dbus_message_get_reply_serial(message));

  return !has_descriptors(message) ||
         (ends_call && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
}

/* The bus ends the connection of who sends an answer without a serial or to no possible name. */
gboolean
wants_answer(GDBusMessage *message)
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
new_answer(GDBusMessage *call)
{
  GDBusMessage *answer = new_error(g_dbus_message_get_serial(call), "No call here takes file descriptors");

  g_dbus_message_set_destination(answer, g_dbus_message_get_sender(call));
  return answer;
}

/* What comes in place of a reply, so that nobody waits for one. */
GDBusMessage *
new_failed_reply(GDBusMessage *reply)
{
  GDBusMessage *failure = new_error(g_dbus_message_get_reply_serial(reply),
                                    "The reply has file descriptors that nobody asked for");

  g_dbus_message_set_serial(failure, g_dbus_message_get_serial(reply));
  g_dbus_message_set_header(failure, G_DBUS_MESSAGE_HEADER_FIELD_SENDER,
                            g_dbus_message_get_header(reply, G_DBUS_MESSAGE_HEADER_FIELD_SENDER));
  return failure;
}

void
send_answer(GDBusConnection *connection, GDBusMessage *answer)
{
  g_dbus_connection_send_message(connection, answer, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

} // namespace

static GDBusMessage *
on_message(GDBusConnection *connection, GDBusMessage *message, gboolean incoming, gpointer user_data)
{
  auto *filter = static_cast<DescriptorFilter *>(user_data);
  g_autoptr(GDBusMessage) original = G_DBUS_MESSAGE(g_object_ref(message));
  g_autoptr(GDBusMessage) answer = nullptr;
  GDBusMessage *passed = descriptor_filter_pass(filter, message, incoming, &answer);

  if (answer != nullptr) {
    send_answer(connection, answer);
  }
  if (passed != original) {
    rate_limited_log(&refused_descriptors_log, LOG_WARNING,
                     "refused file descriptors from %s: nobody asked for them",
                     g_dbus_message_get_sender(original));
  }
  memory_hand_over_kept_blocks();
  return passed;
}

/**
 * descriptor_filter_new:
 *
 * A filter for the messages of one connection, of which it has seen none. Any thread.
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
 * Any thread, when no other uses the filter.
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
 * @answer: (out) (transfer full) (nullable): what to send to the sender of @message
 *
 * Decides what becomes of a message. What is sent passes as it is. So does what is received, unless it has
 * descriptors and is not the reply to a call for a stream that passed before: then a reply becomes a failure
 * of the same call, and everything else is dropped, a call that wants a reply with @answer. One thread at a
 * time.
 *
 * Returns: (transfer full) (nullable): the message to go on with; %NULL when there is none
 */
GDBusMessage *
descriptor_filter_pass(DescriptorFilter *filter, GDBusMessage *message, gboolean incoming,
                       GDBusMessage **answer)
{
  *answer = nullptr;
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
  if (wants_answer(refused)) {
    *answer = new_answer(refused);
  }
  return is_reply(refused) ? new_failed_reply(refused) : nullptr;
}

/**
 * descriptor_filter_add:
 * @connection: (transfer none): a connection to a bus that has no such filter yet
 *
 * Puts every message of the connection through a filter, as long as the connection lives. Any thread.
 *
 * Warnings, on GDBus' thread, at most one each %DESCRIPTOR_FILTER_LOG_INTERVAL_US: "refused file descriptors
 * from %s: nobody asked for them", with the count of those that were left out
 */
void
descriptor_filter_add(GDBusConnection *connection)
{
  DescriptorFilter *filter = descriptor_filter_new();

  /* The connection outlives every call of the filter. A filter's own release function would need somebody who
   * runs this thread's main context behind the end of the connection. */
  g_object_set_data_full(G_OBJECT(connection), DATA_KEY, filter, [](gpointer data) {
    descriptor_filter_free(static_cast<DescriptorFilter *>(data));
  });
  g_dbus_connection_add_filter(connection, on_message, filter, nullptr);
}

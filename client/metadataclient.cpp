/* SPDX-License-Identifier: MIT */
/* One connection to the daemon: connects, sends the request, reads the reply, then the documents.
 *
 * The daemon is not trusted: everything that it sends has a maximum length, and every wait ends when the
 * call's cancellable is cancelled, up to the reply also at a deadline. The socket is non-blocking, and each
 * wait is a poll of socket and cancellable.
 *
 * The stream follows the NUL of the reply without a gap, often in the same packet. The bytes behind it stay
 * in the block, from which metadata_client_read() continues.
 */
#include "metadataclient.h"

#include "clienterror.h"
#include "gdpreader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gio/gunixsocketaddress.h>
#include <glib/gstdio.h>
#include <grp.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace
{

constexpr gsize MAX_SOCKET_PATH_LENGTH = sizeof(sockaddr_un::sun_path) - 1;

constexpr gsize BLOCK_BYTES = 64 * 1024;

constexpr gchar REFUSAL[] = "FAIL\n";

constexpr gchar SYNC_LINE[] = "SYNC\n";

/* Enough for a group with many members; a longer entry is shown by its number. */
constexpr gsize GROUP_ENTRY_BYTES = 16 * 1024;

} // namespace

struct MetadataClient {
  MetadataClient() = default;
  MetadataClient(const MetadataClient &) = delete;
  MetadataClient &operator=(const MetadataClient &) = delete;
  ~MetadataClient()
  {
    g_clear_object(&socket);
    gdp_reader_free(reader);
  }

  GSocket *socket = nullptr;
  GdpReader *reader = gdp_reader_new();

  std::array<guint8, BLOCK_BYTES> block; /* the bytes from begin to end are unread */
  gsize begin = 0;
  gsize end = 0;
};

namespace
{

/* When a wait ends, and who ends it earlier. */
struct Limits {
  gint64 timeout_us;  /* as the caller gave it; 0 for no deadline */
  gint64 deadline_us; /* monotonic */
  GCancellable *cancellable;
};

Limits
start_limits(gint64 timeout_us, GCancellable *cancellable)
{
  return {timeout_us, g_get_monotonic_time() + timeout_us, cancellable};
}

/* Returns: the time left in microseconds; -1 without a deadline */
gint64
get_time_left(const Limits &limits)
{
  return limits.timeout_us > 0 ? std::max<gint64>(limits.deadline_us - g_get_monotonic_time(), 0) : -1;
}

void
set_timed_out(GError **error, const Limits &limits)
{
  g_set_error(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_TIMED_OUT, "No reply within %g seconds.",
              static_cast<gdouble>(limits.timeout_us) / G_TIME_SPAN_SECOND);
}

gboolean
wait_for_socket(GSocket *socket, int condition, const Limits &limits, GError **error)
{
  g_autoptr(GError) cause = nullptr;

  if (g_socket_condition_timed_wait(socket, static_cast<GIOCondition>(condition), get_time_left(limits),
                                    limits.cancellable, &cause)) {
    return TRUE;
  }
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    set_timed_out(error, limits);
  } else {
    g_propagate_error(error, g_steal_pointer(&cause));
  }
  return FALSE;
}

void
set_no_connection(GError **error, const gchar *socket_path, const gchar *cause)
{
  g_set_error(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_NO_CONNECTION,
              "Could not connect to '%s': %s.", socket_path, cause);
}

gchar *
get_group_name(gid_t id)
{
  std::array<char, GROUP_ENTRY_BYTES> entry = {};
  struct group group = {};
  struct group *found = nullptr;

  getgrgid_r(id, &group, entry.data(), entry.size(), &found);
  return found != nullptr ? g_strdup(found->gr_name) : g_strdup_printf("%u", id);
}

/* The mode of the socket decides who can connect. NULL when it is not the mode that refuses this user. */
gchar *
describe_socket_group(const gchar *socket_path)
{
  constexpr mode_t WRITABLE = S_IWGRP | S_IWOTH;
  GStatBuf status = {};

  if (g_stat(socket_path, &status) != 0 || (status.st_mode & WRITABLE) != S_IWGRP) {
    return nullptr;
  }
  g_autofree gchar *group = get_group_name(status.st_gid);
  return g_strdup_printf("only root and members of the group '%s' can", group);
}

void
set_connect_failure(GError **error, const gchar *socket_path, const GError *cause)
{
  g_autofree gchar *reason = g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED)
                                 ? describe_socket_group(socket_path)
                                 : nullptr;
  g_autofree gchar *text =
      reason != nullptr ? g_strdup_printf("%s; %s", cause->message, reason) : g_strdup(cause->message);

  set_no_connection(error, socket_path, text);
}

/* poll() does not report room in the backlog of a UNIX socket, so a connect is repeated.
 *
 * Returns: %FALSE at the deadline, and when the call is cancelled
 */
gboolean
wait_before_retry(const Limits &limits, GError **error)
{
  const gint64 time_left = get_time_left(limits);
  const auto interval =
      static_cast<gint>(time_left < 0 ? METADATA_CLIENT_CONNECT_RETRY_MS
                                      : std::min<gint64>(METADATA_CLIENT_CONNECT_RETRY_MS,
                                                         time_left / G_TIME_SPAN_MILLISECOND + 1));
  GPollFD cancelled = {};

  if (time_left == 0) {
    set_timed_out(error, limits);
    return FALSE;
  }
  if (g_cancellable_make_pollfd(limits.cancellable, &cancelled)) {
    g_poll(&cancelled, 1, interval);
    g_cancellable_release_fd(limits.cancellable);
  } else {
    g_usleep(static_cast<gulong>(interval) * G_TIME_SPAN_MILLISECOND);
  }
  return !g_cancellable_set_error_if_cancelled(limits.cancellable, error);
}

gboolean
connect_socket(GSocket *socket, const gchar *socket_path, const Limits &limits, GError **error)
{
  g_autoptr(GSocketAddress) address = g_unix_socket_address_new(socket_path);
  g_autoptr(GError) cause = nullptr;

  while (!g_socket_connect(socket, address, limits.cancellable, &cause)) {
    if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      g_propagate_error(error, g_steal_pointer(&cause));
      return FALSE;
    }
    if (!g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      set_connect_failure(error, socket_path, cause);
      return FALSE;
    }
    g_clear_error(&cause);
    if (!wait_before_retry(limits, error)) {
      return FALSE;
    }
  }
  return TRUE;
}

/* GLib truncates a path that is too long and would connect to another socket. */
GSocket *
connect_to(const gchar *socket_path, const Limits &limits, GError **error)
{
  if (strlen(socket_path) > MAX_SOCKET_PATH_LENGTH) {
    set_no_connection(error, socket_path, g_strerror(ENAMETOOLONG));
    return nullptr;
  }

  g_autoptr(GError) cause = nullptr;
  g_autoptr(GSocket) socket =
      g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, &cause);
  if (socket == nullptr) {
    set_no_connection(error, socket_path, cause->message);
    return nullptr;
  }
  g_socket_set_blocking(socket, FALSE);
  if (!connect_socket(socket, socket_path, limits, error)) {
    return nullptr;
  }
  return g_steal_pointer(&socket);
}

/* The daemon can refuse a request, and hang up, before all of it is sent. The reply then has the reason, so
 * sending ends without an error as soon as there is something to read, or the daemon has hung up.
 */
gboolean
send_request(GSocket *socket, const gchar *request, const Limits &limits, GError **error)
{
  const gsize size = strlen(request);

  for (gsize sent = 0; sent < size;) {
    if (!wait_for_socket(socket, G_IO_OUT | G_IO_IN, limits, error)) {
      return FALSE;
    }
    if ((g_socket_condition_check(socket, G_IO_IN) & G_IO_IN) != 0) {
      return TRUE;
    }
    g_autoptr(GError) cause = nullptr;
    const gssize result =
        g_socket_send_with_blocking(socket, request + sent, size - sent, FALSE, nullptr, &cause);
    if (result < 0 && !g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      return TRUE;
    }
    sent += std::max<gssize>(result, 0);
  }
  return TRUE;
}

/* Waits for bytes and reads them into the empty block. An error of the connection means that the daemon has
 * ended it: for example it closed the connection before it read a sync request.
 *
 * @ended is the message of an ended connection.
 */
gboolean
fill_block(MetadataClient *self, const Limits &limits, const gchar *ended, GError **error)
{
  gssize result = -1;

  while (result < 0) {
    g_autoptr(GError) cause = nullptr;
    if (!wait_for_socket(self->socket, G_IO_IN, limits, error)) {
      return FALSE;
    }
    result = g_socket_receive_with_blocking(self->socket, reinterpret_cast<gchar *>(self->block.data()),
                                            self->block.size(), FALSE, nullptr, &cause);
    if (result == 0 || (result < 0 && !g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))) {
      g_set_error_literal(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_ENDED, ended);
      return FALSE;
    }
  }
  self->begin = 0;
  self->end = result;
  return TRUE;
}

/* Moves bytes from the block to the reply, up to the NUL and including it.
 *
 * Returns: whether the reply is complete
 */
gboolean
take_reply_bytes(MetadataClient *self, GString *reply)
{
  const auto *unread = reinterpret_cast<const gchar *>(self->block.data()) + self->begin;
  const gsize size = self->end - self->begin;
  const auto *nul = static_cast<const gchar *>(memchr(unread, '\0', size));
  const gsize length = nul != nullptr ? nul - unread : size;

  g_string_append_len(reply, unread, static_cast<gssize>(length));
  self->begin += length + (nul != nullptr ? 1 : 0);
  return nul != nullptr;
}

/* Reads up to the NUL that ends the reply. */
GString *
read_reply(MetadataClient *self, const Limits &limits, GError **error)
{
  g_autoptr(GString) reply = g_string_new(nullptr);

  for (gboolean complete = FALSE; !complete;) {
    if (!fill_block(self, limits, "The daemon closed the connection before its reply was complete.", error)) {
      return nullptr;
    }
    complete = take_reply_bytes(self, reply);
    if (reply->len > METADATA_CLIENT_MAX_REPLY_BYTES) {
      g_set_error(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_MALFORMED,
                  "The daemon's reply is longer than %d bytes.", METADATA_CLIENT_MAX_REPLY_BYTES);
      return nullptr;
    }
  }
  return g_steal_pointer(&reply);
}

gboolean
check_reply(const gchar *reply, GError **error)
{
  if (g_str_equal(reply, "OK")) {
    return TRUE;
  }
  if (g_str_has_prefix(reply, REFUSAL)) {
    g_set_error_literal(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_REFUSED, reply + strlen(REFUSAL));
    return FALSE;
  }
  g_set_error_literal(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_MALFORMED,
                      "The daemon's reply is neither \"OK\" nor \"FAIL\".");
  return FALSE;
}

} // namespace

/**
 * metadata_client_get_default_socket:
 *
 * An empty variable counts as unset. Any thread, as long as none changes the environment.
 *
 * Returns: (transfer none): the value of %METADATA_CLIENT_SOCKET_VARIABLE, or %METADATA_CLIENT_DEFAULT_SOCKET
 */
const gchar *
metadata_client_get_default_socket(void)
{
  const gchar *path = g_getenv(METADATA_CLIENT_SOCKET_VARIABLE);

  return path != nullptr && *path != '\0' ? path : METADATA_CLIENT_DEFAULT_SOCKET;
}

/**
 * metadata_client_open:
 * @socket_path: (transfer none): the daemon's socket
 * @request: (transfer none): the whole text of the request
 * @timeout_us: the time until the reply is complete, in microseconds; 0 for no limit
 * @cancellable: (transfer none) (nullable): ends every wait
 * @error: return location for an error of %METADATA_CLIENT_ERROR, or %G_IO_ERROR_CANCELLED
 *
 * Connects, sends the request and reads the daemon's reply. Blocks until then. Any thread.
 *
 * Returns: (transfer full) (nullable): the connection, whose stream follows; %NULL without a connection or a
 * valid reply, and on a refusal, whose reason is the error's message
 */
MetadataClient *
metadata_client_open(const gchar *socket_path, const gchar *request, gint64 timeout_us,
                     GCancellable *cancellable, GError **error)
{
  const Limits limits = start_limits(timeout_us, cancellable);
  auto self = std::make_unique<MetadataClient>();

  self->socket = connect_to(socket_path, limits, error);
  if (self->socket == nullptr || !send_request(self->socket, request, limits, error)) {
    return nullptr;
  }
  g_autoptr(GString) reply = read_reply(self.get(), limits, error);
  if (reply == nullptr || !check_reply(reply->str, error)) {
    return nullptr;
  }
  return self.release();
}

/**
 * metadata_client_free:
 * @self: (transfer full): a connection
 *
 * Closes the connection. Never blocks.
 */
void
metadata_client_free(MetadataClient *self)
{
  delete self;
}

/**
 * metadata_client_read:
 * @self: (transfer none): a connection
 * @cancellable: (transfer none) (nullable): ends the wait
 * @error: return location for an error of %METADATA_CLIENT_ERROR, or %G_IO_ERROR_CANCELLED
 *
 * Waits for the next document. A cancelled call loses no byte, and the next one continues; after any other
 * error the stream is over.
 *
 * Returns: (transfer full) (nullable): the document, which is not empty; %NULL with @error set
 */
GBytes *
metadata_client_read(MetadataClient *self, GCancellable *cancellable, GError **error)
{
  const Limits limits = start_limits(0, cancellable);
  GBytes *document = nullptr;

  while (document == nullptr) {
    gsize taken = 0;
    if (self->begin == self->end && !fill_block(self, limits, "The daemon ended the stream.", error)) {
      return nullptr;
    }
    if (!gdp_reader_take(self->reader, self->block.data() + self->begin, self->end - self->begin, &taken,
                         &document, error)) {
      return nullptr;
    }
    self->begin += taken;
  }
  return document;
}

/**
 * metadata_client_get_caps:
 * @self: (transfer none): a connection
 *
 * Returns: (transfer none) (nullable): the caps of the document that metadata_client_read() returned last, as
 * gdp_reader_get_caps() returns them
 */
const gchar *
metadata_client_get_caps(const MetadataClient *self)
{
  return gdp_reader_get_caps(self->reader);
}

/**
 * metadata_client_request_sync_point:
 * @self: (transfer none): a connection
 *
 * Asks for the complete current state. Never blocks: if the socket is full of unread requests, these have the
 * same effect. The kernel takes such a short line whole or not at all.
 *
 * Returns: whether the request was sent; %FALSE also if the connection has ended, which
 * metadata_client_read() reports
 */
gboolean
metadata_client_request_sync_point(MetadataClient *self)
{
  const gsize size = strlen(SYNC_LINE);

  return send(g_socket_get_fd(self->socket), SYNC_LINE, size, MSG_DONTWAIT | MSG_NOSIGNAL) ==
         static_cast<ssize_t>(size);
}

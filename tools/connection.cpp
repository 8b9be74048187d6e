/* SPDX-License-Identifier: MIT */
/* Connects to the daemon's socket, sends the request and reads the reply.
 *
 * The reply ends with a NUL and the stream follows without a gap, often in the same packet. Each read
 * therefore peeks first and consumes no byte behind the NUL: the next byte in the socket is the first one of
 * the stream.
 *
 * All functions block until their GCancellable is cancelled.
 */
#include "connection.h"
#include "command.h"

#include <array>
#include <cstring>
#include <gio/gunixsocketaddress.h>
#include <glib/gstdio.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace
{

constexpr gsize MAX_SOCKET_PATH_LENGTH = sizeof(sockaddr_un::sun_path) - 1;

/* A refusal can quote a whole line of the request. */
constexpr gsize MAX_REPLY_BYTES = 64 * 1024 + 512;

constexpr gsize REPLY_CHUNK_BYTES = 1024;

/* poll() does not report room in the backlog of a UNIX socket, so a connect is repeated. */
constexpr gint CONNECT_RETRY_MS = 20;

constexpr gchar REFUSAL[] = "FAIL\n";

/* Enough for a group with many members; a longer entry is shown by its number. */
constexpr gsize GROUP_ENTRY_BYTES = 16 * 1024;

void
set_no_connection(GError **error, const gchar *socket_path, const gchar *cause)
{
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_NO_CONNECTION, "Could not connect to '%s': %s.",
              socket_path, cause);
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

void
wait_before_retry(GCancellable *cancellable)
{
  GPollFD cancelled = {};

  if (g_cancellable_make_pollfd(cancellable, &cancelled)) {
    g_poll(&cancelled, 1, CONNECT_RETRY_MS);
    g_cancellable_release_fd(cancellable);
  }
}

gboolean
connect_socket(GSocket *socket, const gchar *socket_path, GCancellable *cancellable, GError **error)
{
  g_autoptr(GSocketAddress) address = g_unix_socket_address_new(socket_path);
  g_autoptr(GError) cause = nullptr;

  while (!g_socket_connect(socket, address, cancellable, &cause)) {
    if (!g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) ||
        g_cancellable_is_cancelled(cancellable)) {
      set_connect_failure(error, socket_path, cause);
      return FALSE;
    }
    g_clear_error(&cause);
    wait_before_retry(cancellable);
  }
  return TRUE;
}

/* GLib truncates a path that is too long and would connect to another socket. */
GSocket *
connect_to(const gchar *socket_path, GCancellable *cancellable, GError **error)
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
  if (!connect_socket(socket, socket_path, cancellable, error)) {
    return nullptr;
  }
  return g_steal_pointer(&socket);
}

/* The daemon can refuse a request and hang up before all of it is sent. The reply then has the reason, so a
 * failure to send is not reported here. */
void
send_request(GSocket *socket, const gchar *request, GCancellable *cancellable)
{
  const gsize size = strlen(request);

  for (gsize sent = 0; sent < size;) {
    const gssize result = g_socket_send(socket, request + sent, size - sent, cancellable, nullptr);
    if (result < 0) {
      return;
    }
    sent += result;
  }
}

gssize
receive(GSocket *socket, gchar *buffer, gsize size, gint flags, GCancellable *cancellable)
{
  GInputVector vector = {buffer, size};

  return g_socket_receive_message(socket, nullptr, &vector, 1, nullptr, nullptr, &flags, cancellable,
                                  nullptr);
}

/* Moves the bytes that have arrived, up to the first NUL and including it, from the socket to @reply. */
gboolean
receive_reply_chunk(GSocket *socket, GString *reply, GCancellable *cancellable)
{
  std::array<gchar, REPLY_CHUNK_BYTES> chunk = {};

  const gssize arrived = receive(socket, chunk.data(), chunk.size(), G_SOCKET_MSG_PEEK, cancellable);
  if (arrived <= 0) {
    return FALSE;
  }
  const auto *nul = static_cast<const gchar *>(memchr(chunk.data(), '\0', arrived));
  const gssize wanted = nul == nullptr ? arrived : nul - chunk.data() + 1;

  const gssize taken = receive(socket, chunk.data(), wanted, G_SOCKET_MSG_NONE, cancellable);
  if (taken <= 0) {
    return FALSE;
  }
  g_string_append_len(reply, chunk.data(), taken);
  return TRUE;
}

/* Reads up to the NUL that ends the reply. */
GString *
receive_reply(GSocket *socket, GCancellable *cancellable, GError **error)
{
  g_autoptr(GString) reply = g_string_new(nullptr);

  do {
    if (reply->len > MAX_REPLY_BYTES) {
      g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                  "The daemon's reply is longer than %" G_GSIZE_FORMAT " bytes.", MAX_REPLY_BYTES);
      return nullptr;
    }
    if (!receive_reply_chunk(socket, reply, cancellable)) {
      g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_ENDED,
                          "The daemon closed the connection before its reply was complete.");
      return nullptr;
    }
  } while (reply->str[reply->len - 1] != '\0');
  return g_steal_pointer(&reply);
}

gboolean
check_reply(const gchar *reply, GError **error)
{
  if (g_str_equal(reply, "OK")) {
    return TRUE;
  }
  if (g_str_has_prefix(reply, REFUSAL)) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, reply + strlen(REFUSAL));
    return FALSE;
  }
  g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                      "The daemon's reply is neither \"OK\" nor \"FAIL\".");
  return FALSE;
}

} // namespace

/**
 * connection_open:
 * @socket_path: (transfer none): the daemon's socket
 * @request: (transfer none): the whole text of the request
 * @cancellable: (transfer none): cancels every wait
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Connects, sends the request and reads the daemon's reply, but no byte behind it. Blocks until cancelled;
 * the error then has any code.
 *
 * Returns: (transfer full) (nullable): the connected socket, from which the stream's first byte is read next;
 * %NULL without a connection or a valid reply, and on a refusal, whose reason is the error's message
 */
GSocket *
connection_open(const gchar *socket_path, const gchar *request, GCancellable *cancellable, GError **error)
{
  g_autoptr(GSocket) socket = connect_to(socket_path, cancellable, error);
  if (socket == nullptr) {
    return nullptr;
  }

  send_request(socket, request, cancellable);
  g_autoptr(GString) reply = receive_reply(socket, cancellable, error);
  if (reply == nullptr || !check_reply(reply->str, error)) {
    return nullptr;
  }
  return g_steal_pointer(&socket);
}

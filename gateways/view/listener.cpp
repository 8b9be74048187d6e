/* SPDX-License-Identifier: MIT */
#include "listener.h"

#include "viewlimits.h"

#include <cstring>
#include <gio/gunixsocketaddress.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace view
{

namespace
{

constexpr const char *LOOPBACK = "127.0.0.1";

/* The owner and the group can connect, as a proxy needs it. */
constexpr mode_t SOCKET_MODE = 0660;

/* How long no connection is accepted when the process has no descriptor left. */
constexpr guint ACCEPT_PAUSE_MS = 100;

bool
is_socket(const char *path)
{
  struct stat status = {};
  return lstat(path, &status) == 0 && S_ISSOCK(status.st_mode);
}

/* Returns: whether a process accepts connections at the path */
bool
is_in_use(GSocketAddress *address)
{
  g_autoptr(GSocket) probe =
      g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, nullptr);
  g_autoptr(GError) error = nullptr;
  if (probe == nullptr) {
    return true;
  }
  g_socket_set_blocking(probe, FALSE);
  return g_socket_connect(probe, address, nullptr, &error) ||
         !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
}

} // namespace

/**
 * Listener:
 * @on_accepted: gets each connection, which it can refuse by not keeping it
 */
Listener::Listener(AcceptFunction on_accepted) : on_accepted_(std::move(on_accepted))
{
}

Listener::~Listener()
{
  g_clear_handle_id(&watch_, g_source_remove);
  g_clear_handle_id(&retry_, g_source_remove);
  g_clear_object(&socket_);
  if (!path_.empty()) {
    unlink(path_.c_str());
  }
}

/**
 * Listener::listen_at_port:
 * @port: a port of 127.0.0.1; 0 for any that is free
 * @error: return location for an error of %G_IO_ERROR
 *
 * Returns: whether connections are accepted
 */
bool
Listener::listen_at_port(guint port, GError **error)
{
  g_autoptr(GSocketAddress) address = g_inet_socket_address_new_from_string(LOOPBACK, port);
  return listen(G_SOCKET_FAMILY_IPV4, address, error);
}

/**
 * Listener::listen_at_path:
 * @path: the path of a UNIX socket, which is removed in the end; one that is left over is replaced
 * @error: return location for an error of %G_IO_ERROR
 *
 * Returns: whether connections are accepted
 */
bool
Listener::listen_at_path(const char *path, GError **error)
{
  if (strlen(path) >= sizeof sockaddr_un::sun_path) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "The path '%s' is too long.", path);
    return false;
  }
  g_autoptr(GSocketAddress) address = g_unix_socket_address_new(path);
  if (is_socket(path) && !is_in_use(address)) {
    unlink(path);
  }
  const mode_t mask = umask(static_cast<mode_t>(~SOCKET_MODE & 0777));
  const bool is_listening = listen(G_SOCKET_FAMILY_UNIX, address, error);
  umask(mask);
  if (is_listening) {
    path_ = path;
  }
  return is_listening;
}

/**
 * Listener::port:
 *
 * Returns: the port, 0 for a UNIX socket
 */
guint
Listener::port() const
{
  g_autoptr(GSocketAddress) address = g_socket_get_local_address(socket_, nullptr);
  return G_IS_INET_SOCKET_ADDRESS(address) ? g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(address))
                                           : 0;
}

bool
Listener::listen(GSocketFamily family, GSocketAddress *address, GError **error)
{
  g_autoptr(GSocket) socket = g_socket_new(family, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, error);
  if (socket == nullptr) {
    return false;
  }
  g_socket_set_blocking(socket, FALSE);
  g_socket_set_listen_backlog(socket, VIEW_CONNECTIONS_MAX);
  if (!g_socket_bind(socket, address, TRUE, error) || !g_socket_listen(socket, error)) {
    return false;
  }
  socket_ = g_steal_pointer(&socket);
  watch();
  return true;
}

void
Listener::watch()
{
  g_autoptr(GSource) source = g_socket_create_source(socket_, G_IO_IN, nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(on_incoming), this, nullptr);
  watch_ = g_source_attach(source, nullptr);
}

/* Returns: %FALSE if no connection can be accepted for now */
bool
Listener::accept()
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSocket) socket = g_socket_accept(socket_, nullptr, &error);
  if (socket == nullptr) {
    return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != FALSE;
  }
  g_autoptr(GSocketConnection) connection = g_socket_connection_factory_create_connection(socket);
  on_accepted_(connection);
  return true;
}

gboolean
Listener::on_incoming(GSocket *socket, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<Listener *>(user_data);
  if (self->accept()) {
    return G_SOURCE_CONTINUE;
  }
  self->watch_ = 0;
  self->retry_ = g_timeout_add(ACCEPT_PAUSE_MS, on_retry, self);
  return G_SOURCE_REMOVE;
}

gboolean
Listener::on_retry(gpointer user_data)
{
  auto *self = static_cast<Listener *>(user_data);
  self->retry_ = 0;
  self->watch();
  return G_SOURCE_REMOVE;
}

} // namespace view

/* SPDX-License-Identifier: MIT */
/* Opens the socket on which the server listens. A socket that systemd has passed for the path (socket
 * activation) is used unchanged. Otherwise a new socket is bound, with a mode that lets owner and group
 * connect.
 */
#include "listeningsocket.h"

#include <cerrno>
#include <glib/gstdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace
{

constexpr mode_t SOCKET_MODE = 0660;

gboolean
is_activated_socket(gint fd, const gchar *path)
{
  return sd_is_socket_unix(fd, SOCK_STREAM, 1, path, 0) > 0;
}

/* Closes the first socket once for each matching one; docs/compatibility.md, "several activated sockets". */
void
refuse_activated_sockets(gint first_fd, gint end_fd, const gchar *path)
{
  syslog(LOG_ERR, "More than one file descriptor received for '%s': %s", path, g_strerror(errno));
  for (gint fd = SD_LISTEN_FDS_START; fd < end_fd; fd++) {
    if (is_activated_socket(fd, path)) {
      listening_socket_close(first_fd);
    }
  }
}

/* Sets @found to the socket that systemd passed for the path, or to -1. FALSE when there is more than one. */
gboolean
find_activated_socket(const gchar *path, gint *found)
{
  const gint end_fd = SD_LISTEN_FDS_START + sd_listen_fds(0);

  *found = -1;
  for (gint fd = SD_LISTEN_FDS_START; fd < end_fd; fd++) {
    if (!is_activated_socket(fd, path)) {
      continue;
    }
    if (*found >= 0) {
      refuse_activated_sockets(*found, end_fd, path);
      return FALSE;
    }
    *found = fd;
  }
  return TRUE;
}

gboolean
bind_to_path(gint fd, const gchar *path)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  /* docs/compatibility.md, "socket path length". A longer path is cut here, and setting the mode of the whole
   * path then fails the start. */
  g_strlcpy(address.sun_path, path, sizeof address.sun_path - 1);

  return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

gboolean
listen_at_path(gint fd, const gchar *path)
{
  if (!bind_to_path(fd, path)) {
    syslog(LOG_ERR, "Failed to bind metadata server socket: %s", g_strerror(errno));
    return FALSE;
  }
  if (listen(fd, LISTENING_SOCKET_BACKLOG) < 0) {
    syslog(LOG_ERR, "Failed to listen on metadata server socket: %s", g_strerror(errno));
    return FALSE;
  }
  if (chmod(path, SOCKET_MODE) < 0) {
    syslog(LOG_ERR, "Could not set permissions on metadata server socket: %s", g_strerror(errno));
    return FALSE;
  }
  return TRUE;
}

/* Returns a new socket that listens, or -1. */
gint
create_listening_socket(const gchar *path)
{
  if (g_unlink(path) < 0 && errno != ENOENT) {
    syslog(LOG_ERR, "Could not unlink '%s': %s", path, g_strerror(errno));
    return -1;
  }

  const gint fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    syslog(LOG_ERR, "Failed to create metadata server socket: %s", g_strerror(errno));
    return -1;
  }
  if (!listen_at_path(fd, path)) {
    listening_socket_close(fd);
    return -1;
  }
  return fd;
}

} // namespace

/**
 * listening_socket_open:
 * @path: (transfer none): the path to which the clients connect
 *
 * Takes the listening socket that systemd passed for @path. Without one, replaces the file at @path by a new
 * socket with mode 0660. Leaves LISTEN_FDS and LISTEN_PID in the environment. Main thread.
 *
 * Errors in the log: "More than one file descriptor received for '%s': %s"; "Could not unlink '%s': %s";
 * "Failed to create metadata server socket: %s", the same with "bind" and "listen on" for "create"; "Could
 * not set permissions on metadata server socket: %s"; those of listening_socket_close()
 *
 * Returns: (transfer full): a descriptor, for listening_socket_close() or close(); -1 after a failure
 */
gint
listening_socket_open(const gchar *path)
{
  gint fd = -1;

  if (!find_activated_socket(path, &fd)) {
    return -1;
  }
  return fd >= 0 ? fd : create_listening_socket(path);
}

/**
 * listening_socket_close:
 * @fd: (transfer full): a descriptor from listening_socket_open()
 *
 * Closes the socket and leaves its file. Any thread.
 *
 * Errors in the log: "Could not close metadata server socket: %s"
 */
void
listening_socket_close(gint fd)
{
  if (close(fd) < 0) {
    syslog(LOG_ERR, "Could not close metadata server socket: %s", g_strerror(errno));
  }
}

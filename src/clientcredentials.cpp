/* SPDX-License-Identifier: MIT */
/* Tells who a client is. The kernel has recorded process and user when the client connected, so both stay the
 * same for the connection, even if the process ends and its id is used again.
 *
 * Log monitors match the texts of the other lines, which therefore do not name the client. It gets a line of
 * its own, at debug priority, with the reason.
 */
#include "clientcredentials.h"

#include "logtext.h"
#include "ratelimitedlog.h"

#include <sys/socket.h>
#include <syslog.h>

namespace
{

/* Every client can cause this line. */
RateLimitedLog credentials_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);

/* FALSE if @fd is not a connected UNIX socket. */
gboolean
read_credentials(gint fd, ucred *credentials)
{
  socklen_t size = sizeof *credentials;

  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, credentials, &size) == 0;
}

} // namespace

/**
 * client_credentials_get_user:
 * @fd: a client's connection
 *
 * Returns: the user of the client's process; 0 if @fd is not a connected UNIX socket
 */
uid_t
client_credentials_get_user(gint fd)
{
  ucred credentials = {};

  read_credentials(fd, &credentials);
  return credentials.uid;
}

/**
 * client_credentials_log:
 * @fd: a client's connection
 * @format: a format of printf(), of what has happened to the client; texts of peers can be any bytes
 * @...: its arguments
 *
 * Logs at debug priority which client it happened to: "process %d of user %u: %s". The text is cut like
 * log_text_clip() does, and at most %RATE_LIMITED_LOG_BURST lines are written in
 * %RATE_LIMITED_LOG_INTERVAL_US. Logs nothing if @fd is not a connected UNIX socket.
 */
void
client_credentials_log(gint fd, const gchar *format, ...)
{
  ucred credentials = {};
  va_list arguments;

  if (!read_credentials(fd, &credentials)) {
    return;
  }
  va_start(arguments, format);
  g_autofree gchar *text = g_strdup_vprintf(format, arguments);
  va_end(arguments);

  g_autofree gchar *clipped = log_text_clip(text);
  rate_limited_log(&credentials_log, LOG_DEBUG, "process %d of user %u: %s",
                   static_cast<int>(credentials.pid), static_cast<guint>(credentials.uid), clipped);
}

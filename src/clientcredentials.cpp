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

} // namespace

/**
 * client_credentials_get:
 * @fd: a client's connection
 *
 * Returns: the client's process, 0 for one that the daemon's PID namespace does not have, and its user; the
 *   process -1 and the user 0 if @fd is not a UNIX socket
 */
ClientCredentials
client_credentials_get(gint fd)
{
  ucred credentials = {-1, 0, 0};
  socklen_t size = sizeof credentials;

  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
  return {credentials.pid, credentials.uid};
}

/**
 * client_credentials_log:
 * @fd: a client's connection
 * @format: a format of printf(), of what has happened to the client; texts of peers can be any bytes
 * @...: its arguments
 *
 * Logs at debug priority which client it happened to: "process %d of user %u: %s". The text is cut like
 * log_text_clip() does, and at most %RATE_LIMITED_LOG_BURST lines are written in
 * %RATE_LIMITED_LOG_INTERVAL_US. Logs nothing if @fd is not a UNIX socket.
 */
void
client_credentials_log(gint fd, const gchar *format, ...)
{
  const ClientCredentials credentials = client_credentials_get(fd);
  va_list arguments;

  if (credentials.pid < 0) {
    return;
  }
  va_start(arguments, format);
  g_autofree gchar *text = g_strdup_vprintf(format, arguments);
  va_end(arguments);

  g_autofree gchar *clipped = log_text_clip(text);
  rate_limited_log(&credentials_log, LOG_DEBUG, "process %d of user %u: %s",
                   static_cast<int>(credentials.pid), static_cast<guint>(credentials.uid), clipped);
}

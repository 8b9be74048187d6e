/* A line of the log that others can cause is written at most once an interval. The lines in between are
 * counted, and the next line tells the count.
 *
 * The lock is held to decide and to count, never while a line is written: a log that does not keep up stops
 * one thread alone.
 */
#include "ratelimitedlog.h"

#include <cstdarg>
#include <syslog.h>

namespace
{

/* Counts the line if it has to be left out; otherwise takes the count of those that were. */
gboolean
may_log(RateLimitedLog *log, guint64 *suppressed)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log->lock);
  const gint64 now_us = g_get_monotonic_time();

  if (log->logged_us != 0 && now_us - log->logged_us < log->interval_us) {
    log->suppressed++;
    return FALSE;
  }
  log->logged_us = now_us;
  *suppressed = log->suppressed;
  log->suppressed = 0;
  return TRUE;
}

} // namespace

/**
 * rate_limited_log:
 * @log: the line's state, shared by all who log it
 * @priority: a priority of syslog()
 * @format: a format of printf(), without a line feed at its end
 * @...: its arguments
 *
 * Logs a line unless another one of @log was logged less than its interval ago. When lines were left out
 * since then, " (N more since the last such line)" stands at the end. Lines that are left out before a
 * silence are told with the next line, however late that is. Any thread.
 */
void
rate_limited_log(RateLimitedLog *log, int priority, const gchar *format, ...)
{
  guint64 suppressed = 0;
  va_list arguments;

  g_return_if_fail(log != NULL);
  g_return_if_fail(format != NULL);

  if (!may_log(log, &suppressed)) {
    return;
  }
  va_start(arguments, format);
  g_autofree gchar *line = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  if (suppressed > 0) {
    syslog(priority, "%s (%" G_GUINT64_FORMAT " more since the last such line)", line, suppressed);
  } else {
    syslog(priority, "%s", line);
  }
}

/* SPDX-License-Identifier: MIT */
/* Limits the rate of log lines that peers can cause. An interval begins with a line and has a limited number
 * of them; further lines are suppressed and counted. At the end of the interval the last suppressed line is
 * written with the count of the others, and begins the next interval. So a suppressed line is reported after
 * one interval at the latest, and a line that repeats continuously is written once per interval.
 *
 * A time-out of the default main context ends an interval; it exists only while a line is suppressed. If that
 * context is not iterated, the next written line has the count.
 *
 * One lock protects all lines. It is held to decide and count, never while a line is written, so a slow log
 * blocks only the thread that writes.
 */
#include "ratelimitedlog.h"

#include <algorithm>
#include <cstdarg>
#include <syslog.h>
#include <utility>

namespace
{

GMutex log_lock;
RateLimitedLog *used; /* the list of states that are not at their initial value */

struct Line {
  int priority = LOG_WARNING;
  gchar *text = nullptr;
  guint64 suppressed = 0; /* before it */

  Line() = default;
  ~Line();
  Line(const Line &) = delete;
  Line &operator=(const Line &) = delete;
};

Line::~Line()
{
  g_free(text);
}

void
write_line(const Line &line)
{
  if (line.suppressed > 0) {
    syslog(line.priority, "%s (%" G_GUINT64_FORMAT " more since the last such line)", line.text,
           line.suppressed);
  } else {
    syslog(line.priority, "%s", line.text);
  }
}

/* The next six functions are called with the lock held. */

void
note_use(RateLimitedLog *log)
{
  if (!log->is_used) {
    log->is_used = TRUE;
    log->next = std::exchange(used, log);
  }
}

gint64
get_remaining_us(const RateLimitedLog *log)
{
  return log->begin_us + log->interval_us - g_get_monotonic_time();
}

void
begin_interval(RateLimitedLog *log)
{
  log->begin_us = g_get_monotonic_time();
  log->written = 0;
}

gboolean on_interval_over(gpointer user_data);

void
wait_for_end(RateLimitedLog *log)
{
  const gint64 remaining_us = std::max<gint64>(get_remaining_us(log), 0);

  /* Rounded up, so that the interval is over at the time-out. */
  log->timeout_id =
      g_timeout_add(static_cast<guint>(remaining_us / G_TIME_SPAN_MILLISECOND) + 1, on_interval_over, log);
}

void
suppress(RateLimitedLog *log, Line *line)
{
  log->suppressed++;
  g_free(log->last);
  log->last = g_steal_pointer(&line->text);
  log->priority = line->priority;
  if (log->timeout_id == 0) {
    wait_for_end(log);
  }
}

/* Takes the last suppressed line, with the count of the others. */
void
take_last(RateLimitedLog *log, Line *line)
{
  line->text = g_steal_pointer(&log->last);
  line->priority = log->priority;
  line->suppressed = std::exchange(log->suppressed, 0) - 1;
}

/* FALSE when the line is suppressed. */
gboolean
admit(RateLimitedLog *log, Line *line)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log_lock);

  note_use(log);
  if (log->begin_us == 0 || get_remaining_us(log) <= 0) {
    begin_interval(log);
  }
  if (log->written == log->burst) {
    suppress(log, line);
    return FALSE;
  }
  log->written++;
  line->suppressed = std::exchange(log->suppressed, 0);
  g_clear_pointer(&log->last, g_free);
  return TRUE;
}

/* FALSE when there is nothing to write. The count of the suppressed lines may have been written with another
 * line; lines that were suppressed since belong to that line's interval. */
gboolean
end_interval(RateLimitedLog *log, Line *line)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log_lock);

  log->timeout_id = 0;
  if (log->last == nullptr) {
    return FALSE;
  }
  if (get_remaining_us(log) > 0) {
    wait_for_end(log);
    return FALSE;
  }
  take_last(log, line);
  begin_interval(log);
  log->written = 1;
  return TRUE;
}

gboolean
on_interval_over(gpointer user_data)
{
  Line line;

  if (end_interval(static_cast<RateLimitedLog *>(user_data), &line)) {
    write_line(line);
  }
  return G_SOURCE_REMOVE;
}

/* Resets the next used state. FALSE when there is none. @line gets no text if no line was suppressed. */
gboolean
reset_next(Line *line)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log_lock);
  RateLimitedLog *log = used;

  if (log == nullptr) {
    return FALSE;
  }
  if (log->last != nullptr) {
    take_last(log, line);
  }
  g_clear_handle_id(&log->timeout_id, g_source_remove);
  used = std::exchange(log->next, nullptr);
  log->is_used = FALSE;
  log->begin_us = 0;
  log->written = 0;
  return TRUE;
}

} // namespace

/**
 * rate_limited_log:
 * @log: the line's state
 * @priority: a priority of syslog()
 * @format: a format of printf(), without a line feed at its end
 * @...: its arguments
 *
 * Writes a line to the log, or suppresses it if the interval of @log already has its lines. If lines were
 * suppressed since the last written one, the line ends in " (N more since the last such line)". When the
 * interval is over, the thread of the default main context writes the last suppressed line.
 */
void
rate_limited_log(RateLimitedLog *log, int priority, const gchar *format, ...)
{
  Line line;
  va_list arguments;

  g_return_if_fail(log != NULL);
  g_return_if_fail(format != NULL);

  va_start(arguments, format);
  line.text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  line.priority = priority;
  if (admit(log, &line)) {
    write_line(line);
  }
}

/**
 * rate_limited_log_is_idle:
 * @log: a line's state
 *
 * Checks whether the next line would be written without a count. The state can then be used for another line.
 *
 * Returns: %TRUE when no interval is in progress and no line is suppressed
 */
gboolean
rate_limited_log_is_idle(RateLimitedLog *log)
{
  g_return_val_if_fail(log != NULL, FALSE);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log_lock);
  return log->last == nullptr && (log->begin_us == 0 || get_remaining_us(log) <= 0);
}

/**
 * rate_limited_log_flush:
 *
 * Writes the last suppressed line of each #RateLimitedLog without waiting for the end of its interval, and
 * resets all states to their initial value. For the end of the process.
 */
void
rate_limited_log_flush(void)
{
  gboolean is_more = TRUE;

  while (is_more) {
    Line line;
    is_more = reset_next(&line);
    if (line.text != nullptr) {
      write_line(line);
    }
  }
}

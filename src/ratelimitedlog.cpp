/* Lines of the log that others can cause at any rate. An interval begins with a line and has a few of them.
 * The further ones are left out and counted. At the end of the interval the last of these is written with the
 * count of the others, and begins the next interval. So nothing stays untold for longer than an interval, and
 * a line that repeats itself all the time is written once an interval.
 *
 * The end of an interval is a time-out of the default main context, which exists only while a line is left
 * out. While that context is not iterated, the count waits for the next line.
 *
 * One lock guards all lines. It is held to decide and to count, never while a line is written: a log that
 * does not keep up stops one thread alone.
 */
#include "ratelimitedlog.h"

#include <algorithm>
#include <cstdarg>
#include <syslog.h>
#include <utility>

namespace
{

GMutex log_lock;
RateLimitedLog *used; /* those that have a state */

struct Line {
  int priority = LOG_WARNING;
  gchar *text = nullptr;
  guint64 left_out = 0; /* before it */

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
  if (line.left_out > 0) {
    syslog(line.priority, "%s (%" G_GUINT64_FORMAT " more since the last such line)", line.text,
           line.left_out);
  } else {
    syslog(line.priority, "%s", line.text);
  }
}

/* All below with the lock held. */

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

  /* Rounded up, so that the interval is over then. */
  log->timeout_id =
      g_timeout_add(static_cast<guint>(remaining_us / G_TIME_SPAN_MILLISECOND) + 1, on_interval_over, log);
}

void
leave_out(RateLimitedLog *log, Line *line)
{
  log->left_out++;
  g_free(log->last);
  log->last = g_steal_pointer(&line->text);
  log->priority = line->priority;
  if (log->timeout_id == 0) {
    wait_for_end(log);
  }
}

/* The line that was left out last, which is not left out any more. */
void
take_last(RateLimitedLog *log, Line *line)
{
  line->text = g_steal_pointer(&log->last);
  line->priority = log->priority;
  line->left_out = std::exchange(log->left_out, 0) - 1;
}

/* FALSE when the line is left out. */
gboolean
admit(RateLimitedLog *log, Line *line)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&log_lock);

  note_use(log);
  if (log->begin_us == 0 || get_remaining_us(log) <= 0) {
    begin_interval(log);
  }
  if (log->written == log->burst) {
    leave_out(log, line);
    return FALSE;
  }
  log->written++;
  line->left_out = std::exchange(log->left_out, 0);
  g_clear_pointer(&log->last, g_free);
  return TRUE;
}

/* FALSE when there is nothing to tell now. What was left out may have been told with another line, and what
 * is left out since belongs to that line's interval. */
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

/* FALSE when none is used any more. Leaves @line without a text when nothing was left out. */
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
 * @log: the line's state, shared by all who log it
 * @priority: a priority of syslog()
 * @format: a format of printf(), without a line feed at its end
 * @...: its arguments
 *
 * Logs a line unless @log's interval has had its lines already. When lines were left out since the last one
 * that was written, " (N more since the last such line)" stands at the end. The main context's thread writes
 * the line that was left out last when the interval is over. Any thread.
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
 * Whether the next line of @log would be written, without a count. Such a state may be used for another line.
 * Any thread.
 *
 * Returns: %TRUE when no interval is under way and no line is left out
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
 * Writes the line that was left out last of each #RateLimitedLog, without waiting for the end of its
 * interval, and takes them all back to their initial value. For the end of the process. Main thread.
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

#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * RateLimitedLog:
 * @interval_us: how long a line keeps the next one back, in microseconds; not changed while a line is logged
 *
 * One line of the log that somebody outside can cause at any rate. Lives as long as the process, initialised
 * with RATE_LIMITED_LOG_INIT():
 *
 *     RateLimitedLog refusals = RATE_LIMITED_LOG_INIT(G_TIME_SPAN_SECOND);
 *     ...
 *     rate_limited_log(&refusals, LOG_WARNING, "refused a call from %s", sender);
 *
 * Lines that may keep each other back share one; lines that may not have one each.
 */
typedef struct {
  gint64 interval_us;
  GMutex lock;                        /*< private >*/
  gint64 logged_us; /*< private >*/   /* 0 before the first line */
  guint64 suppressed; /*< private >*/ /* since the last line */
} RateLimitedLog;

/**
 * RATE_LIMITED_LOG_INIT:
 * @interval_us: how long a line keeps the next one back, in microseconds
 *
 * The initial value of a #RateLimitedLog.
 */
#define RATE_LIMITED_LOG_INIT(interval_us)                                                                   \
  {                                                                                                          \
    (interval_us), {NULL}, 0, 0                                                                              \
  }

void rate_limited_log(RateLimitedLog *log, int priority, const gchar *format, ...) G_GNUC_PRINTF(3, 4);

G_END_DECLS

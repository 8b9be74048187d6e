#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * RATE_LIMITED_LOG_INTERVAL_US:
 *
 * The interval of a line that has no reason for another one, in microseconds.
 */
#define RATE_LIMITED_LOG_INTERVAL_US (10 * G_TIME_SPAN_SECOND)

/**
 * RATE_LIMITED_LOG_BURST:
 *
 * How many lines an interval has where each of them names something else.
 */
#define RATE_LIMITED_LOG_BURST 20

/**
 * RateLimitedLog:
 * @interval_us: how long an interval is, in microseconds; not changed while a line is logged
 * @burst: how many lines are written in an interval
 *
 * One line of the log that somebody outside can cause at any rate. Lives as long as the process, or until
 * rate_limited_log_flush(). Initialised with RATE_LIMITED_LOG_INIT():
 *
 *     RateLimitedLog refusals = RATE_LIMITED_LOG_INIT(G_TIME_SPAN_SECOND);
 *     ...
 *     rate_limited_log(&refusals, LOG_WARNING, "refused a call from %s", sender);
 *
 * Lines that may keep each other back share one; lines that may not have one each.
 */
typedef struct RateLimitedLog RateLimitedLog;

struct RateLimitedLog {
  gint64 interval_us;
  guint burst;
  gint64 begin_us; /*< private >*/      /* of the interval; 0 before the first line */
  guint written; /*< private >*/        /* in the interval */
  guint64 left_out; /*< private >*/     /* since the line that was written last */
  gchar *last; /*< private >*/          /* the line that was left out last, NULL if none is */
  int priority; /*< private >*/         /* of that line */
  guint timeout_id; /*< private >*/     /* of the end of the interval, or 0 */
  gboolean is_used;                     /*< private >*/
  RateLimitedLog *next; /*< private >*/ /* of those that are used */
};

/**
 * RATE_LIMITED_LOG_INIT:
 * @interval_us: how long an interval is, in microseconds
 *
 * The initial value of a #RateLimitedLog with one line in an interval.
 */
#define RATE_LIMITED_LOG_INIT(interval_us) RATE_LIMITED_LOG_INIT_BURST(interval_us, 1)

/**
 * RATE_LIMITED_LOG_INIT_BURST:
 * @interval_us: how long an interval is, in microseconds
 * @burst: how many lines are written in an interval, at least 1
 *
 * The initial value of a #RateLimitedLog.
 */
#define RATE_LIMITED_LOG_INIT_BURST(interval_us, burst)                                                      \
  {                                                                                                          \
    (interval_us), (burst), 0, 0, 0, NULL, 0, 0, FALSE, NULL                                                 \
  }

void rate_limited_log(RateLimitedLog *log, int priority, const gchar *format, ...) G_GNUC_PRINTF(3, 4);

gboolean rate_limited_log_is_idle(RateLimitedLog *log);

void rate_limited_log_flush(void);

G_END_DECLS

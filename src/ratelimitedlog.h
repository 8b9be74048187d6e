/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * RATE_LIMITED_LOG_INTERVAL_US:
 *
 * The default length of an interval, in microseconds.
 */
#define RATE_LIMITED_LOG_INTERVAL_US (10 * G_TIME_SPAN_SECOND)

/**
 * RATE_LIMITED_LOG_BURST:
 *
 * The lines in an interval for a text with varying content.
 */
#define RATE_LIMITED_LOG_BURST 20

/**
 * RateLimitedLog:
 * @interval_us: the length of an interval, in microseconds; not changed while a line is logged
 * @burst: the lines that are written in an interval
 *
 * One line of the log that peers can cause at any rate. Must exist until the process ends or
 * rate_limited_log_flush() is called. Any thread can call the functions of this component, except
 * rate_limited_log_flush(), which is for the main thread. Initialised with RATE_LIMITED_LOG_INIT():
 *
 *     RateLimitedLog refusals = RATE_LIMITED_LOG_INIT(G_TIME_SPAN_SECOND);
 *     ...
 *     rate_limited_log(&refusals, LOG_WARNING, "refused a call from %s", sender);
 *
 * Lines that can suppress each other share one state; all others have one each.
 */
typedef struct RateLimitedLog RateLimitedLog;

struct RateLimitedLog {
  gint64 interval_us;
  guint burst;
  gint64 begin_us; /*< private >*/      /* of the interval; 0 before the first line */
  guint written; /*< private >*/        /* in the interval */
  guint64 suppressed; /*< private >*/   /* since the last written line */
  gchar *last; /*< private >*/          /* the last suppressed line, NULL for none */
  int priority; /*< private >*/         /* of that line */
  guint timeout_id; /*< private >*/     /* of the end of the interval, or 0 */
  gboolean is_used;                     /*< private >*/
  RateLimitedLog *next; /*< private >*/ /* in the list of used states */
};

/**
 * RATE_LIMITED_LOG_INIT:
 * @interval_us: the length of an interval, in microseconds
 *
 * The initial value of a #RateLimitedLog with one line in an interval.
 */
#define RATE_LIMITED_LOG_INIT(interval_us) RATE_LIMITED_LOG_INIT_BURST(interval_us, 1)

/**
 * RATE_LIMITED_LOG_INIT_BURST:
 * @interval_us: the length of an interval, in microseconds
 * @burst: the lines that are written in an interval, at least 1
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

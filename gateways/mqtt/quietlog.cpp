/* SPDX-License-Identifier: MIT */
#include "quietlog.h"

#include "mqttlimits.h"

#include <syslog.h>

namespace mqtt
{

QuietLog::QuietLog()
{
  g_mutex_init(&lock_);
}

QuietLog::~QuietLog()
{
  g_mutex_clear(&lock_);
}

/**
 * QuietLog::warn:
 * @text: one line
 *
 * Logs @text with the number of lines that were left out, unless one was logged a short time ago.
 */
void
QuietLog::warn(const char *text)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  gint64 now_us = g_get_monotonic_time();
  if (has_logged_ && now_us - logged_us_ < MQTT_LOG_SECONDS * G_TIME_SPAN_SECOND) {
    left_out_++;
    return;
  }
  if (left_out_ > 0) {
    syslog(LOG_WARNING, "%s (and %" G_GUINT64_FORMAT " more of these)", text, left_out_);
  } else {
    syslog(LOG_WARNING, "%s", text);
  }
  has_logged_ = true;
  logged_us_ = now_us;
  left_out_ = 0;
}

} // namespace mqtt

/* SPDX-License-Identifier: MIT */
#include "backoff.h"

#include "mqttlimits.h"

#include <algorithm>

namespace mqtt
{

/**
 * Backoff::next_us:
 *
 * Returns: how long to wait now: a random time, so that many gateways do not come back to a broker at once,
 *   from a half to the whole of what the limits say
 */
gint64
Backoff::next_us()
{
  constexpr gint64 FIRST_US = MQTT_FIRST_RETRY_MS * G_TIME_SPAN_MILLISECOND;
  constexpr gint64 LAST_US = MQTT_LAST_RETRY_MS * G_TIME_SPAN_MILLISECOND;
  longest_us_ = std::clamp(2 * longest_us_, FIRST_US, LAST_US);
  return longest_us_ / 2 + g_random_int_range(0, static_cast<gint32>(longest_us_ / 2 + 1));
}

/**
 * Backoff::reset:
 *
 * The next failure is a first one.
 */
void
Backoff::reset()
{
  longest_us_ = 0;
}

} // namespace mqtt

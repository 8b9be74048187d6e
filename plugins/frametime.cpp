/* SPDX-License-Identifier: MIT */
#include "frametime.h"

#include "metadatalimits.h"

#include <cstdlib>

namespace plugins
{

namespace
{

GstStaticCaps unix_caps = GST_STATIC_CAPS("timestamp/x-unix");
GstStaticCaps ntp_caps = GST_STATIC_CAPS("timestamp/x-ntp");

/* From 1900, where NTP begins, to 1970. */
constexpr gint64 NTP_TO_UNIX_US = G_GINT64_CONSTANT(2208988800) * G_USEC_PER_SEC;

gint64
microseconds(GstClockTime time)
{
  return static_cast<gint64>(time / GST_USECOND);
}

std::optional<gint64>
read_reference(GstBuffer *buffer, GstStaticCaps *static_caps, gint64 epoch_us)
{
  g_autoptr(GstCaps) caps = gst_static_caps_get(static_caps);
  GstReferenceTimestampMeta *meta = gst_buffer_get_reference_timestamp_meta(buffer, caps);
  if (meta == nullptr) {
    return std::nullopt;
  }
  gint64 utc = microseconds(meta->timestamp) - epoch_us;
  return utc >= 0 && utc <= onvif::LATEST_UTC ? std::optional(utc) : std::nullopt;
}

} // namespace

/**
 * WallClock::compare:
 * @running: the running time of the pipeline's clock now
 * @utc: the wall clock now
 *
 * The first comparison counts. The two clocks drift apart slowly, which a later one ignores; when the wall
 * clock was set, the later one counts.
 */
void
WallClock::compare(GstClockTime running, gint64 utc)
{
  gint64 offset = utc - microseconds(running);
  if (!offset_.has_value() || std::abs(offset - *offset_) > FRAME_TIME_STEP_US) {
    offset_ = offset;
  }
}

/**
 * WallClock::reset:
 *
 * The next comparison is the first one.
 */
void
WallClock::reset()
{
  offset_.reset();
}

/**
 * WallClock::utc_at:
 * @running: a running time, after a comparison
 *
 * Returns: the wall clock at @running
 */
gint64
WallClock::utc_at(GstClockTime running) const
{
  return offset_.value_or(0) + microseconds(running);
}

/**
 * frame_time_of_reference:
 * @buffer: a frame
 *
 * Returns: the time of the reference timestamp for UNIX time, or else of the one for NTP; unset if @buffer
 * has none from 1970 to 2099
 */
std::optional<gint64>
frame_time_of_reference(GstBuffer *buffer)
{
  std::optional<gint64> utc = read_reference(buffer, &unix_caps, 0);
  return utc.has_value() ? utc : read_reference(buffer, &ntp_caps, NTP_TO_UNIX_US);
}

} // namespace plugins

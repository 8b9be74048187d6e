/* SPDX-License-Identifier: MIT */
#include "scenes.h"

#include "wallclock.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace
{

bool
stays(bool motion, sim::WorldTime from, sim::WorldTime until)
{
  std::vector<sim::Change> changes = DEFAULT_WORLD.changes_between(from, until);
  return DEFAULT_WORLD.motion_at(from) == motion &&
         std::none_of(changes.begin(), changes.end(),
                      [](const sim::Change &change) { return change.type == sim::ChangeType::MOTION; });
}

} // namespace

void
PrintTo(const Scenes &scenes, std::ostream *stream)
{
  *stream << scenes.source;
}

/* Whether there are objects in the picture during a whole interval. */
bool
is_busy(sim::WorldTime from, sim::WorldTime until)
{
  return stays(true, from, until);
}

/* Whether the picture is empty during a whole interval. */
bool
is_empty(sim::WorldTime from, sim::WorldTime until)
{
  return stays(false, from, until);
}

/* Sets the wall clock to the first time of the default world that meets @wanted, and returns the world's
 * time. The caller resets the wall clock. */
sim::WorldTime
begin_where(const std::function<bool(sim::WorldTime)> &wanted)
{
  constexpr sim::WorldTime STEP = G_USEC_PER_SEC / 25;
  constexpr sim::WorldTime HOUR = 3600 * gint64{G_USEC_PER_SEC};
  sim::WorldTime time = 0;
  while (!wanted(time) && time < HOUR) {
    time += STEP;
  }
  EXPECT_LT(time, HOUR);
  set_wall_clock_offset(0);
  set_wall_clock_offset(sim::settings_utc({}, time) - g_get_real_time());
  return time;
}

/* The text of the next message of @type, which must arrive within the bound and have the given error. */
std::string
pop_message(GstBus *bus, GstMessageType type, GQuark domain, int code)
{
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(bus, 5 * GST_SECOND, type);
  EXPECT_NE(message, nullptr);
  if (message == nullptr) {
    return {};
  }
  g_autoptr(GError) error = nullptr;
  if (type == GST_MESSAGE_WARNING) {
    gst_message_parse_warning(message, &error, nullptr);
  } else {
    gst_message_parse_error(message, &error, nullptr);
  }
  EXPECT_TRUE(g_error_matches(error, domain, code)) << error->message;
  return error->message;
}

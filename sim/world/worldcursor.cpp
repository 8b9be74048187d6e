/* SPDX-License-Identifier: MIT */
#include "worldcursor.h"

namespace sim
{

namespace
{

/* After a longer interruption, for example a pause, a source sends the current state, not the missed changes.
 */
constexpr gint64 MAX_CATCH_UP = 10 * G_USEC_PER_SEC;

} // namespace

/**
 * WorldCursor::open:
 *
 * Reads the settings and invalidates the position. Called when a source starts.
 */
void
WorldCursor::open()
{
  settings_ = settings_load();
  world_ = World(settings_.seed);
  started_ = false;
}

const Settings &
WorldCursor::settings() const
{
  return settings_;
}

const World &
WorldCursor::world() const
{
  return world_;
}

WorldTime
WorldCursor::position() const
{
  return position_;
}

/**
 * WorldCursor::now:
 *
 * Returns: the current time of the world's clock
 */
WorldTime
WorldCursor::now() const
{
  return settings_world_time(settings_, g_get_real_time());
}

/**
 * WorldCursor::can_continue:
 * @now: the current time of the world
 *
 * The wall clock may have been set, in either direction, and the source may have been paused.
 *
 * Returns: whether the source can report the changes since the position; otherwise it has to send the current
 *   state
 */
bool
WorldCursor::can_continue(WorldTime now) const
{
  WorldTime longest = MAX_CATCH_UP * settings_.speed;
  return started_ && now >= position_ && now - position_ <= longest;
}

/**
 * WorldCursor::next_change_deadline:
 *
 * Returns: the time of the first change that has not been reported, on the clock of g_get_monotonic_time();
 * the current time if can_continue() is false
 */
gint64
WorldCursor::next_change_deadline() const
{
  /* Reads the wall clock once: if it were set back between two reads, the sleep would be that much longer. */
  gint64 utc = g_get_real_time();
  if (!can_continue(settings_world_time(settings_, utc))) {
    return g_get_monotonic_time();
  }
  WorldTime next = world_.next_change_after(position_);
  return g_get_monotonic_time() + settings_utc(settings_, next) - utc;
}

/**
 * WorldCursor::advance_to:
 * @time: the new position
 */
void
WorldCursor::advance_to(WorldTime time)
{
  position_ = time;
  started_ = true;
}

} // namespace sim

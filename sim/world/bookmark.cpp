#include "bookmark.h"

namespace sim
{

namespace
{

/* Whoever has been away for longer, for example paused, is shown the present state instead of all the past.
 */
constexpr gint64 LONGEST_CATCH_UP = 10 * G_USEC_PER_SEC;

} /* namespace */

/**
 * Bookmark::open:
 *
 * Reads the settings and begins their story, of which nothing has been told. For the start of a source.
 */
void
Bookmark::open()
{
  settings_ = settings_load();
  world_ = World(settings_.seed);
  started_ = false;
}

const Settings &
Bookmark::settings() const
{
  return settings_;
}

const World &
Bookmark::world() const
{
  return world_;
}

WorldTime
Bookmark::told_until() const
{
  return told_until_;
}

/**
 * Bookmark::now:
 *
 * Returns: what the world's clock shows
 */
WorldTime
Bookmark::now() const
{
  return settings_world_time(settings_, g_get_real_time());
}

/**
 * Bookmark::can_continue:
 * @now: the present time of the world
 *
 * The wall clock may have been set, in either direction, and the source may have been paused.
 *
 * Returns: whether what has been told still holds and the story can go on from there; otherwise the source
 *   shows the present state
 */
bool
Bookmark::can_continue(WorldTime now) const
{
  WorldTime longest = LONGEST_CATCH_UP * settings_.speed;
  return started_ && now >= told_until_ && now - told_until_ <= longest;
}

/**
 * Bookmark::next_change_deadline:
 *
 * Returns: the time of g_get_monotonic_time() at which the world's first change that has not been told comes,
 *   or the present one if the story cannot go on from where it was left
 */
gint64
Bookmark::next_change_deadline() const
{
  /* The wall clock may be set between two looks at it; the sleep would then be as long as it was set back. */
  gint64 utc = g_get_real_time();
  if (!can_continue(settings_world_time(settings_, utc))) {
    return g_get_monotonic_time();
  }
  WorldTime next = world_.next_change_after(told_until_);
  return g_get_monotonic_time() + settings_utc(settings_, next) - utc;
}

/**
 * Bookmark::move_to:
 * @time: until when the story has now been told
 */
void
Bookmark::move_to(WorldTime time)
{
  told_until_ = time;
  started_ = true;
}

} /* namespace sim */

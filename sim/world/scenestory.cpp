#include "scenestory.h"

#include <algorithm>

namespace sim
{

namespace
{

std::vector<gint64>
who_left(const std::vector<gint64> &before, const std::vector<gint64> &present)
{
  std::vector<gint64> left;
  std::copy_if(before.begin(), before.end(), std::back_inserter(left), [&present](gint64 id) {
    return std::find(present.begin(), present.end(), id) == present.end();
  });
  return left;
}

} /* namespace */

/**
 * SceneStory::open:
 * @only: the one type of objects to tell of; all if unset
 *
 * Reads the settings and begins their story, of which nothing has been told.
 */
void
SceneStory::open(std::optional<ObjectType> only)
{
  bookmark_.open();
  only_ = only;
  present_.clear();
}

/**
 * SceneStory::time_left:
 *
 * Returns: microseconds until the next scene; nothing or less if it is due
 */
gint64
SceneStory::time_left() const
{
  /* One look at the wall clock, which may be set between two. */
  gint64 utc = g_get_real_time();
  if (!bookmark_.can_continue(settings_world_time(bookmark_.settings(), utc))) {
    return 0;
  }
  return next_utc() - utc;
}

/**
 * SceneStory::next_scene:
 *
 * Tells the present scene, whether it is due or not.
 *
 * Returns: the scene
 */
Scene
SceneStory::next_scene()
{
  WorldTime now = bookmark_.now();
  std::vector<Object> objects = wanted_objects_at(now);
  std::vector<gint64> present;
  present.reserve(objects.size());
  for (const Object &object : objects) {
    present.push_back(object.id);
  }
  Scene scene = {.utc = settings_utc(bookmark_.settings(), now),
                 .objects = scene_objects(objects, details),
                 .deleted = who_left(present_, present)};
  present_ = std::move(present);
  bookmark_.move_to(now);
  return scene;
}

std::vector<Object>
SceneStory::wanted_objects_at(WorldTime time) const
{
  std::vector<Object> objects = bookmark_.world().objects_at(time);
  if (only_.has_value()) {
    std::erase_if(objects, [this](const Object &object) { return object.type != *only_; });
  }
  return objects;
}

/* The time of the next scene. An arrival in an empty picture is not waited for longer than needed. */
gint64
SceneStory::next_utc() const
{
  const Settings &settings = bookmark_.settings();
  WorldTime told_until = bookmark_.told_until();
  gint64 told_utc = settings_utc(settings, told_until);
  if (!present_.empty()) {
    return told_utc + INTERVAL;
  }
  gint64 latest = told_utc + EMPTY_INTERVAL;
  std::optional<WorldTime> arrival =
      bookmark_.world().first_arrival_between(told_until, settings_world_time(settings, latest), only_);
  return arrival.has_value() ? std::max(told_utc + INTERVAL, settings_utc(settings, *arrival)) : latest;
}

} /* namespace sim */

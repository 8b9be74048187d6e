/* SPDX-License-Identifier: MIT */
#include "scenesequence.h"

#include <algorithm>

namespace sim
{

namespace
{

std::vector<gint64>
departed_ids(const std::vector<gint64> &before, const std::vector<gint64> &present)
{
  std::vector<gint64> left;
  std::copy_if(before.begin(), before.end(), std::back_inserter(left), [&present](gint64 id) {
    return std::find(present.begin(), present.end(), id) == present.end();
  });
  return left;
}

} // namespace

/**
 * SceneSequence::open:
 * @only: the only type of objects to include; all types if unset
 *
 * Reads the settings and starts at the current time.
 */
void
SceneSequence::open(std::optional<ObjectType> only)
{
  cursor_.open();
  only_ = only;
  present_.clear();
}

/**
 * SceneSequence::time_until_next:
 *
 * Returns: microseconds until the next scene; 0 or negative if it is due
 */
gint64
SceneSequence::time_until_next() const
{
  /* Reads the wall clock once, because it may be set between two reads. */
  gint64 utc = g_get_real_time();
  if (!cursor_.can_continue(settings_world_time(cursor_.settings(), utc))) {
    return 0;
  }
  return next_utc() - utc;
}

/**
 * SceneSequence::next_scene:
 *
 * Returns: the current scene, even if it is not due
 */
Scene
SceneSequence::next_scene()
{
  WorldTime now = cursor_.now();
  std::vector<Object> objects = objects_at(now);
  std::vector<gint64> present;
  present.reserve(objects.size());
  for (const Object &object : objects) {
    present.push_back(object.id);
  }
  Scene scene = {.utc = settings_utc(cursor_.settings(), now),
                 .objects = scene_objects(objects, details),
                 .deleted = departed_ids(present_, present)};
  present_ = std::move(present);
  cursor_.advance_to(now);
  return scene;
}

std::vector<Object>
SceneSequence::objects_at(WorldTime time) const
{
  std::vector<Object> objects = cursor_.world().objects_at(time);
  if (only_.has_value()) {
    std::erase_if(objects, [this](const Object &object) { return object.type != *only_; });
  }
  return objects;
}

/* The time of the next scene. While the picture is empty, the arrival of an object ends the interval early.
 */
gint64
SceneSequence::next_utc() const
{
  const Settings &settings = cursor_.settings();
  WorldTime position = cursor_.position();
  gint64 position_utc = settings_utc(settings, position);
  if (!present_.empty()) {
    return position_utc + INTERVAL;
  }
  gint64 latest = position_utc + EMPTY_INTERVAL;
  std::optional<WorldTime> arrival =
      cursor_.world().first_arrival_between(position, settings_world_time(settings, latest), only_);
  return arrival.has_value() ? std::max(position_utc + INTERVAL, settings_utc(settings, *arrival)) : latest;
}

} // namespace sim

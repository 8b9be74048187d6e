/* SPDX-License-Identifier: MIT */
#pragma once

#include "scenemodel.h"
#include "worldcursor.h"

namespace sim
{

/* The scenes of the world: one every INTERVAL while objects are in the picture, one every EMPTY_INTERVAL
 * while the picture is empty. The first scene is due immediately. An object that was in the previous scene
 * and has left is listed once, in the next scene's deleted objects.
 *
 * Used by one thread at a time. */
class SceneSequence
{
public:
  /* Time between two scenes while objects are in the picture; also the minimum time between two scenes. */
  static constexpr gint64 INTERVAL = G_USEC_PER_SEC / 10;

  /* Time between two scenes while the picture is empty. */
  static constexpr gint64 EMPTY_INTERVAL = 2 * G_USEC_PER_SEC;

  void open(std::optional<ObjectType> only = std::nullopt);
  gint64 time_until_next() const;
  Scene next_scene();

  SceneDetails details;

private:
  std::vector<Object> objects_at(WorldTime time) const;
  gint64 next_utc() const;

  WorldCursor cursor_;
  std::optional<ObjectType> only_;
  std::vector<gint64> present_; /* ids of the objects in the previous scene */
};

} // namespace sim

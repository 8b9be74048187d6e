#pragma once

#include "bookmark.h"
#include "scenemodel.h"

namespace sim
{

/* The story of the world scene by scene: what is in the picture, again and again while anything is, and now
 * and then while nothing is. The first scene is due at once. Whoever was in the last scene and has left is
 * told to have left in the next one.
 *
 * Belongs to one thread at a time. */
class SceneStory
{
public:
  /* Between two scenes at least, and as long as somebody is in the picture. */
  static constexpr gint64 INTERVAL = G_USEC_PER_SEC / 10;

  /* As long as nobody is. */
  static constexpr gint64 EMPTY_INTERVAL = 2 * G_USEC_PER_SEC;

  void open(std::optional<ObjectType> only = std::nullopt);
  gint64 time_left() const;
  Scene next_scene();

  SceneDetails details;

private:
  std::vector<Object> wanted_objects_at(WorldTime time) const;
  gint64 next_utc() const;

  Bookmark bookmark_;
  std::optional<ObjectType> only_;
  std::vector<gint64> present_; /* who was in the last scene */
};

} /* namespace sim */

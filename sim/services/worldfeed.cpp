/* SPDX-License-Identifier: MIT */
#include "worldfeed.h"

#include "sceneitem.h"
#include "scenesequence.h"

namespace sim
{

namespace
{

class WorldMessages : public MessageSource
{
public:
  WorldMessages(std::optional<ObjectType> only, const SceneDetails &details)
  {
    scenes_.open(only);
    scenes_.details = details;
  }

  bool has_ended() const override
  {
    return false;
  }

  gint64 due() override
  {
    return g_get_monotonic_time() + scenes_.time_until_next();
  }

  SharedText next() override
  {
    return shared_text_copy(scene_to_item(scenes_.next_scene()));
  }

private:
  SceneSequence scenes_;
};

} // namespace

/**
 * WorldFeed:
 * @only: the only type of objects to include; all types if unset
 * @polygons: whether the objects have polygons
 */
WorldFeed::WorldFeed(std::optional<ObjectType> only, bool polygons) : only_(only), polygons_(polygons)
{
}

std::unique_ptr<MessageSource>
WorldFeed::open(Notify notify)
{
  return std::make_unique<WorldMessages>(only_, SceneDetails{.polygons = polygons_, .velocities = false});
}

std::string
WorldFeed::sample_frame() const
{
  return scene_example_item(only_, polygons_);
}

} // namespace sim

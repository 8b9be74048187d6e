/* SPDX-License-Identifier: MIT */
#pragma once

#include "feed.h"
#include "world.h"

#include <optional>

namespace sim
{

/* Sends the objects in the picture. Each stream has its own sequence of scenes; a slow reader misses scenes.
 */
class WorldFeed : public Feed
{
public:
  WorldFeed(std::optional<ObjectType> only, bool polygons);

  std::unique_ptr<MessageSource> open(Notify notify) override;
  std::string sample_frame() const override;

private:
  const std::optional<ObjectType> only_; /* all types if unset */
  const bool polygons_;
};

} // namespace sim

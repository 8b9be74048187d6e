#pragma once

#include "feed.h"
#include "world.h"

#include <optional>

namespace sim
{

/* Tells what is in the picture now. Each stream has its own story, which leaves out what there is no room
 * for. */
class WorldFeed : public Feed
{
public:
  WorldFeed(std::optional<ObjectType> only, bool polygons);

  std::unique_ptr<Teller> open(Wake wake) override;
  std::string sample_frame() const override;

private:
  const std::optional<ObjectType> only_; /* all objects if unset */
  const bool polygons_;
};

} /* namespace sim */

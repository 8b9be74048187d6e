#pragma once

#include "settings.h"
#include "world.h"

namespace sim
{

/* How far a source has told the world's story. It belongs to the streaming thread while the source runs, and
 * to the thread that starts it before. */
class Bookmark
{
public:
  void open();

  const Settings &settings() const;
  const World &world() const;
  WorldTime told_until() const;

  WorldTime now() const;
  bool can_continue(WorldTime now) const;
  gint64 next_change_deadline() const;
  void move_to(WorldTime time);

private:
  Settings settings_;
  World world_{0};
  WorldTime told_until_ = 0; /* no change up to here is told again */
  bool started_ = false;     /* whether anything has been told */
};

} /* namespace sim */

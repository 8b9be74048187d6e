/* SPDX-License-Identifier: MIT */
#pragma once

#include "settings.h"
#include "world.h"

namespace sim
{

/* The time up to which a source has reported the world's changes. Used by one thread at a time: the streaming
 * thread while the source runs, before that the thread that starts it. */
class WorldCursor
{
public:
  void open();

  const Settings &settings() const;
  const World &world() const;
  WorldTime position() const;

  WorldTime now() const;
  bool can_continue(WorldTime now) const;
  gint64 next_change_deadline() const;
  void advance_to(WorldTime time);

private:
  Settings settings_;
  World world_{0};
  WorldTime position_ = 0; /* changes up to this time are reported */
  bool started_ = false;   /* whether position_ is valid */
};

} // namespace sim

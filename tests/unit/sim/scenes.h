/* SPDX-License-Identifier: MIT */
#pragma once

#include "scenemodel.h"
#include "settings.h"
#include "sourceharness.h"

#include <functional>
#include <ostream>
#include <string>

/* Shared by the tests of the elements for scenes. */

/* The public names of one of the two plug-ins. */
struct Scenes {
  const char *source;
  const char *converter;
  const char *media_type;
  bool radar;
};

constexpr Scenes SCENE = {"scenesrc", "scene2xml", "application/vnd.quon.scene", false};
constexpr Scenes RADAR_SCENE = {"radarscenesrc", "radarscene2xml", "application/vnd.quon.radarscene", true};

/* The world with the default settings. */
inline const sim::World DEFAULT_WORLD(sim::Settings().seed);

void PrintTo(const Scenes &scenes, std::ostream *stream);

bool is_busy(sim::WorldTime from, sim::WorldTime until);
bool is_empty(sim::WorldTime from, sim::WorldTime until);
sim::WorldTime begin_where(const std::function<bool(sim::WorldTime)> &wanted);
std::string pop_message(GstBus *bus, GstMessageType type, GQuark domain, int code);

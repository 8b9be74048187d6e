/* SPDX-License-Identifier: MIT */
#pragma once

#include "registration.h"

/* The two plug-ins of scenes differ in their names and in whether they are the radar's. Each registers its
 * own types from the same code; the class of a type refers to the plug-in's description. */

namespace sim
{

struct ScenePlugin {
  const char *media_type; /* of the scenes between source and converter */
  bool radar;
  ElementDescription source;
  ElementDescription converter;
};

bool scene_plugin_register(GstPlugin *plugin, const ScenePlugin *description);

} // namespace sim

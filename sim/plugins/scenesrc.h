#pragma once

#include "sceneplugin.h"

namespace sim
{

bool scene_src_register(GstPlugin *plugin, const ScenePlugin *described);

} /* namespace sim */

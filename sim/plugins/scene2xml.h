#pragma once

#include "sceneplugin.h"

namespace sim
{

bool scene_converter_register(GstPlugin *plugin, const ScenePlugin *described);

} /* namespace sim */

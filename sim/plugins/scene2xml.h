#pragma once

#include "sceneplugin.h"

namespace sim
{

/* Characters of a source's name that are used. */
constexpr glong SOURCE_NAME_MAX = 1024;

bool scene_converter_register(GstPlugin *plugin, const ScenePlugin *described);

} /* namespace sim */

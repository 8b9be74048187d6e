/* SPDX-License-Identifier: MIT */
#include "sceneplugin.h"

#include "scene2xml.h"
#include "scenesrc.h"

#include <gst/base/gstbasetransform.h>
#include <gst/base/gstpushsrc.h>

namespace sim
{

/**
 * scene_plugin_register:
 * @plugin: the plug-in that is being loaded
 * @description: (transfer none): its description, which must stay valid as long as the process runs
 *
 * Registers the plug-in's source of scenes and its converter from scenes to ONVIF metadata.
 *
 * Returns: whether both are registered
 */
bool
scene_plugin_register(GstPlugin *plugin, const ScenePlugin *description)
{
  return element_register_class(plugin, description->source, GST_TYPE_PUSH_SRC,
                                scene_src_type_info(description)) &&
         element_register_class(plugin, description->converter, GST_TYPE_BASE_TRANSFORM,
                                scene_converter_type_info(description));
}

} // namespace sim

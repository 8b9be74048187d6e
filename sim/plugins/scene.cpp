/* SPDX-License-Identifier: MIT */
#include "sceneplugin.h"

namespace
{

constexpr sim::ScenePlugin SCENE = {
    .media_type = "application/vnd.quon.scene",
    .radar = false,
    .source =
        {
            .name = "scenesrc",
            .type_name = "TessardSimSceneSrc",
            .long_name = "Scene source",
            .description = "Produces what the simulated camera sees",
        },
    .converter =
        {
            .name = "scene2xml",
            .type_name = "TessardSimSceneToXml",
            .long_name = "Scene to ONVIF metadata",
            .description = "Turns the scenes of the simulated camera into ONVIF metadata",
        },
};

gboolean
plugin_init(GstPlugin *plugin)
{
  return sim::scene_plugin_register(plugin, &SCENE);
}

} // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, scene, "Scenes of the simulated camera", plugin_init,
                  VERSION, "MIT/X11", PACKAGE, "tessard")

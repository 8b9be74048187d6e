/* SPDX-License-Identifier: MIT */
#include "sceneplugin.h"

namespace
{

constexpr sim::ScenePlugin RADAR_SCENE = {
    .media_type = "application/vnd.quon.radarscene",
    .radar = true,
    .source =
        {
            .name = "radarscenesrc",
            .type_name = "TessardSimRadarSceneSrc",
            .long_name = "Radar scene source",
            .description = "Produces what the radar of the simulated camera sees",
        },
    .converter =
        {
            .name = "radarscene2xml",
            .type_name = "TessardSimRadarSceneToXml",
            .long_name = "Radar scene to ONVIF metadata",
            .description = "Turns the radar scenes of the simulated camera into ONVIF metadata",
        },
};

gboolean
plugin_init(GstPlugin *plugin)
{
  return sim::scene_plugin_register(plugin, &RADAR_SCENE);
}

} // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, radarscene, "Radar scenes of the simulated camera",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")

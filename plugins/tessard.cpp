/* SPDX-License-Identifier: MIT */
#include "tessardsrc.h"

/* The plug-in with the elements that only tessard has. */

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tessard, "ONVIF metadata of the daemon tessard",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")

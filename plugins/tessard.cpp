/* SPDX-License-Identifier: MIT */
#include "tessardsrc.h"

#ifdef HAVE_PRODUCER
#include "producerelement.h"
#endif

/* The plug-in with the elements that only tessard has. */

static gboolean
plugin_init(GstPlugin *plugin)
{
#ifdef HAVE_PRODUCER
  if (!gst_element_register(plugin, "tessardproducer", GST_RANK_NONE, TESSARD_TYPE_PRODUCER_ELEMENT)) {
    return FALSE;
  }
#endif
  return gst_element_register(plugin, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tessard, "ONVIF metadata of the daemon tessard",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")

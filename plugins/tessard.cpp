/* SPDX-License-Identifier: MIT */
#include "rtpdepay.h"
#include "rtppay.h"
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
  return gst_element_register(plugin, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC) &&
         gst_element_register(plugin, "tessardrtppay", GST_RANK_SECONDARY, TESSARD_TYPE_RTP_PAY) &&
         gst_element_register(plugin, "tessardrtpdepay", GST_RANK_SECONDARY, TESSARD_TYPE_RTP_DEPAY);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tessard, "ONVIF metadata of the daemon tessard",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")

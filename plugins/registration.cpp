/* SPDX-License-Identifier: MIT */
#include "registration.h"

/* GStreamer finds elements by name alone, not by rank. Of several plug-ins with an element of the same name,
 * the last one that registers it has it. */

namespace plugins
{

namespace
{

bool
is_provided_by_another(GstPlugin *plugin, const char *name)
{
  g_autoptr(GstPluginFeature) feature =
      gst_registry_find_feature(gst_registry_get(), name, GST_TYPE_ELEMENT_FACTORY);
  return feature != nullptr &&
         g_strcmp0(gst_plugin_feature_get_plugin_name(feature), gst_plugin_get_name(plugin)) != 0;
}

} // namespace

/**
 * register_unless_provided:
 * @plugin: the plug-in that is being loaded
 * @name: the name of the element's factory
 * @type: the element's type
 *
 * Registers an element with the lowest rank. If another plug-in has registered an element of this name, that
 * one stays and @plugin has none; one that registers it later replaces this one.
 *
 * Returns: %FALSE if GStreamer fails to register the element
 */
bool
register_unless_provided(GstPlugin *plugin, const char *name, GType type)
{
  return is_provided_by_another(plugin, name) || gst_element_register(plugin, name, GST_RANK_NONE, type);
}

} // namespace plugins

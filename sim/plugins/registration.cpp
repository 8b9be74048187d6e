/* SPDX-License-Identifier: MIT */
#include "registration.h"

namespace sim
{

/**
 * element_register_class:
 * @plugin: the plug-in that is being loaded; each may register a class once
 * @element: the names of the element
 * @parent: the parent type
 * @info: the class; its class data must stay valid as long as the process runs
 *
 * Registers a final type and its element. Several plug-ins register the same code this way, each under its
 * own type name.
 *
 * Returns: whether the element is registered
 */
bool
element_register_class(GstPlugin *plugin, const ElementDescription &element, GType parent,
                       const GTypeInfo &info)
{
  GType type = g_type_register_static(parent, element.type_name, &info, G_TYPE_FLAG_FINAL);
  return gst_element_register(plugin, element.name, GST_RANK_NONE, type);
}

} // namespace sim

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

/* Registers elements of which two plug-ins have the same code. */

namespace sim
{

struct ElementDescription {
  const char *name;      /* of the factory */
  const char *type_name; /* of the class */
  const char *long_name;
  const char *description;
};

bool element_register_class(GstPlugin *plugin, const ElementDescription &element, GType parent,
                            const GTypeInfo &info);

} // namespace sim

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

/* Registers all types of elements: those with a class of their own in C++ and those of GObject's macros. */

namespace sim
{

struct ElementDescription {
  const char *name;      /* of the factory */
  const char *type_name; /* of the class */
  const char *long_name;
  const char *description;
};

bool element_register(GstPlugin *plugin, const char *name, GType type);
bool element_register_class(GstPlugin *plugin, const ElementDescription &element, GType parent,
                            const GTypeInfo &info);

} // namespace sim

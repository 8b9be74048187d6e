#pragma once

#include <gst/gst.h>

/* The two plug-ins of scenes differ in little more than names. Each registers its own types from the same
 * code; a type's class carries the description that it was registered with. */

namespace sim
{

struct SceneElement {
  const char *name;      /* of its factory */
  const char *type_name; /* of its class */
  const char *long_name;
  const char *description;
};

struct ScenePlugin {
  const char *media_type; /* of what the source produces and the converter takes */
  bool radar;
  SceneElement source;
  SceneElement converter;
};

} /* namespace sim */

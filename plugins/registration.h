/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>

/* Registers elements that a camera's platform can also provide. */

namespace plugins
{

bool register_unless_provided(GstPlugin *plugin, const char *name, GType type);

} // namespace plugins

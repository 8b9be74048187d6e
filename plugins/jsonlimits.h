/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* The limits of JSON of untrusted origin. */

namespace plugins
{

constexpr guint JSON_DEPTH_MAX = 32; /* nested arrays and objects */
constexpr guint JSON_VALUES_MAX = 65536;
constexpr guint JSON_MEMBERS_MAX = 64; /* of each object */

} // namespace plugins

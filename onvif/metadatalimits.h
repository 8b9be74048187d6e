/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace onvif
{

/* The latest time that metadata have, in microseconds since 1970: the end of 2099. The earliest is 0. */
constexpr gint64 LATEST_UTC = G_GINT64_CONSTANT(4102444799) * G_USEC_PER_SEC;

/* Characters of a frame's source name; the rest is cut off. */
constexpr gsize SOURCE_NAME_MAX = 1024;

} // namespace onvif

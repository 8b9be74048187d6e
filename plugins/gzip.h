/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>

/* Whole texts to and from the format of gzip. The functions can be called on any thread. */

namespace plugins
{

GBytes *gzip_compress(const void *data, gsize size);
GBytes *gzip_expand(const void *data, gsize size, gsize max_size);

} // namespace plugins

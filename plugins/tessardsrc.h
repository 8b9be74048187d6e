/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/base/gstpushsrc.h>

/* The element tessardsrc: documents of ONVIF metadata from the daemon. */

G_BEGIN_DECLS

/**
 * TESSARD_SRC_FIRST_RETRY_MS:
 *
 * The time before the source connects again, for the first time after a document.
 */
#define TESSARD_SRC_FIRST_RETRY_MS 250

/**
 * TESSARD_SRC_LAST_RETRY_MS:
 *
 * The longest time before the source connects again; each failure doubles it up to here.
 */
#define TESSARD_SRC_LAST_RETRY_MS 8000

#define TESSARD_TYPE_SRC (tessard_src_get_type())

G_DECLARE_FINAL_TYPE(TessardSrc, tessard_src, TESSARD, SRC, GstPushSrc)

G_END_DECLS

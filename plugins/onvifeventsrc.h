/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define TESSARD_TYPE_EVENT_SRC (tessard_event_src_get_type())
G_DECLARE_FINAL_TYPE(TessardEventSrc, tessard_event_src, TESSARD, EVENT_SRC, GstPushSrc)

G_END_DECLS

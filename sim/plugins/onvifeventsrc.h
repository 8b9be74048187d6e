/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define TESSARD_SIM_TYPE_EVENT_SRC (tessard_sim_event_src_get_type())
G_DECLARE_FINAL_TYPE(TessardSimEventSrc, tessard_sim_event_src, TESSARD_SIM, EVENT_SRC, GstPushSrc)

G_END_DECLS

/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define TESSARD_SIM_TYPE_PTZ_SRC (tessard_sim_ptz_src_get_type())
G_DECLARE_FINAL_TYPE(TessardSimPtzSrc, tessard_sim_ptz_src, TESSARD_SIM, PTZ_SRC, GstPushSrc)

G_END_DECLS

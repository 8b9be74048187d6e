/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtp/gstrtpbasedepayload.h>

/* The element tessardrtpdepay: documents of ONVIF metadata from RTP packets. */

G_BEGIN_DECLS

#define TESSARD_TYPE_RTP_DEPAY (tessard_rtp_depay_get_type())

G_DECLARE_FINAL_TYPE(TessardRtpDepay, tessard_rtp_depay, TESSARD, RTP_DEPAY, GstRTPBaseDepayload)

G_END_DECLS

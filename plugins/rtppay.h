/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/rtp/gstrtpbasepayload.h>

/* The element tessardrtppay: documents of ONVIF metadata to RTP packets. */

G_BEGIN_DECLS

#define TESSARD_TYPE_RTP_PAY (tessard_rtp_pay_get_type())

G_DECLARE_FINAL_TYPE(TessardRtpPay, tessard_rtp_pay, TESSARD, RTP_PAY, GstRTPBasePayload)

G_END_DECLS

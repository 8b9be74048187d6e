/* SPDX-License-Identifier: MIT */
#include "rtpdepay.h"

#include "rtpdocument.h"

#include <gst/rtp/gstrtpbuffer.h>

/* Joins packets to documents. The base class finds where packets are missing, and marks the next one as a
 * discontinuity.
 *
 * Threads: the object lock protects `dropped`, a copy of the collector's count. Only the streaming thread
 * uses the collector, and while that does not run the thread that changes the state. */

struct _TessardRtpDepay {
  GstRTPBaseDepayload parent_instance;
  plugins::RtpDocumentCollector *collector;
  bool is_gzip;
  guint64 dropped;
};

enum {
  PROP_DROPPED = 1,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

/* The payload type and the clock rate are those of the sender. */
static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("application/x-rtp, media=(string)application, clock-rate=(int)[ 1, MAX ], "
                    "encoding-name=(string){ VND.ONVIF.METADATA, VND.ONVIF.METADATA+GZIP }"));

static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("application/x-onvif-metadata"));

G_DEFINE_FINAL_TYPE(TessardRtpDepay, tessard_rtp_depay, GST_TYPE_RTP_BASE_DEPAYLOAD)

namespace
{

void
publish_dropped(TessardRtpDepay *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  self->dropped = self->collector->dropped();
}

/* Returns: (transfer full) (nullable): the document that ends with this packet */
GBytes *
collect(TessardRtpDepay *self, GstRTPBuffer *rtp)
{
  const std::string_view payload(static_cast<const char *>(gst_rtp_buffer_get_payload(rtp)),
                                 gst_rtp_buffer_get_payload_len(rtp));
  if (GST_BUFFER_IS_DISCONT(rtp->buffer)) {
    self->collector->lose();
  }
  return self->collector->take(payload, gst_rtp_buffer_get_timestamp(rtp),
                               gst_rtp_buffer_get_marker(rtp) != FALSE);
}

} // namespace

static gboolean
tessard_rtp_depay_set_caps(GstRTPBaseDepayload *base, GstCaps *caps)
{
  TessardRtpDepay *self = TESSARD_RTP_DEPAY(base);
  const GstStructure *structure = gst_caps_get_structure(caps, 0);
  gst_structure_get_int(structure, "clock-rate", reinterpret_cast<gint *>(&base->clock_rate));
  const char *encoding = gst_structure_get_string(structure, "encoding-name");
  const bool is_gzip = g_strcmp0(encoding, plugins::RTP_METADATA_GZIP_ENCODING) == 0;
  if (is_gzip != self->is_gzip) {
    self->is_gzip = is_gzip;
    self->collector->begin(is_gzip);
  }
  g_autoptr(GstCaps) metadata = gst_static_pad_template_get_caps(&src_template);
  return gst_pad_set_caps(GST_RTP_BASE_DEPAYLOAD_SRCPAD(base), metadata);
}

static GstBuffer *
tessard_rtp_depay_process_rtp_packet(GstRTPBaseDepayload *base, GstRTPBuffer *rtp)
{
  TessardRtpDepay *self = TESSARD_RTP_DEPAY(base);
  g_autoptr(GBytes) document = collect(self, rtp);
  publish_dropped(self);
  return document != nullptr ? gst_buffer_new_wrapped_bytes(document) : nullptr;
}

static gboolean
tessard_rtp_depay_handle_event(GstRTPBaseDepayload *base, GstEvent *event)
{
  TessardRtpDepay *self = TESSARD_RTP_DEPAY(base);
  if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
    self->collector->begin(self->is_gzip);
  }
  return GST_RTP_BASE_DEPAYLOAD_CLASS(tessard_rtp_depay_parent_class)->handle_event(base, event);
}

static GstStateChangeReturn
tessard_rtp_depay_change_state(GstElement *element, GstStateChange transition)
{
  TessardRtpDepay *self = TESSARD_RTP_DEPAY(element);
  const GstStateChangeReturn result =
      GST_ELEMENT_CLASS(tessard_rtp_depay_parent_class)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
    self->collector->begin(self->is_gzip);
  }
  return result;
}

static void
tessard_rtp_depay_init(TessardRtpDepay *self)
{
  self->collector = new plugins::RtpDocumentCollector();
}

static void
tessard_rtp_depay_finalize(GObject *object)
{
  delete TESSARD_RTP_DEPAY(object)->collector;
  G_OBJECT_CLASS(tessard_rtp_depay_parent_class)->finalize(object);
}

static void
tessard_rtp_depay_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TessardRtpDepay *self = TESSARD_RTP_DEPAY(object);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  switch (id) {
  case PROP_DROPPED:
    g_value_set_uint64(value, self->dropped);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_rtp_depay_class_init(TessardRtpDepayClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstRTPBaseDepayloadClass *base_class = GST_RTP_BASE_DEPAYLOAD_CLASS(klass);

  object_class->finalize = tessard_rtp_depay_finalize;
  object_class->get_property = tessard_rtp_depay_get_property;
  element_class->change_state = tessard_rtp_depay_change_state;
  base_class->set_caps = tessard_rtp_depay_set_caps;
  base_class->process_rtp_packet = tessard_rtp_depay_process_rtp_packet;
  base_class->handle_event = tessard_rtp_depay_handle_event;
  properties[PROP_DROPPED] = g_param_spec_uint64(
      "dropped", "Dropped",
      "How many documents were dropped because they were incomplete, too long or not valid gzip", 0,
      G_MAXUINT64, 0, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);

  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "RTP depayloader of ONVIF metadata",
                                        "Codec/Depayloader/Network/RTP",
                                        "Joins RTP packets to documents of ONVIF metadata", "tessard");
}

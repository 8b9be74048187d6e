/* SPDX-License-Identifier: MIT */
/* Converts a producer's sample frame from JSON to ONVIF XML, with the element that also converts the
 * producer's data. Each call makes its own pipeline for one buffer, so any number of threads can convert at
 * the same time.
 */
#include "sampleframe.h"

#include "externalsourcesocket.h"

#include <cstring>
#include <gst/app/app.h>
#include <gst/gst.h>
#include <utility>

namespace
{

constexpr GstClockTime TIMEOUT = SAMPLE_FRAME_TIMEOUT_MS * GST_MSECOND;

/* Returns a full reference, not a floating one, or NULL. */
GstElement *
make_element(const gchar *factory)
{
  GstElement *element = gst_element_factory_make(factory, nullptr);

  return element != nullptr ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr;
}

/* The caller borrows @source and @sink from the pipeline. */
GstElement *
make_pipeline(GstAppSrc **source, GstAppSink **sink)
{
  g_autoptr(GstElement) pipeline = gst_pipeline_new("json2xml");
  if (pipeline == nullptr) {
    return nullptr;
  }
  g_autoptr(GstElement) first = make_element("appsrc");
  g_autoptr(GstElement) converter = make_element("json2xml");
  g_autoptr(GstElement) last = make_element("appsink");
  if (first == nullptr || converter == nullptr || last == nullptr) {
    return nullptr;
  }

  g_object_set(converter, "sample-frame", TRUE, nullptr);
  g_object_set(last, "sync", FALSE, nullptr);
  gst_bin_add_many(GST_BIN(pipeline), first, converter, last, nullptr);
  if (!gst_element_link_many(first, converter, last, nullptr)) {
    return nullptr;
  }
  *source = GST_APP_SRC(first);
  *sink = GST_APP_SINK(last);
  return g_steal_pointer(&pipeline);
}

/* Takes ownership of the text. */
void
append_text(GstBuffer *buffer, gchar *text)
{
  const gsize size = strlen(text);

  gst_buffer_append_memory(
      buffer, gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), text, size, 0, size, text, g_free));
}

/* Takes ownership of the JSON. The name: docs/compatibility.md, "unescaped names". */
GstBuffer *
make_frame(gchar *json, const gchar *producer_name)
{
  GstBuffer *frame = gst_buffer_new();

  append_text(frame, g_strdup_printf(EXTERNAL_SOURCE_FRAME_START, producer_name));
  append_text(frame, json);
  append_text(frame, g_strdup(EXTERNAL_SOURCE_FRAME_END));
  return frame;
}

gchar *
pull_text(GstAppSink *sink)
{
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(sink, TIMEOUT);
  if (sample == nullptr) {
    return nullptr;
  }
  GstBuffer *buffer = gst_sample_get_buffer(sample);
  const gsize size = gst_buffer_get_size(buffer);
  auto *text = static_cast<gchar *>(g_malloc0(size + 1));

  gst_buffer_extract(buffer, 0, text, size);
  return text;
}

} // namespace

/**
 * sample_frame_convert:
 * @json: (inout) (transfer full): the producer's sample frame; set to %NULL, except when no pipeline can be
 *   made for it: then the caller keeps it
 * @producer_name: (transfer none): the name of the producer
 *
 * Waits up to %SAMPLE_FRAME_TIMEOUT_MS for the converter's output. Logs nothing. Any thread.
 *
 * Warnings: "json != NULL" and "producer_name != NULL" are preconditions.
 *
 * Returns: (transfer full) (nullable): the sample frame as ONVIF XML; %NULL when there is no converter, or it
 *   has no output in time
 */
gchar *
sample_frame_convert(gchar **json, const gchar *producer_name)
{
  if (json == nullptr || *json == nullptr) {
    g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "json != NULL");
    return nullptr;
  }
  g_return_val_if_fail(producer_name != NULL, nullptr);

  GstAppSrc *source = nullptr;
  GstAppSink *sink = nullptr;
  g_autoptr(GstElement) pipeline = make_pipeline(&source, &sink);
  if (pipeline == nullptr) {
    return nullptr;
  }
  GstBuffer *frame = make_frame(std::exchange(*json, nullptr), producer_name);
  if (gst_app_src_push_buffer(source, frame) != GST_FLOW_OK) {
    return nullptr;
  }
  /* docs/compatibility.md, "conversion state". */
  if (gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_ASYNC) {
    return nullptr;
  }

  gchar *xml = pull_text(sink);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  return xml;
}

/* SPDX-License-Identifier: MIT */
/* Prints the daemon's documents, one a line. The arguments are properties of tessardsrc, by default
 * analytics=2:
 *
 *     client analytics=1 video-channel=1 event=true
 *
 * gcc client.c -o client $(pkg-config --cflags --libs gstreamer-app-1.0)
 */
#include <gst/app/gstappsink.h>
#include <stdio.h>
#include <stdlib.h>

/* Prints a document with blanks for its line breaks, on the thread of the stream. */
static GstFlowReturn
on_document(GstAppSink *sink, gpointer user_data)
{
  GstSample *sample = gst_app_sink_pull_sample(sink);
  GstMapInfo map;

  if (gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ)) {
    for (gsize i = 0; i < map.size; i++) {
      putchar(map.data[i] == '\n' ? ' ' : map.data[i]);
    }
    putchar('\n');
    fflush(stdout);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
  gst_sample_unref(sample);
  return ferror(stdout) ? GST_FLOW_EOS : GST_FLOW_OK;
}

/* Waits for the end. An error has the daemon's reason. */
static int
wait_for_end(GstElement *pipeline)
{
  GstBus *bus = gst_element_get_bus(pipeline);
  GstMessage *message =
      gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, GST_MESSAGE_ERROR | GST_MESSAGE_EOS);
  int status = EXIT_SUCCESS;

  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError *error = NULL;
    gst_message_parse_error(message, &error, NULL);
    fprintf(stderr, "client: %s\n", error->message);
    g_error_free(error);
    status = EXIT_FAILURE;
  }
  gst_message_unref(message);
  gst_object_unref(bus);
  return status;
}

int
main(int argc, char **argv)
{
  gchar *properties = argc > 1 ? g_strjoinv(" ", argv + 1) : g_strdup("analytics=2");
  gchar *description = g_strdup_printf("tessardsrc %s ! appsink name=documents sync=false", properties);
  GstAppSinkCallbacks callbacks = {.new_sample = on_document};
  GError *error = NULL;

  gst_init(NULL, NULL);
  GstElement *pipeline = gst_parse_launch(description, &error);
  g_free(description);
  g_free(properties);
  if (error != NULL) {
    fprintf(stderr, "client: %s\n", error->message);
    return EXIT_FAILURE;
  }
  GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "documents");
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, NULL, NULL);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  const int status = wait_for_end(pipeline);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
  return status;
}

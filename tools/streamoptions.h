/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* stream_options_parse() is for the main thread, stream_options_build_request() for any. */

/* The options of "tessardctl stream". Texts hold the bytes of the command line, NULL without the option. */
struct StreamOptions {
  StreamOptions() = default;
  StreamOptions(const StreamOptions &) = delete;
  StreamOptions &operator=(const StreamOptions &) = delete;
  ~StreamOptions();

  gboolean event = FALSE;
  gchar *event_topic = nullptr;
  gchar *event_content = nullptr;
  gchar *analytics = nullptr;
  gchar *ptz = nullptr;
  gchar *pantilt_space = nullptr;
  gchar *zoom_space = nullptr;
  gchar *channel = nullptr;
  gchar *socket_path = nullptr;
  gchar *output_path = nullptr; /* NULL for standard output */
  gboolean sync = FALSE;
  gboolean pretty = FALSE;
  guint64 count = 0;    /* documents; 0 for no end */
  guint timeout_ms = 0; /* 0 for no end */
};

gboolean stream_options_parse(StreamOptions *options, int argc, char **argv, GError **error);
gchar *stream_options_build_request(const StreamOptions *options);

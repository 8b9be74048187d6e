/* SPDX-License-Identifier: MIT */
#pragma once

#include "requestoptions.h"

/* stream_options_parse() is for the main thread, the other functions for any. */

/* The options of "tessardctl stream". Texts hold the bytes of the command line, NULL without the option. */
struct StreamOptions {
  StreamOptions() = default;
  StreamOptions(const StreamOptions &) = delete;
  StreamOptions &operator=(const StreamOptions &) = delete;
  ~StreamOptions();

  RequestOptions request;
  gchar *socket_path = nullptr;
  gchar *output_path = nullptr; /* NULL for standard output */
  gboolean sync = FALSE;
  gboolean pretty = FALSE;
  guint64 count = 0;    /* documents; 0 for no end */
  guint timeout_ms = 0; /* 0 for no end */
};

gboolean stream_options_parse(StreamOptions *options, int argc, char **argv, GError **error);
gboolean stream_options_parse_timeout(const gchar *text, guint *timeout_ms, GError **error);
gchar *stream_options_build_request(const StreamOptions *options);

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* The functions are for the main thread, except request_options_foreach(), which is for any. */

/* The options that say what to ask the daemon for, of every program that sends a request. Texts hold the
 * bytes of the command line, NULL without the option. */
struct RequestOptions {
  RequestOptions() = default;
  RequestOptions(const RequestOptions &) = delete;
  RequestOptions &operator=(const RequestOptions &) = delete;
  ~RequestOptions();

  gboolean event = FALSE;
  gchar *event_topic = nullptr;
  gchar *event_content = nullptr;
  gchar *analytics = nullptr;
  gchar *ptz = nullptr;
  gchar *pantilt_space = nullptr;
  gchar *zoom_space = nullptr;
  gchar *channel = nullptr; /* the programs that have this option add it themselves */
};

/* Gets one key of the protocol and its value. A text can have any bytes; other values are one line. */
typedef void (*RequestOptionsFunc)(const gchar *key, const gchar *value, gboolean is_text,
                                   gpointer user_data);

void request_options_add(RequestOptions *options, GOptionContext *context);
gboolean request_options_has_kind(const RequestOptions *options);
gboolean request_options_check(const RequestOptions *options, GError **error);
void request_options_foreach(const RequestOptions *options, RequestOptionsFunc function, gpointer user_data);

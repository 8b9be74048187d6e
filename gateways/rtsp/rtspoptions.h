/* SPDX-License-Identifier: MIT */
#pragma once

#include "requestoptions.h"

namespace rtsp
{

/* The program's options. Texts are NULL without the option. */
struct Options {
  Options() = default;
  Options(const Options &) = delete;
  Options &operator=(const Options &) = delete;
  ~Options();

  RequestOptions request;
  gchar *socket_path = nullptr;
  gint port = 8554;
  gchar *address = nullptr;
  gint channels = 1;
  gchar **videos = nullptr;
  gboolean no_video = FALSE;
  gboolean gzip = FALSE;
  gchar *users = nullptr;
  gboolean no_authentication = FALSE;
  gchar *certificate = nullptr;
  gchar *key = nullptr;
  gchar *multicast = nullptr;
  gint ttl = 1;
  gboolean version = FALSE;
};

bool parse_options(Options *options, int *argc, char ***argv, GError **error);

} // namespace rtsp

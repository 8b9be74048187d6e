/* SPDX-License-Identifier: MIT */
#pragma once

#include "requestoptions.h"

namespace view
{

/* The port without the option, while the command line is parsed. */
constexpr gint NO_PORT = G_MININT;

/* The program's options. Texts are NULL without the option. */
struct Options {
  Options() = default;
  Options(const Options &) = delete;
  Options &operator=(const Options &) = delete;
  ~Options();

  RequestOptions request;
  gchar *socket_path = nullptr;
  gchar *bus_address = nullptr;
  gint port = NO_PORT;
  gchar *listen_path = nullptr;
  gint channels = 1;
  gchar **videos = nullptr;
  gboolean control = FALSE;
  gboolean version = FALSE;
};

bool parse_options(Options *options, int *argc, char ***argv, GError **error);

} // namespace view

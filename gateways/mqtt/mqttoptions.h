/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace mqtt
{

/* The program's options. Texts are NULL without the option. */
struct Options {
  Options() = default;
  Options(const Options &) = delete;
  Options &operator=(const Options &) = delete;
  ~Options();

  gchar *socket_path = nullptr;
  gchar *config_path = nullptr; /* NULL if there is no file */
  gboolean check_config = FALSE;
  gboolean version = FALSE;
};

bool parse_options(Options *options, int *argc, char ***argv, GError **error);

} // namespace mqtt

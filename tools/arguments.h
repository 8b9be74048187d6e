/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

/* arguments_parse() is for the main thread, the other functions for any. */

/* The arguments of a command that calls the daemon over the bus, and its help. */
struct ArgumentRules {
  const gchar *names; /* of the arguments, separated by blanks; all are required */
  const gchar *summary;
  const gchar *description; /* NULL for none */
};

/* The parsed command line. Texts hold its bytes. */
struct Arguments {
  Arguments() = default;
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;
  ~Arguments();

  gchar *bus_address = nullptr; /* NULL for the system bus */
  gchar **words = nullptr;      /* one for each name of the rules */
};

gboolean arguments_parse(Arguments *arguments, const ArgumentRules *rules, const GOptionEntry *options,
                         int argc, char **argv, GError **error);
gboolean arguments_check_configuration(const gchar *text, GError **error);
gboolean arguments_parse_channel(const gchar *text, gint32 *channel, GError **error);

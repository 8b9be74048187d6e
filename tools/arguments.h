#pragma once

#include <glib.h>

/* What a command that talks to the daemon over the bus takes. */
struct ArgumentRules {
  const gchar *names; /* of the arguments, with blanks between; all have to be given */
  const gchar *summary;
  const gchar *description; /* NULL for none */
};

/* What the user gave. Texts are in the user's own bytes. */
struct Arguments {
  Arguments() = default;
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;
  ~Arguments();

  gchar *bus_address = nullptr; /* NULL for the system's bus */
  gchar **words = nullptr;      /* as many as the rules name */
};

gboolean arguments_parse(Arguments *arguments, const ArgumentRules *rules, const GOptionEntry *options,
                         int argc, char **argv, GError **error);
gboolean arguments_check_text(const gchar *name, const gchar *text, GError **error);
gboolean arguments_parse_channel(const gchar *text, gint32 *channel, GError **error);

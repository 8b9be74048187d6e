/* SPDX-License-Identifier: MIT */
#pragma once

#include "arguments.h"

#include <glib.h>
#include <string>
#include <vector>

/**
 * PRODUCE_MAX_SAMPLE_BYTES:
 *
 * The length of the file with the sample frame. The receiver accepts no longer sample frames.
 */
#define PRODUCE_MAX_SAMPLE_BYTES (256 * 1024)

/* The parsed command line of "tessardctl produce". */
struct ProduceOptions {
  Arguments arguments;
  std::string name;
  std::string nice_name;
  std::vector<guint32> channels;
  std::string sample_frame; /* empty for the first item */
  gboolean strict = FALSE;
};

gboolean produce_options_parse(ProduceOptions *options, int argc, char **argv, GError **error);

/* SPDX-License-Identifier: MIT */
#pragma once

#include "streamoptions.h"

/**
 * SNAPSHOT_TIMEOUT_MS:
 *
 * The time limit without the option, in milliseconds.
 */
#define SNAPSHOT_TIMEOUT_MS (30 * 1000)

/* All functions are for the main thread. */

/* The options of "tessardctl snapshot". Texts hold the bytes of the command line, NULL without the option. */
struct SnapshotOptions {
  SnapshotOptions() = default;
  SnapshotOptions(const SnapshotOptions &) = delete;
  SnapshotOptions &operator=(const SnapshotOptions &) = delete;
  ~SnapshotOptions();

  StreamOptions stream;        /* its output path is that of the drawing, and it always has a time limit */
  gchar *input_path = nullptr; /* of a document, instead of a request */
};

gboolean snapshot_options_parse(SnapshotOptions *options, int argc, char **argv, GError **error);

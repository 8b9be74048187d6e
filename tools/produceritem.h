/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerframe.h"

#include <glib.h>
#include <string>
#include <string_view>

/**
 * PRODUCE_MAX_LINE_BYTES:
 *
 * The length of the longest line that is checked. The receiver and the daemon accept no longer messages.
 */
#define PRODUCE_MAX_LINE_BYTES (1024 * 1024)

/* Checks the items of producers, by the rules of the element that converts them. Any thread, one at a time.
 */
class ProducerItemChecker
{
public:
  gboolean check(std::string_view text, plugins::ProducerFlaws *flaws);

private:
  plugins::ProducerReader reader;
  std::string frame;
};

/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerframe.h"

/* A second implementation of json2xml's conversion, with json-glib and libxml2; tests compare the two. */

namespace oracle
{

struct Reading {
  plugins::ProducerFlaws flaws;
  bool has_huge_number = false; /* see JsonForm */
};

std::optional<plugins::ProducerFrame> read_frame_text(std::string text, Reading *reading);

} // namespace oracle

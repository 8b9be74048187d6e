/* SPDX-License-Identifier: MIT */
#pragma once

#include "text.h"

#include <optional>
#include <string>

namespace sim
{

/* Splits a sequence of bytes into lines. Empty lines, and lines that are too long for a message, are dropped.
 */
class LineSplitter
{
public:
  void push(std::string_view bytes);
  void finish();
  std::optional<SharedText> pop();
  gsize dropped() const;

private:
  std::string bytes_;  /* bytes that are not split yet */
  gsize begin_ = 0;    /* of the next line in `bytes_` */
  gsize searched_ = 0; /* no line ends before this offset */
  gsize dropped_ = 0;
  bool dropping_ = false; /* whether the current line is too long */
};

} // namespace sim

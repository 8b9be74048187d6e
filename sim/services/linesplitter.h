/* SPDX-License-Identifier: MIT */
#pragma once

#include "linecutter.h"
#include "text.h"

#include <optional>

namespace sim
{

/* Splits a sequence of bytes into lines. Empty lines, and lines that are too long for a message, are dropped.
 */
class LineSplitter
{
public:
  LineSplitter();

  void push(std::string_view bytes);
  void finish();
  std::optional<SharedText> pop();
  gsize dropped() const;

private:
  LineCutter cutter_;
  gsize dropped_ = 0;
};

} // namespace sim

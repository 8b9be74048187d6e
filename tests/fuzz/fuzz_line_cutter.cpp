/* SPDX-License-Identifier: MIT */
// Arbitrary bytes of a program that writes lines, in pieces: the cutter and a simple model, which has all
// bytes at once, find the same lines. The input also determines the pieces.
#include "fuzz.h"
#include "linecutter.h"

#include <tuple>
#include <vector>

namespace
{

constexpr size_t MAX_PIECES = 64;
constexpr gsize MAX_LINE_BYTES = 8;

// Number, whether it is too long, text.
using Lines = std::vector<std::tuple<guint64, bool, std::string>>;

void
add_line(Lines *lines, std::string_view text)
{
  const bool too_long = text.size() > MAX_LINE_BYTES;
  lines->emplace_back(lines->size() + 1, too_long, too_long ? "" : text);
}

Lines
model(std::string_view bytes)
{
  Lines lines;
  while (!bytes.empty()) {
    const size_t size = std::min(bytes.find('\n'), bytes.size());
    add_line(&lines, bytes.substr(0, size));
    bytes.remove_prefix(std::min(size + 1, bytes.size()));
  }
  return lines;
}

void
pop_all(LineCutter *cutter, Lines *lines)
{
  while (const std::optional<Line> line = cutter->pop()) {
    lines->emplace_back(line->number, line->too_long != FALSE, line->text);
  }
}

Lines
cut(std::string_view bytes, bool at_once)
{
  LineCutter cutter(MAX_LINE_BYTES);
  Lines lines;
  for (std::string_view piece : fuzz::cut_into_pieces(bytes, MAX_PIECES)) {
    cutter.push(piece);
    if (at_once) {
      pop_all(&cutter, &lines);
    }
  }
  cutter.finish();
  pop_all(&cutter, &lines);
  return lines;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string_view bytes = fuzz::as_text(data, size);
  const Lines expected = model(bytes);
  fuzz::require(cut(bytes, true) == expected, "lines that are cut at once are those of the model");
  fuzz::require(cut(bytes, false) == expected, "lines that are cut at the end are those of the model");
  return 0;
}

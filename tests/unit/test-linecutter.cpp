/* SPDX-License-Identifier: MIT */
#include "linecutter.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

constexpr gsize LIMIT = 10;

const std::string LONGEST(LIMIT, 'x');
const std::string TOO_LONG(LIMIT + 1, 'x');

/* Each line as "NUMBER:TEXT", or "NUMBER!" if it is too long. */
std::vector<std::string>
pop_all(LineCutter &cutter)
{
  std::vector<std::string> lines;
  while (const std::optional<Line> line = cutter.pop()) {
    lines.push_back(std::to_string(line->number) + (line->too_long ? "!" : ":") + line->text);
  }
  return lines;
}

/* The lines of a text that arrives in pieces of this size. */
std::vector<std::string>
cut(const std::string &text, gsize piece)
{
  LineCutter cutter(LIMIT);
  std::vector<std::string> lines;

  for (gsize at = 0; at < text.size(); at += piece) {
    cutter.push(std::string_view(text).substr(at, piece));
    for (std::string &line : pop_all(cutter)) {
      lines.push_back(std::move(line));
    }
  }
  cutter.finish();
  for (std::string &line : pop_all(cutter)) {
    lines.push_back(std::move(line));
  }
  return lines;
}

using Lines = std::vector<std::string>;

TEST(LineCutterTest, CountsEveryLine)
{
  const std::string text = "a\n\n" + TOO_LONG + "\n\r\nb c\n" + LONGEST;
  const Lines lines = {"1:a", "2:", "3!", "4:\r", "5:b c", "6:" + LONGEST};

  for (gsize piece = 1; piece <= text.size(); piece++) {
    EXPECT_EQ(cut(text, piece), lines) << piece;
  }
}

TEST(LineCutterTest, LastLineNeedsNoLineFeed)
{
  EXPECT_EQ(cut("", 1), Lines());
  EXPECT_EQ(cut("a", 1), Lines({"1:a"}));
  EXPECT_EQ(cut("a\n", 1), Lines({"1:a"}));
  EXPECT_EQ(cut("a\n" + TOO_LONG, 3), Lines({"1:a", "2!"}));
  EXPECT_EQ(cut("a\nb", 3), Lines({"1:a", "2:b"}));
}

TEST(LineCutterTest, FinishKeepsLinesThatWereNotPopped)
{
  LineCutter cutter(LIMIT);

  cutter.push("a\nb\nc");
  EXPECT_EQ(cutter.pop()->text, "a");
  cutter.finish();
  EXPECT_EQ(pop_all(cutter), Lines({"2:b", "3:c"}));
}

TEST(LineCutterTest, KeepsBytes)
{
  const std::string bytes("\0\xff\t\x80", 4);
  LineCutter cutter(LIMIT);

  cutter.push(bytes + "\n");
  EXPECT_EQ(cutter.pop()->text, bytes);
}

} // namespace

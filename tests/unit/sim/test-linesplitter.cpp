/* SPDX-License-Identifier: MIT */
#include "linesplitter.h"

#include <gtest/gtest.h>

using sim::LineSplitter;
using sim::MAX_TEXT_BYTES;

namespace
{

std::vector<std::string>
pop_all(LineSplitter &splitter)
{
  std::vector<std::string> lines;
  while (std::optional<sim::SharedText> line = splitter.pop()) {
    lines.emplace_back(sim::shared_text_view(*line));
  }
  return lines;
}

TEST(LineSplitterTest, EmptyInputHasNoLine)
{
  LineSplitter splitter;
  EXPECT_EQ(splitter.pop(), std::nullopt);
  splitter.finish();
  EXPECT_EQ(splitter.pop(), std::nullopt);
}

TEST(LineSplitterTest, DropsTerminatorsAndEmptyLines)
{
  LineSplitter splitter;
  splitter.push("\none\n\n\ntwo\r\n\r\n three\n");
  EXPECT_EQ(pop_all(splitter), std::vector<std::string>({"one", "two\r", " three"}));
}

TEST(LineSplitterTest, LinesDoNotDependOnTheChunks)
{
  const std::string text = "one\n\ntwo\nthree";
  for (gsize cut = 0; cut <= text.size(); cut++) {
    LineSplitter splitter;
    splitter.push(text.substr(0, cut));
    std::vector<std::string> lines = pop_all(splitter);
    splitter.push(text.substr(cut));
    for (const std::string &line : pop_all(splitter)) {
      lines.push_back(line);
    }
    splitter.finish();
    for (const std::string &line : pop_all(splitter)) {
      lines.push_back(line);
    }
    EXPECT_EQ(lines, std::vector<std::string>({"one", "two", "three"})) << cut;
  }
}

TEST(LineSplitterTest, BytesAreNotChanged)
{
  const std::string line("\0\xff\"", 3);
  LineSplitter splitter;
  splitter.push(line + "\n");
  EXPECT_EQ(pop_all(splitter), std::vector<std::string>({line}));
}

TEST(LineSplitterTest, AcceptsTheLongestLineAndDropsALongerOne)
{
  const std::string longest(MAX_TEXT_BYTES, 'x');
  LineSplitter splitter;
  splitter.push(longest + "\n" + longest + "x\nshort\n");
  EXPECT_EQ(pop_all(splitter), std::vector<std::string>({longest, "short"}));
  EXPECT_EQ(splitter.dropped(), 1U);
}

TEST(LineSplitterTest, DropsATooLongLineInAnyChunks)
{
  const std::string half(MAX_TEXT_BYTES / 2 + 1, 'x');
  LineSplitter splitter;
  for (int i = 0; i < 5; i++) {
    splitter.push(half);
    EXPECT_EQ(splitter.pop(), std::nullopt);
  }
  EXPECT_EQ(splitter.dropped(), 0U);
  splitter.push("x\nshort");
  EXPECT_EQ(splitter.pop(), std::nullopt);
  splitter.finish();
  EXPECT_EQ(pop_all(splitter), std::vector<std::string>({"short"}));
  EXPECT_EQ(splitter.dropped(), 1U);
}

} // namespace

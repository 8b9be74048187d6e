/* SPDX-License-Identifier: MIT */
#include "logtext.h"

#include "testhost.h"

#include <string>

namespace
{

class LogTextTest : public testhost::Fixture
{
};

std::string
clip(const std::string &text)
{
  g_autofree gchar *clipped = log_text_clip(text.c_str());

  return clipped;
}

std::string
repeat(const std::string &character, gsize count)
{
  std::string text;

  for (gsize i = 0; i < count; i++) {
    text += character;
  }
  return text;
}

} // namespace

TEST_F(LogTextTest, KeepsATextWithinTheLimit)
{
  const std::string longest(LOG_TEXT_MAX_BYTES, 'x');

  EXPECT_EQ(clip(""), "");
  EXPECT_EQ(clip("100 %s%n"), "100 %s%n");
  EXPECT_EQ(clip(longest), longest);
}

TEST_F(LogTextTest, ClipsALongerText)
{
  const std::string longest(LOG_TEXT_MAX_BYTES, 'x');

  EXPECT_EQ(clip(longest + "x"), longest + "... (1 bytes left out)");
  EXPECT_EQ(clip(longest + std::string(1000000, 'y')), longest + "... (1000000 bytes left out)");
}

class LogTextCharacterTest : public LogTextTest, public testing::WithParamInterface<const char *>
{
};

/* The limit is before, within and after the bytes of the character. */
TEST_P(LogTextCharacterTest, IsKeptOrDroppedAsAWhole)
{
  const std::string character = GetParam();

  for (gsize before = 0; before < character.size(); before++) {
    const std::string text = std::string(before, 'x') + repeat(character, LOG_TEXT_MAX_BYTES + 1);
    const gsize whole = (LOG_TEXT_MAX_BYTES - before) / character.size();
    const gsize left_out = (LOG_TEXT_MAX_BYTES + 1 - whole) * character.size();
    EXPECT_EQ(clip(text), std::string(before, 'x') + repeat(character, whole) + "... (" +
                              std::to_string(left_out) + " bytes left out)");
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, LogTextCharacterTest,
                         testing::Values("x", "\u00e4", "\u20ac", "\U0001f600"));

struct Escape {
  std::string text;
  std::string line;
};

class LogTextEscapeTest : public LogTextTest, public testing::WithParamInterface<Escape>
{
};

TEST_P(LogTextEscapeTest, MakesOneLine)
{
  EXPECT_EQ(clip("<" + GetParam().text + ">"), "<" + GetParam().line + ">");
  EXPECT_EQ(clip(GetParam().text), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(Texts, LogTextEscapeTest,
                         testing::Values(Escape{"a\nb", R"(a\x0ab)"},
                                         Escape{"\r\t\v\x1b[2J", R"(\x0d\x09\x0b\x1b[2J)"},
                                         Escape{"\x7f", R"(\x7f)"}, Escape{"\u0085", R"(\xc2\x85)"},
                                         Escape{"\u2028\u2029", R"(\xe2\x80\xa8\xe2\x80\xa9)"},
                                         Escape{"\xff\xfe", R"(\xff\xfe)"}, Escape{"\xe2\x82", R"(\xe2\x82)"},
                                         Escape{"\xe2\x82x", R"(\xe2\x82x)"},
                                         Escape{"\xed\xa0\x80", R"(\xed\xa0\x80)"},
                                         Escape{"\xc0\xaf", R"(\xc0\xaf)"}, Escape{R"(a\nb)", R"(a\nb)"},
                                         Escape{"100 %s%n", "100 %s%n"}, Escape{"\u00e4", "\u00e4"}));

/* The limit applies to the line. */
TEST_F(LogTextTest, CountsTheLengthOfEscapes)
{
  constexpr gsize ESCAPED = 4;
  const gsize fitting = LOG_TEXT_MAX_BYTES / ESCAPED;

  EXPECT_EQ(clip(std::string(fitting, '\n')), repeat(R"(\x0a)", fitting));
  EXPECT_EQ(clip(std::string(fitting + 2, '\xff')), repeat(R"(\xff)", fitting) + "... (2 bytes left out)");
}

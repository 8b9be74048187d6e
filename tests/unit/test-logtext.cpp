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

TEST_F(LogTextTest, KeepsWhatFits)
{
  const std::string longest(LOG_TEXT_MAX_BYTES, 'x');

  EXPECT_EQ(clip(""), "");
  EXPECT_EQ(clip("100 %s%n"), "100 %s%n");
  EXPECT_EQ(clip(longest), longest);
}

TEST_F(LogTextTest, ClipsWhatIsLonger)
{
  const std::string longest(LOG_TEXT_MAX_BYTES, 'x');

  EXPECT_EQ(clip(longest + "x"), longest + "...");
  EXPECT_EQ(clip(longest + std::string(1000000, 'y')), longest + "...");
}

class LogTextCharacterTest : public LogTextTest, public testing::WithParamInterface<const char *>
{
};

/* With the limit before, in and behind each byte of it. */
TEST_P(LogTextCharacterTest, IsKeptAsAWhole)
{
  const std::string character = GetParam();

  for (gsize before = 0; before < character.size(); before++) {
    const std::string text = std::string(before, 'x') + repeat(character, LOG_TEXT_MAX_BYTES + 1);
    const gsize whole = (LOG_TEXT_MAX_BYTES - before) / character.size();
    EXPECT_EQ(clip(text), std::string(before, 'x') + repeat(character, whole) + "...");
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, LogTextCharacterTest,
                         testing::Values("x", "\u00e4", "\u20ac", "\U0001f600"));

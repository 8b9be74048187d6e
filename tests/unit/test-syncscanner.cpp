/* SPDX-License-Identifier: MIT */
#include "syncscanner.h"

#include "testhost.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <random>
#include <string_view>
#include <unistd.h>

using namespace std::string_literals;

namespace
{

struct Outcome {
  bool text;
  guint syncs;

  bool operator==(const Outcome &) const = default;
};

std::ostream &
operator<<(std::ostream &stream, const Outcome &outcome)
{
  return stream << (outcome.text ? "text" : "no text") << " with " << outcome.syncs << " syncs";
}

/* Feeds @input in pieces that end at @ends and at the end of the input. */
Outcome
scan(const std::string &input, const std::vector<gsize> &ends)
{
  SyncScanner scanner = {};
  Outcome outcome = {true, 0};
  gsize begin = 0;

  for (gsize i = 0; outcome.text && i <= ends.size(); i++) {
    const gsize end = i < ends.size() ? ends[i] : input.size();
    guint syncs = G_MAXUINT;
    outcome.text = sync_scanner_feed(&scanner, input.data() + begin, end - begin, &syncs);
    outcome.syncs += syncs;
    begin = end;
  }
  return outcome;
}

/* The result of GLib's line reader for the same input. It returns no line of a read with invalid bytes. */
Outcome
read_lines(const std::string &input)
{
  std::array<int, 2> ends = {};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  EXPECT_EQ(write(ends[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
  close(ends[1]);
  g_autoptr(GIOChannel) channel = g_io_channel_unix_new(ends[0]);
  g_io_channel_set_close_on_unref(channel, TRUE);
  g_io_channel_set_line_term(channel, "\n", 1);

  Outcome outcome = {true, 0};
  for (GIOStatus status = G_IO_STATUS_NORMAL; status == G_IO_STATUS_NORMAL;) {
    g_autofree gchar *line = nullptr;
    status = g_io_channel_read_line(channel, &line, nullptr, nullptr, nullptr);
    outcome.syncs += g_strcmp0(line, "SYNC\n") == 0 ? 1 : 0;
    outcome.text = status != G_IO_STATUS_ERROR;
  }
  return outcome;
}

struct Case {
  const char *name;
  std::string input;
  Outcome outcome;
};

std::ostream &
operator<<(std::ostream &stream, const Case &example)
{
  return stream << example.name;
}

class SyncScannerTest : public testing::TestWithParam<Case>
{
};

const std::vector<Case> CASES = {
    {"Nothing", "", {true, 0}},
    {"Sync", "SYNC\n", {true, 1}},
    {"SeveralSyncs", "SYNC\nSYNC\nSYNC\n", {true, 3}},
    {"WithoutLineFeed", "SYNC", {true, 0}},
    {"OnlyTheFirstEnds", "SYNC\nSYNC", {true, 1}},
    {"LowerCase", "sync\n", {true, 0}},
    {"MixedCase", "Sync\nSYNc\n", {true, 0}},
    {"CarriageReturn", "SYNC\r\n", {true, 0}},
    {"CarriageReturnEndsNoLine", "\rSYNC\n", {true, 0}},
    {"ParagraphSeparatorEndsNoLine", "\u2029SYNC\n", {true, 0}},
    {"BlankBefore", " SYNC\n", {true, 0}},
    {"BlankBehind", "SYNC \n", {true, 0}},
    {"Longer", "SYNCSYNC\n", {true, 0}},
    {"Shorter", "SYN\n", {true, 0}},
    {"EmptyLines", "\n\nSYNC\n\n", {true, 1}},
    {"Restarted", "SSYNC\nSYSYNC\nSYNC\n", {true, 1}},
    {"BehindOtherLines", "what?\nSYNC\nnothing\nSYNC\n", {true, 2}},
    {"BehindALongLine", std::string(10000, 'S') + "\nSYNC\n", {true, 1}},
    {"Nul", "SYNC\n\0SYNC\n"s, {false, 1}},
    {"NulInSync", "SY\0NC\n"s, {false, 0}},
    {"TwoBytes", "\u00e9\nSYNC\n", {true, 1}},
    {"ThreeBytes", "\u20ac\nSYNC\n", {true, 1}},
    {"FourBytes", "\U0001f600\nSYNC\n", {true, 1}},
    {"LastCharacter", "\U0010ffff\nSYNC\n", {true, 1}},
    {"Noncharacter", "\xef\xbf\xbf\nSYNC\n", {true, 1}},
    {"BeyondTheLastCharacter", "\xf4\x90\x80\x80\nSYNC\n", {false, 0}},
    {"LoneContinuation", "SYNC\n\x80SYNC\n", {false, 1}},
    {"BrokenByLineFeed", "\xe2\x82\nSYNC\n", {false, 0}},
    {"BrokenByLetter", "\xc3SYNC\n", {false, 0}},
    {"BrokenByLead", "\xe2\xe2\x82\xac\n", {false, 0}},
    {"Unfinished", "SYNC\n\xe2\x82", {true, 1}},
    {"OverlongSlash", "\xc0\xaf\nSYNC\n", {false, 0}},
    {"OverlongNul", "\xc0\x80\nSYNC\n", {false, 0}},
    {"OverlongThreeBytes", "\xe0\x80\xaf\nSYNC\n", {false, 0}},
    {"OverlongFourBytes", "\xf0\x80\x80\xaf\nSYNC\n", {false, 0}},
    {"FirstSurrogate", "\xed\xa0\x80\nSYNC\n", {false, 0}},
    {"LastSurrogate", "\xed\xbf\xbf\nSYNC\n", {false, 0}},
    {"FiveBytes", "\xf8\x88\x80\x80\x80\nSYNC\n", {false, 0}},
    {"SixBytes", "\xfc\x84\x80\x80\x80\x80\nSYNC\n", {false, 0}},
    {"FiveByteLeadBrokenOff", "\xf8SYNC\n", {false, 0}},
    {"SixByteLeadBrokenOff", "\xfd\x80SYNC\n", {false, 0}},
    {"NeverInUtf8", "SYNC\n\xfeSYNC\n", {false, 1}},
    {"NeverInUtf8Either", "\xff", {false, 0}},
};

} // namespace

TEST_P(SyncScannerTest, CountsInputInOnePiece)
{
  EXPECT_EQ(scan(GetParam().input, {}), GetParam().outcome);
}

TEST_P(SyncScannerTest, CountsInputInAnyTwoPieces)
{
  const std::string &input = GetParam().input;
  const gsize step = std::max<gsize>(input.size() / 64, 1);

  for (gsize end = 0; end <= input.size(); end += step) {
    EXPECT_EQ(scan(input, {end}), GetParam().outcome) << "cut at " << end;
  }
}

TEST_P(SyncScannerTest, CountsSingleBytes)
{
  std::vector<gsize> ends(GetParam().input.size());

  std::generate(ends.begin(), ends.end(), [end = gsize{0}]() mutable { return ++end; });
  EXPECT_EQ(scan(GetParam().input, ends), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Inputs, SyncScannerTest, testing::ValuesIn(CASES),
                         [](const auto &example) { return std::string(example.param.name); });

TEST(SyncScannerRandomTest, CountsTheSameHoweverTheInputIsCutAndAsALineReaderDoes)
{
  const std::vector<std::string> words = {"SYNC\n", "SYNC",     "SYN",      "C\n",  "\n",   "S",
                                          "\r\n",   "\u00e9",   "\xe2\x82", "\xac", "\xed", "\U0001f600",
                                          "\xf0",   "SYNC\r\n", "other\n",  " ",    "\x80"};
  std::mt19937 random(20240611);
  guint texts_seen = 0;

  for (int round = 0; round < 3000; round++) {
    std::string input;
    for (auto left = random() % 12; left > 0; left--) {
      input += words[random() % (random() % 4 == 0 ? words.size() : 8)];
    }
    input += '\n';
    std::vector<gsize> ends(random() % 6);
    std::generate(ends.begin(), ends.end(), [&] { return random() % (input.size() + 1); });
    std::sort(ends.begin(), ends.end());

    const Outcome outcome = scan(input, ends);
    const Outcome expected = read_lines(input);
    ASSERT_EQ(outcome, scan(input, {})) << testing::PrintToString(input);
    ASSERT_EQ(outcome.text, expected.text) << testing::PrintToString(input);
    if (outcome.text) {
      ASSERT_EQ(outcome.syncs, expected.syncs) << testing::PrintToString(input);
    }
    texts_seen += outcome.text ? 1 : 0;
  }
  EXPECT_GT(texts_seen, 500U);
  EXPECT_LT(texts_seen, 2500U);
}

TEST(SyncScannerSizeTest, KeepsAFewBytesOnly)
{
  EXPECT_LE(sizeof(SyncScanner), 16U);
}

TEST(SyncScannerSizeTest, FollowsALineWithoutEnd)
{
  const std::string piece(1024 * 1024, 'S');
  SyncScanner scanner = {};
  guint syncs = 0;

  for (int i = 0; i < 20; i++) {
    ASSERT_TRUE(sync_scanner_feed(&scanner, piece.data(), piece.size(), &syncs));
    ASSERT_EQ(syncs, 0U);
  }
  ASSERT_TRUE(sync_scanner_feed(&scanner, "\nSYNC\n", 6, &syncs));
  EXPECT_EQ(syncs, 1U);
}

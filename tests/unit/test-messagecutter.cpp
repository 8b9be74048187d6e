/* SPDX-License-Identifier: MIT */
#include "messagecutter.h"

#include "faults.h"
#include "testhost.h"
#include "teststream.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using testhost::Texts;
using teststream::message;

using namespace std::string_literals;

namespace
{

const Texts NOTHING;

/* Bytes that arrive together. The read after them finds no data if they are the last piece; otherwise the
 * next piece arrives in time for it. */
struct Piece {
  std::string bytes;
  bool is_last = true;
};

class MessageCutterTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    g_clear_pointer(&cutter, message_cutter_free);
    Fixture::TearDown();
  }

  void keep_pieces() const
  {
    message_cutter_set_keeps_pieces(cutter, TRUE);
  }

  /* Moves as many bytes from the front of @bytes into the cutter as it has space for. */
  void read_some(std::string *bytes, gsize limit = G_MAXSIZE) const
  {
    gsize size = 0;
    guint8 *space = message_cutter_get_space(cutter, limit, &size);
    const gsize count = std::min(size, bytes->size());

    std::copy_n(bytes->begin(), count, space);
    bytes->erase(0, count);
    message_cutter_add(cutter, count);
  }

  /* Does what the state requires. Appends the frame of a complete message to @frames. */
  void step(std::string *bytes, Texts *frames, gsize limit) const
  {
    if (message_cutter_get_state(cutter) == MESSAGE_CUTTER_NEEDS_FRAME) {
      EXPECT_TRUE(message_cutter_make_frame(cutter));
    }
    if (message_cutter_get_state(cutter) != MESSAGE_CUTTER_COMPLETE) {
      read_some(bytes, limit);
    }
    if (message_cutter_get_state(cutter) == MESSAGE_CUTTER_COMPLETE) {
      gsize size = 0;
      g_autofree guint8 *frame = message_cutter_take_frame(cutter, &size);
      frames->emplace_back(frame == nullptr ? "none" : std::string(frame, frame + size));
    }
  }

  /* The frames of @pieces, read with at most @limit bytes of a payload at a time. */
  Texts cut(const std::vector<Piece> &pieces, gsize limit = G_MAXSIZE) const
  {
    Texts frames;

    for (Piece piece : pieces) {
      while (!piece.bytes.empty()) {
        step(&piece.bytes, &frames, limit);
      }
      if (piece.is_last) {
        message_cutter_end_piece(cutter);
      }
    }
    return frames;
  }

  MessageCutter *cutter = message_cutter_new("<", ">");
};

/* @text as pieces of one byte. */
std::vector<Piece>
single_bytes(const std::string &text)
{
  std::vector<Piece> pieces;

  for (const char byte : text) {
    pieces.push_back({std::string(1, byte)});
  }
  return pieces;
}

} // namespace

TEST_F(MessageCutterTest, PutsAPayloadIntoItsFrame)
{
  EXPECT_EQ(cut({{message("payload")}}), (Texts{"<payload>"}));
  EXPECT_EQ(cut({{message("a\0b"s)}}), (Texts{"<a\0b>"s}));
}

TEST_F(MessageCutterTest, CutsSeveralMessagesFromOnePiece)
{
  EXPECT_EQ(cut({{message("one") + message("two") + message("3")}}), (Texts{"<one>", "<two>", "<3>"}));
}

TEST_F(MessageCutterTest, GivesNoFrameForALengthOfZero)
{
  EXPECT_EQ(cut({{message("") + message("next")}}), (Texts{"none", "<next>"}));
}

TEST_F(MessageCutterTest, AcceptsFrameTextsOfAnyLength)
{
  g_clear_pointer(&cutter, message_cutter_free);
  cutter = message_cutter_new("", "");
  EXPECT_EQ(cut({{message("payload")}}), (Texts{"payload"}));

  g_clear_pointer(&cutter, message_cutter_free);
  cutter = message_cutter_new("before ", " behind");
  EXPECT_EQ(cut({{message("x")}}), (Texts{"before x behind"}));
}

TEST_F(MessageCutterTest, ReportsItsState)
{
  std::string bytes = message("payload");
  std::string rest = bytes.substr(2);
  bytes.resize(2);
  gsize size = 0;

  keep_pieces();
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_LENGTH);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
  read_some(&bytes);
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_LENGTH);
  EXPECT_TRUE(message_cutter_has_begun(cutter));
  read_some(&rest);
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_NEEDS_FRAME);
  EXPECT_EQ(message_cutter_get_length(cutter), strlen("payload"));
  EXPECT_EQ(message_cutter_get_frame_size(cutter), strlen("<payload>"));
  EXPECT_TRUE(message_cutter_make_frame(cutter));
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_PAYLOAD);
  read_some(&rest, 3);
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_PAYLOAD);
  read_some(&rest);
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_COMPLETE);
  EXPECT_TRUE(message_cutter_has_begun(cutter));
  g_autofree guint8 *frame = message_cutter_take_frame(cutter, &size);
  EXPECT_EQ(std::string(frame, frame + size), "<payload>");
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_LENGTH);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
}

TEST_F(MessageCutterTest, LimitsTheSpaceForAPayloadButNotForALength)
{
  std::string bytes = message("0123456789");
  gsize size = 0;

  message_cutter_get_space(cutter, 1, &size);
  EXPECT_EQ(size, sizeof(guint32));
  read_some(&bytes);
  ASSERT_TRUE(message_cutter_make_frame(cutter));
  message_cutter_get_space(cutter, 3, &size);
  EXPECT_EQ(size, 3U);
  message_cutter_get_space(cutter, G_MAXSIZE, &size);
  EXPECT_EQ(size, 10U);
}

TEST_F(MessageCutterTest, ReadsAPayloadIntoItsFrame)
{
  std::string bytes = message("0123456789");
  gsize size = 0;

  read_some(&bytes);
  ASSERT_TRUE(message_cutter_make_frame(cutter));
  const guint8 *space = message_cutter_get_space(cutter, G_MAXSIZE, &size);
  read_some(&bytes);
  g_autofree guint8 *frame = message_cutter_take_frame(cutter, &size);
  EXPECT_EQ(space, frame + strlen("<"));
}

TEST_F(MessageCutterTest, LimitsDoNotChangeAMessage)
{
  const std::string text = message("0123456789") + message("next");

  for (const bool keeps_pieces : {false, true}) {
    message_cutter_set_keeps_pieces(cutter, keeps_pieces);
    for (const gsize limit : {1, 2, 3, 9, 10, 11}) {
      EXPECT_EQ(cut({{text}}, limit), (Texts{"<0123456789>", "<next>"})) << limit;
    }
  }
}

TEST_F(MessageCutterTest, KeepsPiecesCutAnywhere)
{
  const std::string text = message("payload") + message("next");

  keep_pieces();
  for (gsize cut_at = 1; cut_at < text.size(); cut_at++) {
    EXPECT_EQ(cut({{text.substr(0, cut_at)}, {text.substr(cut_at)}}), (Texts{"<payload>", "<next>"}))
        << cut_at;
  }
  EXPECT_EQ(cut(single_bytes(text)), (Texts{"<payload>", "<next>"}));
}

TEST_F(MessageCutterTest, DiscardsAnIncompletePayload)
{
  EXPECT_EQ(cut({{message("payload").substr(0, 7)}, {message("next")}}), (Texts{"<next>"}));
  EXPECT_EQ(cut({{message("payload").substr(0, 4)}, {message("next")}}), (Texts{"<next>"}));
  EXPECT_FALSE(message_cutter_has_begun(cutter));
}

TEST_F(MessageCutterTest, TakesAShortLengthAsComplete)
{
  EXPECT_EQ(cut({{"\4", false}, {"next"}}), (Texts{"<next>"}));
  EXPECT_EQ(cut({{"\4\0"s, false}, {"next"}}), (Texts{"<next>"}));
  EXPECT_EQ(cut({{std::string(1, '\0')}, {message("next")}}), (Texts{"none", "<next>"}));
}

TEST_F(MessageCutterTest, JoinsAPayloadOfTwoPieces)
{
  const std::string text = message("0123456789");

  for (gsize cut_at = 4; cut_at < text.size(); cut_at++) {
    EXPECT_EQ(cut({{text.substr(0, cut_at), false}, {text.substr(cut_at)}}), (Texts{"<0123456789>"}))
        << cut_at;
  }
}

TEST_F(MessageCutterTest, StoresAThirdPieceAtTheSizeOfTheSecond)
{
  const std::string length = message("0123456789").substr(0, sizeof(guint32));

  /* 0123 at 0, 456 at 4, 789 at 3, zeros behind them. */
  EXPECT_EQ(cut({{length + "0123", false}, {"456", false}, {"789"}}), (Texts{"<0127896\0\0\0>"s}));
  keep_pieces();
  EXPECT_EQ(cut({{length + "0123", false}, {"456", false}, {"789"}}), (Texts{"<0123456789>"}));
}

TEST_F(MessageCutterTest, CountsAReadAsShortOnlyWhenLessCameThanWasAskedFor)
{
  const std::string length = message("0123456789").substr(0, sizeof(guint32));

  /* With this limit the first piece is two full reads, and only the second one ends in a short read, at 7. */
  EXPECT_EQ(cut({{length + "0123", false}, {"456", false}, {"789"}}, 2), (Texts{"<0123456789>"}));
}

TEST_F(MessageCutterTest, DiscardsABegunMessage)
{
  std::string bytes = message("payload");

  read_some(&bytes);
  message_cutter_discard(cutter);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
  EXPECT_EQ(cut({{message("next")}}), (Texts{"<next>"}));

  bytes = message("payload");
  read_some(&bytes);
  ASSERT_TRUE(message_cutter_make_frame(cutter));
  read_some(&bytes, 3);
  message_cutter_discard(cutter);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
  EXPECT_EQ(cut({{message("next")}}), (Texts{"<next>"}));
}

TEST_F(MessageCutterTest, CanBeFreedDuringAMessage)
{
  std::string bytes = message("payload");

  read_some(&bytes);
  ASSERT_TRUE(message_cutter_make_frame(cutter));
  read_some(&bytes, 3);
  g_clear_pointer(&cutter, message_cutter_free);
}

TEST_F(MessageCutterTest, ReportsMissingMemory)
{
  std::string bytes = message("payload");
  Texts frames;

  read_some(&bytes);
  faults::fail_next(faults::Call::TRY_MALLOC);
  EXPECT_FALSE(message_cutter_make_frame(cutter));
  EXPECT_EQ(message_cutter_get_state(cutter), MESSAGE_CUTTER_NEEDS_FRAME);
  step(&bytes, &frames, G_MAXSIZE);
  EXPECT_EQ(frames, (Texts{"<payload>"}));
}

TEST_F(MessageCutterTest, MakesAFrameOnlyWhenItNeedsOne)
{
  EXPECT_FALSE(message_cutter_make_frame(cutter));
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"message_cutter_get_state(self) == MESSAGE_CUTTER_NEEDS_FRAME"}));
}

TEST_F(MessageCutterTest, GivesOnlyCompleteFrames)
{
  gsize size = 4711;

  EXPECT_EQ(message_cutter_take_frame(cutter, &size), nullptr);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"message_cutter_get_state(self) == MESSAGE_CUTTER_COMPLETE"}));
}

TEST_F(MessageCutterTest, HasSpaceOnlyWhenItExpectsBytes)
{
  std::string bytes = message("payload");
  gsize size = 4711;

  EXPECT_EQ(message_cutter_get_space(cutter, 0, &size), nullptr);
  EXPECT_EQ(size, 0U);
  read_some(&bytes);
  EXPECT_EQ(message_cutter_get_space(cutter, 1, &size), nullptr);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"limit > 0", "state == MESSAGE_CUTTER_LENGTH || state == MESSAGE_CUTTER_PAYLOAD"}));
}

TEST_F(MessageCutterTest, RefusesMoreBytesThanItHasSpaceFor)
{
  gsize size = 0;

  message_cutter_add(cutter, 1);
  message_cutter_get_space(cutter, 1, &size);
  message_cutter_add(cutter, size + 1);
  message_cutter_get_space(cutter, 1, &size);
  message_cutter_add(cutter, 0);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"count <= space", "count <= space", "count > 0"}));
}

TEST_F(MessageCutterTest, ChangesTheModeOnlyBetweenTwoMessages)
{
  std::string bytes = message("payload");

  read_some(&bytes);
  message_cutter_set_keeps_pieces(cutter, TRUE);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"!message_cutter_has_begun(self)"}));
  message_cutter_end_piece(cutter);
  EXPECT_FALSE(message_cutter_has_begun(cutter));
}

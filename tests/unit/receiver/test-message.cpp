/* SPDX-License-Identifier: MIT */
#include "receiver/message.h"
#include "receiver/receiverlimits.h"
#include "testpipes.h"

#include <gtest/gtest.h>
#include <string>

using receiver::Message;
using receiver::shared_text_copy;
using testpipes::wire_form;

namespace
{

std::string
take(Message &message, gsize limit)
{
  std::string bytes;
  for (const iovec &part : message.rest(limit)) {
    bytes.append(static_cast<const char *>(part.iov_base), part.iov_len);
  }
  message.advance(bytes.size());
  return bytes;
}

TEST(MessageTest, StartsUnsent)
{
  EXPECT_TRUE(Message().is_sent());
}

TEST(MessageTest, LengthComesBeforeTheText)
{
  Message message(shared_text_copy("{}"));
  EXPECT_FALSE(message.is_sent());
  EXPECT_EQ(take(message, G_MAXSIZE), wire_form("{}"));
  EXPECT_TRUE(message.is_sent());
}

TEST(MessageTest, EmptyTextHasALength)
{
  Message message(shared_text_copy(""));
  EXPECT_FALSE(message.is_sent());
  EXPECT_EQ(take(message, G_MAXSIZE), wire_form(""));
  EXPECT_TRUE(message.is_sent());
}

TEST(MessageTest, AnyPiecesAddUpToTheMessage)
{
  const std::string text = "0123456789";
  for (gsize size = 1; size <= text.size() + 5; size++) {
    Message message(shared_text_copy(text));
    std::string sent;
    while (!message.is_sent()) {
      std::string piece = take(message, size);
      ASSERT_GT(piece.size(), 0U);
      ASSERT_LE(piece.size(), size);
      sent += piece;
    }
    EXPECT_EQ(sent, wire_form(text)) << size;
  }
}

TEST(MessageTest, UnsentBytesAreReturnedAgain)
{
  Message message(shared_text_copy("abc"));
  message.rest(G_MAXSIZE);
  message.advance(2);
  EXPECT_EQ(take(message, G_MAXSIZE), wire_form("abc").substr(2));
}

TEST(MessageTest, PartHoldsAReferenceToTheWhole)
{
  receiver::SharedText part = receiver::shared_text_part(shared_text_copy("abcdef"), 2, 3);
  EXPECT_EQ(receiver::shared_text_view(part), "cde");
}

TEST(MessageTest, CountsACountedTextOnceUntilItsLastOwnerReleasesIt)
{
  ASSERT_EQ(receiver::shared_text_counted_bytes(), 0U);
  {
    const receiver::SharedText text = receiver::shared_text_count("{}");
    const receiver::SharedText same = text;
    EXPECT_EQ(receiver::shared_text_counted_bytes(), 2U + RECEIVER_MESSAGE_OVERHEAD);
    shared_text_copy("not counted");
    EXPECT_EQ(receiver::shared_text_counted_bytes(), 2U + RECEIVER_MESSAGE_OVERHEAD);
  }
  EXPECT_EQ(receiver::shared_text_counted_bytes(), 0U);
}

TEST(MessageTest, SizeIncludesTheLength)
{
  EXPECT_EQ(Message(shared_text_copy("{}")).size(), 6U);
}

} // namespace

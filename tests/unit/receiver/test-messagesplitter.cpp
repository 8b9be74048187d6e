/* SPDX-License-Identifier: MIT */
#include "receiver/messagesplitter.h"
#include "receiver/receiverlimits.h"
#include "testpipes.h"

#include <gtest/gtest.h>

using receiver::MessageSplitter;
using testpipes::Texts;
using testpipes::wire_form;
using Fault = MessageSplitter::Fault;

namespace
{

struct Split {
  MessageSplitter splitter;
  Texts texts;

  Fault push(std::string_view bytes)
  {
    return splitter.push(bytes, [this](const receiver::SharedText &text) {
      texts.emplace_back(receiver::shared_text_view(text));
    });
  }
};

TEST(MessageSplitterTest, FindsMessagesInAnyPieces)
{
  const std::string bytes = wire_form("{}") + wire_form("") + wire_form("second");

  for (gsize first = 0; first <= bytes.size(); first++) {
    for (gsize second = first; second <= bytes.size(); second++) {
      Split split;
      EXPECT_EQ(split.push(bytes.substr(0, first)), Fault::NONE);
      EXPECT_EQ(split.push(bytes.substr(first, second - first)), Fault::NONE);
      EXPECT_EQ(split.push(bytes.substr(second)), Fault::NONE);
      EXPECT_EQ(split.texts, Texts({"{}", "second"})) << first << " " << second;
      EXPECT_EQ(split.splitter.completed(), 3U);
      EXPECT_FALSE(split.splitter.has_unfinished());
    }
  }
}

TEST(MessageSplitterTest, ReportsAnUnfinishedMessage)
{
  const std::string bytes = wire_form("{}");
  Split split;

  EXPECT_FALSE(split.splitter.has_unfinished());
  for (gsize place = 0; place + 1 < bytes.size(); place++) {
    EXPECT_EQ(split.push(bytes.substr(place, 1)), Fault::NONE);
    EXPECT_TRUE(split.splitter.has_unfinished());
  }
  EXPECT_EQ(split.push(bytes.substr(bytes.size() - 1)), Fault::NONE);
  EXPECT_FALSE(split.splitter.has_unfinished());
}

TEST(MessageSplitterTest, AcceptsTheLongestMessageAndRefusesALongerOne)
{
  const std::string longest(RECEIVER_MAX_MESSAGE_BYTES, 'x');
  Split split;

  EXPECT_EQ(split.push(wire_form(longest)), Fault::NONE);
  EXPECT_EQ(split.texts, Texts({longest}));
  EXPECT_EQ(split.push(wire_form(longest + "x").substr(0, 4)), Fault::TOO_LONG);
}

TEST(MessageSplitterTest, DeliversMessagesBeforeAFaultAndNoneAfterIt)
{
  Split split;

  EXPECT_EQ(split.push(wire_form("first") + wire_form("\xff") + wire_form("last")), Fault::NOT_TEXT);
  EXPECT_EQ(split.texts, Texts({"first"}));
}

TEST(MessageSplitterTest, RefusesInvalidText)
{
  for (const std::string &bytes : {std::string("\xff\xfe"), std::string("{\0}", 3), std::string("\xc3")}) {
    EXPECT_EQ(Split().push(wire_form(bytes)), Fault::NOT_TEXT);
  }
  EXPECT_EQ(Split().push(wire_form("Gr\xc3\xb6\xc3\x9f"
                                   "e")),
            Fault::NONE);
}

} // namespace

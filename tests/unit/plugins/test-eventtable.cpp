/* SPDX-License-Identifier: MIT */
#include "eventtable.h"

#include "events.h"

#include <gtest/gtest.h>

using plugins::EventTable;
using plugins::ReceiverMessage;
using plugins::SharedEvent;
using testevents::plain;
using testevents::state;
using testevents::summary;
using Kind = plugins::ReceiverMessage::Kind;
using Texts = std::vector<std::string>;

namespace
{

class EventTableTest : public testing::Test
{
protected:
  bool apply(const SharedEvent &event)
  {
    return table_.apply({Kind::EVENT, event});
  }

  bool mark(Kind kind)
  {
    return table_.apply({kind, nullptr});
  }

  Texts states() const
  {
    Texts texts;
    for (const SharedEvent &event : table_.states()) {
      texts.push_back(summary(event));
    }
    return texts;
  }

  Texts take_published()
  {
    return std::exchange(published_, {});
  }

  Texts published_;
  EventTable table_{[this](const SharedEvent &event) { published_.push_back(summary(event)); }};
};

TEST_F(EventTableTest, KeepsThePresentStates)
{
  EXPECT_TRUE(apply(state("Initialized", "1", "a")));
  EXPECT_FALSE(table_.is_current());
  EXPECT_TRUE(mark(Kind::CURRENT));
  EXPECT_TRUE(table_.is_current());
  EXPECT_TRUE(apply(plain("event")));
  EXPECT_TRUE(apply(state("Initialized", "2", "b")));
  EXPECT_TRUE(apply(state("Changed", "1", "c")));
  EXPECT_TRUE(apply(state("Deleted", "2", "d")));

  EXPECT_EQ(take_published(),
            (Texts{"Initialized 1 a", "  event", "Initialized 2 b", "Changed 1 c", "Deleted 2 d"}));
  EXPECT_EQ(states(), Texts{"Initialized 1 c"});
}

TEST_F(EventTableTest, ANewPropertyIsInitialized)
{
  apply(state("Changed", "1", "a"));

  EXPECT_EQ(take_published(), Texts{"Initialized 1 a"});
}

TEST_F(EventTableTest, DeletesNothingThatIsNotKnown)
{
  EXPECT_TRUE(apply(state("Deleted", "1", "a")));

  EXPECT_EQ(take_published(), Texts{});
}

/* Events were lost: one property has changed, one has gone, one has come. */
TEST_F(EventTableTest, StatesAfterALossBringTheDifference)
{
  for (const char *source : {"same", "changed", "gone"}) {
    apply(state("Initialized", source, "a"));
  }
  mark(Kind::CURRENT);
  take_published();

  EXPECT_TRUE(mark(Kind::RESYNC));
  EXPECT_FALSE(table_.is_current());
  apply(state("Initialized", "same", "a"));
  apply(state("Initialized", "changed", "b", 2));
  apply(state("Initialized", "new", "c"));
  EXPECT_EQ(states().size(), 4U);
  EXPECT_TRUE(mark(Kind::CURRENT));
  EXPECT_EQ(take_published(), (Texts{"Initialized changed b", "Initialized new c", "Deleted gone a"}));
  EXPECT_EQ(states(), (Texts{"Initialized changed b", "Initialized new c", "Initialized same a"}));
}

TEST_F(EventTableTest, TheEndOfTheReceiverDeletesAll)
{
  apply(state("Initialized", "1", "a"));
  apply(state("Initialized", "2", "b"));
  mark(Kind::CURRENT);
  take_published();
  table_.clear();

  EXPECT_EQ(take_published(), (Texts{"Deleted 1 a", "Deleted 2 b"}));
  EXPECT_EQ(states(), Texts{});
  EXPECT_FALSE(table_.is_current());
}

TEST_F(EventTableTest, RefusesMarksAtTheWrongTime)
{
  EXPECT_FALSE(mark(Kind::RESYNC));
  EXPECT_TRUE(mark(Kind::CURRENT));
  EXPECT_FALSE(mark(Kind::CURRENT));
  EXPECT_TRUE(mark(Kind::RESYNC));
  EXPECT_FALSE(mark(Kind::RESYNC));
}

TEST_F(EventTableTest, PropertiesAreLimited)
{
  for (gsize i = 0; i < plugins::EVENT_TABLE_MAX_PROPERTIES; i++) {
    ASSERT_TRUE(apply(state("Initialized", std::to_string(i), "a")));
  }

  EXPECT_FALSE(apply(state("Initialized", "more", "a")));
  EXPECT_TRUE(apply(state("Changed", "1", "b")));
  EXPECT_TRUE(apply(state("Deleted", "1", "b")));
  EXPECT_TRUE(apply(state("Initialized", "more", "a")));
}

TEST_F(EventTableTest, BytesAreLimited)
{
  const std::string large(plugins::RECEIVER_EVENT_MAX_BYTES - 1000, 'x');
  gsize count = 0;
  while (count < plugins::EVENT_TABLE_MAX_PROPERTIES &&
         apply(state("Initialized", std::to_string(count), large))) {
    count++;
  }

  EXPECT_LE(count * large.size(), plugins::EVENT_TABLE_MAX_BYTES);
  EXPECT_GT((count + 1) * (large.size() + 2000), plugins::EVENT_TABLE_MAX_BYTES);
  EXPECT_TRUE(apply(state("Changed", "0", "small")));
  table_.clear();
  EXPECT_TRUE(apply(state("Initialized", "1", large)));
}

} // namespace

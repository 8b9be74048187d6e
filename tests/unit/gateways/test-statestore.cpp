/* SPDX-License-Identifier: MIT */
#include "statestore.h"

#include "testhost.h"
#include "viewlimits.h"

using view::ItemKind;

namespace
{

class StateStoreTest : public testhost::Fixture
{
protected:
  void apply(ItemKind kind, const std::string &key, const std::string &text)
  {
    store.apply(
        {kind, key, std::make_shared<std::string>(text), std::make_shared<std::string>("state " + text)});
  }

  /* The texts of the state, behind that of the connection. */
  testhost::Texts texts()
  {
    testhost::Texts texts;
    for (const view::StreamItem &item : store.items()) {
      texts.push_back(*item.text);
    }
    is_connected = texts.front() == *view::connection_text(true);
    EXPECT_TRUE(is_connected || texts.front() == *view::connection_text(false));
    texts.erase(texts.begin());
    return texts;
  }

  view::StateStore store;
  bool is_connected = false;
};

} // namespace

TEST_F(StateStoreTest, IsEmptyAtFirst)
{
  EXPECT_EQ(texts(), testhost::Texts{});
  EXPECT_FALSE(is_connected);
}

TEST_F(StateStoreTest, KeepsTheNewestOfEach)
{
  store.apply(view::connection_item(true));
  apply(ItemKind::FRAME, "A", "a1");
  apply(ItemKind::FRAME, "B", "b1");
  apply(ItemKind::FRAME, "A", "a2");
  apply(ItemKind::PTZ, "ptz", "p1");
  apply(ItemKind::PTZ, "ptz", "p2");
  apply(ItemKind::PROPERTY, "x", "x1");
  apply(ItemKind::PROPERTY, "y", "y1");
  apply(ItemKind::PROPERTY, "x", "x2");
  apply(ItemKind::EVENT, "", "once");
  EXPECT_EQ(texts(), (testhost::Texts{"b1", "a2", "p2", "state y1", "state x2"}));
  EXPECT_TRUE(is_connected);
}

TEST_F(StateStoreTest, ForgetsADeletedProperty)
{
  apply(ItemKind::PROPERTY, "x", "x1");
  apply(ItemKind::PROPERTY, "y", "y1");
  apply(ItemKind::DELETED_PROPERTY, "x", "x2");
  apply(ItemKind::DELETED_PROPERTY, "z", "z1");
  EXPECT_EQ(texts(), testhost::Texts{"state y1"});
}

TEST_F(StateStoreTest, ForgetsAllWithTheStream)
{
  store.apply(view::connection_item(true));
  apply(ItemKind::FRAME, "A", "a1");
  apply(ItemKind::PTZ, "ptz", "p1");
  apply(ItemKind::PROPERTY, "x", "x1");
  store.apply(view::connection_item(false));
  EXPECT_EQ(texts(), testhost::Texts{});
  EXPECT_FALSE(is_connected);
}

TEST_F(StateStoreTest, BoundsTheNumbers)
{
  for (int number = 0; number < VIEW_SOURCES_MAX + 3; number++) {
    apply(ItemKind::FRAME, std::to_string(number), std::to_string(number));
  }
  EXPECT_EQ(texts().size(), static_cast<gsize>(VIEW_SOURCES_MAX));
  EXPECT_EQ(texts().front(), "3");
  for (int number = 0; number < VIEW_PROPERTIES_MAX + 3; number++) {
    apply(ItemKind::PROPERTY, std::to_string(number), std::to_string(number));
  }
  EXPECT_EQ(texts().size(), static_cast<gsize>(VIEW_SOURCES_MAX + VIEW_PROPERTIES_MAX));
  EXPECT_EQ(texts().at(VIEW_SOURCES_MAX), "state 3");
}

TEST_F(StateStoreTest, BoundsTheBytes)
{
  const std::string half(VIEW_STATE_BYTES_MAX / 2, 'x');
  for (const char *key : {"A", "B", "C"}) {
    apply(ItemKind::FRAME, key, half);
  }
  EXPECT_EQ(texts().size(), 1U);
  apply(ItemKind::FRAME, "D", std::string(VIEW_STATE_BYTES_MAX, 'x'));
  EXPECT_EQ(texts().size(), 0U);
  apply(ItemKind::FRAME, "A", "a");
  EXPECT_EQ(texts(), testhost::Texts{"a"});
}

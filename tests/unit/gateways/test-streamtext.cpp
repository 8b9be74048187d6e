/* SPDX-License-Identifier: MIT */
#include "streamtext.h"

#include "testhost.h"
#include "viewlimits.h"

using onvif::MetadataKind;
using onvif::MetadataText;
using onvif::PropertyOperation;
using view::ItemKind;

namespace
{

class StreamTextTest : public testhost::Fixture
{
protected:
  static MetadataText event(PropertyOperation operation, std::vector<std::string> values)
  {
    return {MetadataKind::EVENT, "{\"UtcTime\":\"t\"}", "", "A/\"B\"", std::move(values), operation};
  }

  static view::StreamItem item_of(MetadataText text)
  {
    return view::items_of({{std::move(text)}, 0}).at(0);
  }
};

} // namespace

TEST_F(StreamTextTest, Frame)
{
  const view::StreamItem item =
      item_of({MetadataKind::FRAME, "{\"Frame\":[]}", "Front", "", {}, PropertyOperation::NONE});
  EXPECT_EQ(item.kind, ItemKind::FRAME);
  EXPECT_EQ(*item.text, "event: frame\ndata: {\"Frame\":[]}\n\n");
}

TEST_F(StreamTextTest, FramesOfTwoSourcesHaveTwoKeys)
{
  const auto key_of = [](const char *source) {
    return item_of({MetadataKind::FRAME, "{}", source, "", {}, PropertyOperation::NONE}).key;
  };
  EXPECT_EQ(key_of("A"), key_of("A"));
  EXPECT_NE(key_of("A"), key_of("B"));
  EXPECT_NE(key_of("producers"), "producers");
  EXPECT_FALSE(key_of("").empty());
}

TEST_F(StreamTextTest, Ptz)
{
  const view::StreamItem item =
      item_of({MetadataKind::PTZ_STATUS, "{\"PTZStatus\":[]}", "", "", {}, PropertyOperation::NONE});
  EXPECT_EQ(item.kind, ItemKind::PTZ);
  EXPECT_EQ(*item.text, "event: ptz\ndata: {\"PTZStatus\":[]}\n\n");
}

TEST_F(StreamTextTest, EventWithoutAState)
{
  const view::StreamItem item = item_of(event(PropertyOperation::NONE, {}));
  EXPECT_EQ(item.kind, ItemKind::EVENT);
  EXPECT_EQ(*item.text, "event: event\ndata: {\"topic\":\"A/\\\"B\\\"\",\"operation\":\"\",\"source\":[],"
                        "\"message\":{\"UtcTime\":\"t\"}}\n\n");
}

TEST_F(StreamTextTest, PropertyThatChanges)
{
  const view::StreamItem item = item_of(event(PropertyOperation::CHANGED, {"1", "2"}));
  EXPECT_EQ(item.kind, ItemKind::PROPERTY);
  const std::string rest = ",\"source\":[\"1\",\"2\"],\"message\":{\"UtcTime\":\"t\"}}\n\n";
  const std::string begin = "event: event\ndata: {\"topic\":\"A/\\\"B\\\"\",\"operation\":";
  EXPECT_EQ(*item.text, begin + "\"Changed\"" + rest);
  EXPECT_EQ(*item.state, begin + "\"Initialized\"" + rest);
}

TEST_F(StreamTextTest, PropertyThatIsDeleted)
{
  EXPECT_EQ(item_of(event(PropertyOperation::DELETED, {"1"})).kind, ItemKind::DELETED_PROPERTY);
  EXPECT_EQ(item_of(event(PropertyOperation::DELETED, {"1"})).key,
            item_of(event(PropertyOperation::INITIALIZED, {"1"})).key);
}

TEST_F(StreamTextTest, PropertiesOfOtherSourcesHaveOtherKeys)
{
  const std::vector<std::vector<std::string>> sources = {{},         {""},       {"", ""}, {"1"},
                                                         {"1", "2"}, {"1\n1:2"}, {"12"}};
  std::set<std::string> keys;
  for (const std::vector<std::string> &source : sources) {
    keys.insert(item_of(event(PropertyOperation::CHANGED, source)).key);
  }
  EXPECT_EQ(keys.size(), sources.size());
}

TEST_F(StreamTextTest, LeavesOutWhatIsTooLong)
{
  const std::string longest(VIEW_EVENT_BYTES_MAX, 'x');
  const std::vector<view::StreamItem> items =
      view::items_of({{{MetadataKind::FRAME, longest + "x", "", "", {}, PropertyOperation::NONE},
                       {MetadataKind::FRAME, longest, "", "", {}, PropertyOperation::NONE}},
                      0});
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(*items[0].text, "event: frame\ndata: " + longest + "\n\n");
}

TEST_F(StreamTextTest, Connection)
{
  EXPECT_EQ(*view::connection_text(true), "event: state\ndata: {\"connected\":true}\n\n");
  EXPECT_EQ(*view::connection_text(false), "event: state\ndata: {\"connected\":false}\n\n");
}

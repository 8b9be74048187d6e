/* SPDX-License-Identifier: MIT */
#include "receiver/error.h"
#include "receiver/eventtopic.h"
#include "receiver/receiverlimits.h"

#include <functional>
#include <gtest/gtest.h>

using receiver::Error;
using receiver::EventMap;
using receiver::EventPairs;
using receiver::EventTexts;
using receiver::EventTopic;

namespace
{

using Change = std::function<void(EventTopic *topic)>;

EventTopic
with(const Change &change)
{
  EventTopic topic = {
      "tns1:VideoSource/MotionAlarm", true, {{"Source", "tt:ReferenceToken"}}, {{"State", "xs:boolean"}}, {}};

  change(&topic);
  return topic;
}

/* The name of the error on the bus, or an empty text. */
std::string
refusal(EventTopic topic)
{
  GError *error = nullptr;

  if (receiver::event_topic_check(&topic, &error)) {
    return "";
  }
  g_autofree gchar *name = g_dbus_error_encode_gerror(error);
  g_error_free(error);
  return name;
}

std::string
refusal_of_name(const std::string &name, const EventMap &namespaces = {})
{
  return refusal(with([&](EventTopic *topic) {
    topic->name = name;
    topic->namespaces = namespaces;
  }));
}

std::string
refusal_of_items(const EventPairs &items)
{
  const std::string of_source = refusal(with([&](EventTopic *topic) { topic->source = items; }));
  const std::string of_data = refusal(with([&](EventTopic *topic) { topic->data = items; }));

  EXPECT_EQ(of_source, of_data);
  return of_source;
}

EventPairs
many_items(gsize count)
{
  EventPairs items;

  for (gsize i = 0; i < count; i++) {
    items.emplace_back("Item" + std::to_string(i), "xs:string");
  }
  return items;
}

constexpr const char *INVALID_TOPIC = "com.quon.MetadataReceiver1.Error.InvalidTopic";
constexpr const char *INVALID_ITEMS = "com.quon.MetadataReceiver1.Error.InvalidItems";

TEST(EventTopicTest, TakesTopicsOfOnvifsForm)
{
  const EventMap acme = {{"acme", "http://acme.example/topics"}};

  EXPECT_EQ(refusal_of_name("tns1:VideoSource/MotionAlarm"), "");
  EXPECT_EQ(refusal_of_name("tns1:A"), "");
  EXPECT_EQ(refusal_of_name("tns1:RuleEngine/acme:Detector/Crossed_1.2-3", acme), "");
  EXPECT_EQ(refusal_of_name("acme:A/B", acme), "");
  EXPECT_EQ(refusal_of_name("tns1:" + std::string(RECEIVER_MAX_TOPIC_BYTES - 5, 'x')), "");
  std::string deep = "tns1:A";
  for (int level = 1; level < RECEIVER_MAX_TOPIC_LEVELS; level++) {
    deep += "/A";
  }
  EXPECT_EQ(refusal_of_name(deep), "");
  EXPECT_EQ(refusal_of_name(deep + "/A"), INVALID_TOPIC);
}

TEST(EventTopicTest, RefusesOtherForms)
{
  for (const char *name : {"", "MotionAlarm", "tns1:", ":A", "tns1:A/", "/tns1:A", "tns1:A//B",
                           "tns1:A|tns1:B", "tns1:A//.", "tns1:1", "tns1:A B", "tns1:A/a:b:c", "tns1:Ä",
                           "tns1:A\n", "tns1:*", "acme:A", "tns1:A/acme:B", "tns2:A"}) {
    EXPECT_EQ(refusal_of_name(name), INVALID_TOPIC) << name;
  }
  EXPECT_EQ(refusal_of_name("tns1:" + std::string(RECEIVER_MAX_TOPIC_BYTES - 4, 'x')), INVALID_TOPIC);
}

TEST(EventTopicTest, RefusesWrongNamespaces)
{
  const std::string uri = "http://acme.example/";
  EventMap many;
  for (int i = 0; i <= RECEIVER_MAX_NAMESPACES; i++) {
    many["p" + std::to_string(i)] = uri;
  }

  for (const char *prefix : {"", "1a", "a:b", "tns1", "tt", "xs", "wsnt", "xml", "xmlns", "XmlFoo", "a b"}) {
    EXPECT_EQ(refusal_of_name("tns1:A", {{prefix, uri}}), INVALID_TOPIC) << prefix;
  }
  EXPECT_EQ(refusal_of_name("tns1:A", {{std::string(RECEIVER_MAX_PREFIX_BYTES + 1, 'a'), uri}}),
            INVALID_TOPIC);
  for (const char *wrong : {"", "http://a b", "http://ä", "http://\"", "a<b"}) {
    EXPECT_EQ(refusal_of_name("tns1:A", {{"acme", wrong}}), INVALID_TOPIC) << wrong;
  }
  EXPECT_EQ(refusal_of_name("tns1:A", {{"acme", std::string(RECEIVER_MAX_NAMESPACE_BYTES + 1, 'a')}}),
            INVALID_TOPIC);
  EXPECT_EQ(refusal_of_name("tns1:A", many), INVALID_TOPIC);
}

TEST(EventTopicTest, RemovesUnusedNamespaces)
{
  EventTopic topic = with([](EventTopic *it) {
    it->name = "acme:A";
    it->data = {{"State", "types:Fine"}};
    it->namespaces = {{"acme", "urn:a"}, {"types", "urn:t"}, {"unused", "urn:u"}};
  });

  EXPECT_TRUE(receiver::event_topic_check(&topic, nullptr));
  EXPECT_EQ(topic.namespaces, (EventMap{{"acme", "urn:a"}, {"types", "urn:t"}}));
}

TEST(EventTopicTest, ChecksItems)
{
  EXPECT_EQ(refusal_of_items({}), "");
  EXPECT_EQ(refusal_of_items(many_items(RECEIVER_MAX_EVENT_ITEMS)), "");
  EXPECT_EQ(refusal_of_items(many_items(RECEIVER_MAX_EVENT_ITEMS + 1)), INVALID_ITEMS);
  EXPECT_EQ(refusal_of_items({{"A", "xs:int"}, {"A", "xs:int"}}), INVALID_ITEMS);
  for (const char *name : {"", "1", "a b", "a:b", "ä", "<", "a/b"}) {
    EXPECT_EQ(refusal_of_items({{name, "xs:int"}}), INVALID_ITEMS) << name;
  }
  for (const char *type : {"", "int", "xs:", ":int", "xs:int ", "other:int", "a:b:c"}) {
    EXPECT_EQ(refusal_of_items({{"A", type}}), INVALID_ITEMS) << type;
  }
  EXPECT_EQ(refusal_of_items({{std::string(RECEIVER_MAX_ITEM_NAME_BYTES + 1, 'a'), "xs:int"}}),
            INVALID_ITEMS);
  EXPECT_EQ(refusal_of_items({{"A", "xs:" + std::string(RECEIVER_MAX_ITEM_TYPE_BYTES - 2, 'a')}}),
            INVALID_ITEMS);
}

TEST(EventTopicTest, OrdersValuesAsDeclared)
{
  EventTexts values;

  EXPECT_TRUE(receiver::event_items_take({{"B", "xs:int"}, {"A", "xs:string"}}, {{"A", "a"}, {"B", "1"}},
                                         "data", &values, nullptr));
  EXPECT_EQ(values, (EventTexts{"1", "a"}));
}

TEST(EventTopicTest, RequiresExactlyTheDeclaredItems)
{
  const EventPairs declared = {{"A", "xs:int"}, {"B", "xs:string"}};

  for (const EventMap &given :
       {EventMap{}, EventMap{{"A", "1"}}, EventMap{{"A", "1"}, {"C", "x"}},
        EventMap{{"A", "1"}, {"B", "x"}, {"C", "x"}}, EventMap{{"A", "one"}, {"B", "x"}}}) {
    g_autoptr(GError) error = nullptr;
    EventTexts values;
    EXPECT_FALSE(receiver::event_items_take(declared, given, "data", &values, &error));
    EXPECT_TRUE(g_error_matches(error, receiver::error_quark(), static_cast<gint>(Error::INVALID_ITEMS)));
  }
}

} // namespace

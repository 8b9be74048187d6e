/* SPDX-License-Identifier: MIT */
#include "eventsourcefactory.h"

#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <atomic>
#include <syslog.h>
#include <thread>

using testfactory::Params;
using testfactory::Result;
using testhost::Texts;

namespace
{

class EventSourceFactoryTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    factory_ = SOURCE_FACTORY(event_source_factory_new());
  }

  void TearDown() override
  {
    g_clear_object(&factory_);
    Fixture::TearDown();
  }

  Result request(const Params &params) const
  {
    return Result(factory_, params);
  }

  void expect_declined(const Params &params) const
  {
    testfactory::expect_declined(factory_, params);
  }

  void expect_refused(const Params &params, const std::string &text) const
  {
    testfactory::expect_refused(factory_, params, source_factory_error_quark(), text);
  }

  void expect_hostile_values_refused(const std::string &key, const std::string &problem) const
  {
    testfactory::expect_hostile_values_refused(factory_, key, source_factory_error_quark(), problem);
  }

private:
  SourceFactory *factory_ = nullptr;
};

} // namespace

TEST_F(EventSourceFactoryTest, IsAPlainObjectWithTheFactoryInterface)
{
  GTypeQuery query = {};
  g_type_query(event_source_factory_get_type(), &query);

  EXPECT_EQ(query.instance_size, sizeof(GObject));
  testfactory::expect_plain_factory(event_source_factory_get_type(), "EventSourceFactory");
}

TEST_F(EventSourceFactoryTest, DeclinesAnEmptyRequest)
{
  expect_declined({});
}

TEST_F(EventSourceFactoryTest, DeclinesARequestWithoutEventButWithFilters)
{
  expect_declined({{"event_topic", "tns1:Device//."}, {"event_content", "boolean(//*)"}});
}

TEST_F(EventSourceFactoryTest, DeclinesARequestThatDisablesEvents)
{
  expect_declined({{"event", "0"}});
  expect_declined({{"event", "0"}, {"event_topic", "\\"}, {"ptz", "1"}});
}

TEST_F(EventSourceFactoryTest, RefusesEveryOtherValue)
{
  for (const std::string value : {"true", "01", "", "2", "-1", "1 ", " 1", "11", "%s"}) {
    expect_refused({{"event", value}}, "Invalid value of 'event' parameter: '" + value + "'.");
  }
}

TEST_F(EventSourceFactoryTest, EscapesAndClipsAHostileValueInTheLog)
{
  expect_hostile_values_refused("event", "Invalid value of 'event' parameter");
}

TEST_F(EventSourceFactoryTest, MakesAnElementThatKeepsItsDefaults)
{
  testelements::take_filters();
  const Result result = request({{"event", "1"}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(result.error, nullptr);
  EXPECT_STREQ(GST_OBJECT_NAME(gst_element_get_factory(result.source)), "onvifeventsrc");
  EXPECT_EQ(GST_OBJECT_PARENT(result.source), nullptr);
  EXPECT_TRUE(g_str_has_prefix(GST_OBJECT_NAME(result.source), "testeventsource"));
  EXPECT_EQ(result.property("event-topic"), "default topic");
  EXPECT_EQ(result.property("event-content"), "default content");
  EXPECT_EQ(testelements::take_filters(), Texts());
}

TEST_F(EventSourceFactoryTest, SetsTheTopicAlone)
{
  testelements::take_filters();
  const Result result = request({{"event", "1"}, {"event_topic", "tns1:Device//."}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-topic=tns1:Device//."}));
}

TEST_F(EventSourceFactoryTest, SetsTheContentAlone)
{
  testelements::take_filters();
  const Result result = request({{"event", "1"}, {"event_content", "boolean(//tt:SimpleItem)"}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-content=boolean(//tt:SimpleItem)"}));
}

TEST_F(EventSourceFactoryTest, SetsAnEmptyFilter)
{
  const Result result = request({{"event", "1"}, {"event_topic", ""}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(result.property("event-topic"), "");
}

TEST_F(EventSourceFactoryTest, ReplacesTheEscapesOfBothFilters)
{
  const Result result = request({{"event", "1"},
                                 {"event_topic", R"(a\nb\tc\\d\"e\101\x)"},
                                 {"event_content", R"(\r\b\f\v\303\251\n)"}});

  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(result.property("event-topic"), "a\nb\tc\\d\"eAx");
  EXPECT_EQ(result.property("event-content"), "\r\b\f\v\u00e9\n");
}

TEST_F(EventSourceFactoryTest, DropsALoneBackslashAtTheEndOfAFilterWithoutAWarning)
{
  for (const auto &[escaped, topic] :
       {std::pair(R"(cut\)", "cut"), std::pair(R"(cut\\\)", R"(cut\)"), std::pair(R"(cut\\)", R"(cut\)"),
        std::pair(R"(\1\)", "\1"), std::pair(R"(\n\)", "\n"), std::pair(R"(\)", ""),
        std::pair(R"(\\)", R"(\)")}) {
    const Result result = request({{"event", "1"}, {"event_topic", escaped}});

    ASSERT_NE(result.source, nullptr);
    EXPECT_EQ(result.property("event-topic"), topic) << escaped;
    EXPECT_EQ(testhost::take_glib_messages(), Texts()) << escaped;
  }
}

TEST_F(EventSourceFactoryTest, FailsWithoutThePlatformsElement)
{
  const testelements::WithoutFactory without("onvifeventsrc");

  expect_declined({{"event", "0"}});
  expect_refused({{"event", "1"}, {"event_topic", "x"}}, "Could not construct onvifeventsrc.");
}

TEST_F(EventSourceFactoryTest, ServesTwoThreadsAtOnce)
{
  std::atomic<int> right = 0;
  const auto request_often = [&right, this](const char *topic) {
    for (int i = 0; i < 50; i++) {
      const Result result = request({{"event", "1"}, {"event_topic", topic}});
      right += result.source != nullptr && result.property("event-topic") == topic ? 1 : 0;
    }
  };

  std::thread other(request_often, "the other's");
  request_often("one's");
  other.join();
  EXPECT_EQ(right, 100);
}

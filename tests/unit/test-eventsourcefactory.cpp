#include "eventsourcefactory.h"

#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <atomic>
#include <syslog.h>
#include <thread>

using testfactory::Answer;
using testfactory::Params;
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

  Answer ask(const Params &params) const
  {
    return Answer(factory_, params);
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

TEST_F(EventSourceFactoryTest, IsAPlainObjectThatIsAFactory)
{
  const GType type = event_source_factory_get_type();
  GTypeQuery query = {};
  g_type_query(type, &query);

  EXPECT_STREQ(g_type_name(type), "EventSourceFactory");
  EXPECT_EQ(g_type_parent(type), static_cast<GType>(G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(type, SOURCE_TYPE_FACTORY));
  EXPECT_EQ(query.instance_size, sizeof(GObject));
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
}

TEST_F(EventSourceFactoryTest, DeclinesAnEmptyRequest)
{
  expect_declined({});
}

TEST_F(EventSourceFactoryTest, DeclinesARequestWithoutEventButWithFilters)
{
  expect_declined({{"event_topic", "tns1:Device//."}, {"event_content", "boolean(//*)"}});
}

TEST_F(EventSourceFactoryTest, DeclinesARequestForNoEvents)
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

TEST_F(EventSourceFactoryTest, LogsAFitPartOfAHostileValue)
{
  expect_hostile_values_refused("event", "Invalid value of 'event' parameter");
}

TEST_F(EventSourceFactoryTest, MakesAnElementThatKeepsItsDefaults)
{
  testelements::take_filters();
  const Answer answer = ask({{"event", "1"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.error, nullptr);
  EXPECT_STREQ(GST_OBJECT_NAME(gst_element_get_factory(answer.source)), "onvifeventsrc");
  EXPECT_EQ(GST_OBJECT_PARENT(answer.source), nullptr);
  EXPECT_TRUE(g_str_has_prefix(GST_OBJECT_NAME(answer.source), "testeventsource"));
  EXPECT_EQ(answer.property("event-topic"), "default topic");
  EXPECT_EQ(answer.property("event-content"), "default content");
  EXPECT_EQ(testelements::take_filters(), Texts());
}

TEST_F(EventSourceFactoryTest, SetsTheTopicAlone)
{
  testelements::take_filters();
  const Answer answer = ask({{"event", "1"}, {"event_topic", "tns1:Device//."}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-topic=tns1:Device//."}));
}

TEST_F(EventSourceFactoryTest, SetsTheContentAlone)
{
  testelements::take_filters();
  const Answer answer = ask({{"event", "1"}, {"event_content", "boolean(//tt:SimpleItem)"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-content=boolean(//tt:SimpleItem)"}));
}

TEST_F(EventSourceFactoryTest, SetsAnEmptyFilterToo)
{
  const Answer answer = ask({{"event", "1"}, {"event_topic", ""}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.property("event-topic"), "");
}

TEST_F(EventSourceFactoryTest, UndoesTheEscapesOfBothFilters)
{
  const Answer answer = ask({{"event", "1"},
                             {"event_topic", R"(a\nb\tc\\d\"e\101\x)"},
                             {"event_content", R"(\r\b\f\v\303\251\n)"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.property("event-topic"), "a\nb\tc\\d\"eAx");
  EXPECT_EQ(answer.property("event-content"), "\r\b\f\v\u00e9\n");
}

TEST_F(EventSourceFactoryTest, DropsALoneBackslashAtTheEndOfAFilterWithoutAWarning)
{
  for (const auto &[escaped, topic] :
       {std::pair(R"(cut\)", "cut"), std::pair(R"(cut\\\)", R"(cut\)"), std::pair(R"(cut\\)", R"(cut\)"),
        std::pair(R"(\1\)", "\1"), std::pair(R"(\n\)", "\n"), std::pair(R"(\)", ""),
        std::pair(R"(\\)", R"(\)")}) {
    const Answer answer = ask({{"event", "1"}, {"event_topic", escaped}});

    ASSERT_NE(answer.source, nullptr);
    EXPECT_EQ(answer.property("event-topic"), topic) << escaped;
    EXPECT_EQ(testhost::take_glib_messages(), Texts()) << escaped;
  }
}

TEST_F(EventSourceFactoryTest, FailsWithoutThePlatformsElement)
{
  const testelements::WithoutFactory without("onvifeventsrc");

  expect_declined({{"event", "0"}});
  expect_refused({{"event", "1"}, {"event_topic", "x"}}, "Could not construct onvifeventsrc.");
}

TEST_F(EventSourceFactoryTest, AnswersTwoThreadsAtOnce)
{
  std::atomic<int> right = 0;
  const auto ask_often = [&right, this](const char *topic) {
    for (int i = 0; i < 50; i++) {
      const Answer answer = ask({{"event", "1"}, {"event_topic", topic}});
      right += answer.source != nullptr && answer.property("event-topic") == topic ? 1 : 0;
    }
  };

  std::thread other(ask_often, "the other's");
  ask_often("one's");
  other.join();
  EXPECT_EQ(right, 100);
}

#include "eventsourcefactory.h"

#include "sourcefactory.h"
#include "testelements.h"
#include "testhost.h"

#include <atomic>
#include <syslog.h>
#include <thread>

using testhost::SyslogLines;
using testhost::Texts;

namespace
{

using Params = std::vector<std::pair<std::string, std::string>>;

/* The answer of a factory to one request. */
struct Answer {
  explicit Answer(const Params &params)
  {
    g_autoptr(EventSourceFactory) factory = event_source_factory_new();
    g_autoptr(GHashTable) table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    for (const auto &[key, value] : params) {
      g_hash_table_insert(table, g_strdup(key.c_str()), g_strdup(value.c_str()));
    }

    source = source_factory_create_source(SOURCE_FACTORY(factory), table, &error);
    if (source != nullptr) {
      EXPECT_TRUE(g_object_is_floating(source));
      gst_object_ref_sink(source);
    }
    EXPECT_EQ(g_hash_table_size(table), params.size());
  }

  ~Answer()
  {
    g_clear_object(&source);
    g_clear_error(&error);
  }

  Answer(const Answer &) = delete;
  Answer &operator=(const Answer &) = delete;

  std::string property(const char *name) const
  {
    g_autofree gchar *value = nullptr;
    g_object_get(source, name, &value, nullptr);
    return value;
  }

  GstElement *source = nullptr;
  GError *error = nullptr;
};

void
expect_declined(const Params &params)
{
  const Answer answer(params);

  EXPECT_EQ(answer.source, nullptr);
  EXPECT_EQ(answer.error, nullptr);
}

void
expect_refused(const Params &params, const std::string &text)
{
  const Answer answer(params);

  EXPECT_EQ(answer.source, nullptr);
  ASSERT_TRUE(g_error_matches(answer.error, source_factory_error_quark(), 0));
  EXPECT_EQ(answer.error->message, text);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, text}}));
}

class EventSourceFactoryTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }
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

TEST_F(EventSourceFactoryTest, MakesAnElementThatKeepsItsDefaults)
{
  testelements::take_filters();
  const Answer answer(Params{{"event", "1"}});

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
  const Answer answer(Params{{"event", "1"}, {"event_topic", "tns1:Device//."}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-topic=tns1:Device//."}));
}

TEST_F(EventSourceFactoryTest, SetsTheContentAlone)
{
  testelements::take_filters();
  const Answer answer(Params{{"event", "1"}, {"event_content", "boolean(//tt:SimpleItem)"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(testelements::take_filters(), (Texts{"event-content=boolean(//tt:SimpleItem)"}));
}

TEST_F(EventSourceFactoryTest, SetsAnEmptyFilterToo)
{
  const Answer answer(Params{{"event", "1"}, {"event_topic", ""}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.property("event-topic"), "");
}

TEST_F(EventSourceFactoryTest, UndoesTheEscapesOfBothFilters)
{
  const Answer answer(Params{
      {"event", "1"}, {"event_topic", R"(a\nb\tc\\d\"e\101\x)"}, {"event_content", R"(\r\b\f\v\303\251\n)"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.property("event-topic"), "a\nb\tc\\d\"eAx");
  EXPECT_EQ(answer.property("event-content"), "\r\b\f\v\u00e9\n");
}

TEST_F(EventSourceFactoryTest, TakesAFilterThatEndsInABackslash)
{
  const Answer answer(Params{{"event", "1"}, {"event_topic", "cut\\"}});

  ASSERT_NE(answer.source, nullptr);
  EXPECT_EQ(answer.property("event-topic"), "cut");
  EXPECT_EQ(testhost::take_glib_messages(), (Texts{"GLib: g_strcompress: trailing \\"}));
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
  const auto ask = [&right](const char *topic) {
    for (int i = 0; i < 50; i++) {
      const Answer answer(Params{{"event", "1"}, {"event_topic", topic}});
      right += answer.source != nullptr && answer.property("event-topic") == topic ? 1 : 0;
    }
  };

  std::thread other(ask, "the other's");
  ask("one's");
  other.join();
  EXPECT_EQ(right, 100);
}

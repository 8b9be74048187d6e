/* SPDX-License-Identifier: MIT */
#include "analyticsproducer.h"

#include "producerconfig.h"
#include "saves.h"
#include "testhost.h"
#include "testproducers.h"

#include <array>
#include <atomic>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <syslog.h>
#include <thread>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;
using testproducers::Channels;
using testproducers::make_producer;
using testproducers::references;
using testproducers::state;
using testproducers::text_property;

namespace
{

constexpr guint32 MAX_CHANNEL = std::numeric_limits<gint32>::max();

gint
type_property(AnalyticsProducer *producer)
{
  gint type = -1;

  g_object_get(producer, "type", &type, nullptr);
  return type;
}

GPtrArray *
channels_property(AnalyticsProducer *producer)
{
  gpointer channels = nullptr;

  g_object_get(producer, "channels-enabled", &channels, nullptr);
  return static_cast<GPtrArray *>(channels);
}

struct Entry {
  guint32 channel;
  gboolean enabled;
  std::string name;

  bool operator==(const Entry &) const = default;
};

std::ostream &
operator<<(std::ostream &stream, const Entry &entry)
{
  return stream << entry.channel << (entry.enabled ? " enabled as " : " disabled ") << entry.name;
}

std::vector<Entry>
entries(AnalyticsProducer *producer)
{
  GPtrArray *array = analytics_producer_get_all_channels_enabled(producer);
  std::vector<Entry> copies;

  for (guint i = 0; i < array->len; i++) {
    const auto *entry = static_cast<AnalyticsProducerChannel *>(array->pdata[i]);
    EXPECT_EQ(entry->enabled, entry->name != nullptr);
    copies.push_back({entry->channel, entry->enabled, entry->name != nullptr ? entry->name : ""});
  }
  return copies;
}

/* Counts a producer's notifications of its channels. */
class Notifications
{
public:
  explicit Notifications(AnalyticsProducer *producer)
  {
    id_ = g_signal_connect(producer, "notify::channels-enabled", G_CALLBACK(on_notify), this);
    producer_ = producer;
  }
  ~Notifications()
  {
    g_signal_handler_disconnect(producer_, id_);
  }
  Notifications(const Notifications &) = delete;
  Notifications &operator=(const Notifications &) = delete;

  std::function<void()> hook;
  int count = 0;

private:
  static void on_notify(AnalyticsProducer *, GParamSpec *, gpointer user_data)
  {
    auto *self = static_cast<Notifications *>(user_data);
    self->count++;
    if (self->hook) {
      self->hook();
    }
  }

  AnalyticsProducer *producer_;
  gulong id_;
};

class AnalyticsProducerTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    file_ = path("producers.conf");
    std::ofstream(file_) << "[Producers.1.Stored]\nName=stored name\n\n[Producers.2.Stored]\nName=\n";
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
  }

  void TearDown() override
  {
    producer_config_free();
    Fixture::TearDown();
  }

  std::string content() const
  {
    std::stringstream text;
    text << std::ifstream(file_).rdbuf();
    return text.str();
  }

private:
  std::string file_;
};

} // namespace

TEST_F(AnalyticsProducerTest, IsAPlainObject)
{
  GTypeQuery query = {};
  g_type_query(ANALYTICS_TYPE_PRODUCER, &query);

  EXPECT_STREQ(query.type_name, "AnalyticsProducer");
  EXPECT_EQ(g_type_parent(ANALYTICS_TYPE_PRODUCER), static_cast<GType>(G_TYPE_OBJECT));
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
  EXPECT_EQ(query.instance_size, sizeof(GObject) + 5 * sizeof(gpointer));
}

TEST_F(AnalyticsProducerTest, KeepsItsFieldsInOrder)
{
  struct Fields {
    GObject parent;
    const gchar *name;
    const gchar *nice_name;
    const gchar *sample_frame_xml;
    GPtrArray *channels;
    gint32 type;
  };
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});
  const auto *fields = reinterpret_cast<Fields *>(producer);

  EXPECT_STREQ(fields->name, "Any");
  EXPECT_STREQ(fields->nice_name, "nice Any");
  EXPECT_STREQ(fields->sample_frame_xml, "<Any/>");
  EXPECT_EQ(fields->channels, analytics_producer_get_all_channels_enabled(producer));
  EXPECT_EQ(fields->type, 1);
}

TEST_F(AnalyticsProducerTest, HasItsProperties)
{
  constexpr guint CONSTRUCT_FLAGS = G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS;
  constexpr guint READ_FLAGS = G_PARAM_READABLE | G_PARAM_STATIC_STRINGS;
  struct Property {
    const char *name;
    GType type;
    const char *nick;
    const char *blurb;
    guint flags;
  };
  const std::array<Property, 5> expected = {{
      {"name", G_TYPE_STRING, "Name of the analytics producer", "Name of the analytics producer",
       CONSTRUCT_FLAGS},
      {"nice-name", G_TYPE_STRING, "Nice name of the analytics producer",
       "Nice name of the analytics producer", CONSTRUCT_FLAGS},
      {"sample-frame-xml", G_TYPE_STRING, "Sample frame XML", "Sample frame of producer in ONVIF XML format",
       CONSTRUCT_FLAGS},
      {"channels-enabled", G_TYPE_POINTER, "List of analytics channels",
       "List of analytics channels supported by producer", READ_FLAGS},
      {"type", G_TYPE_INT, "Type of the analytics producer", "Type of the analytics producer",
       CONSTRUCT_FLAGS},
  }};
  auto *klass = static_cast<GObjectClass *>(g_type_class_ref(ANALYTICS_TYPE_PRODUCER));
  guint count = 0;
  g_autofree GParamSpec **specs = g_object_class_list_properties(klass, &count);

  ASSERT_EQ(count, expected.size());
  for (const Property &property : expected) {
    const GParamSpec *spec = g_object_class_find_property(klass, property.name);
    ASSERT_NE(spec, nullptr) << property.name;
    EXPECT_EQ(spec->param_id, static_cast<guint>(&property - expected.data() + 1)) << property.name;
    EXPECT_EQ(spec->value_type, property.type) << property.name;
    EXPECT_STREQ(g_param_spec_get_nick(const_cast<GParamSpec *>(spec)), property.nick);
    EXPECT_STREQ(g_param_spec_get_blurb(const_cast<GParamSpec *>(spec)), property.blurb);
    EXPECT_EQ(static_cast<guint>(spec->flags), property.flags) << property.name;
  }
  g_type_class_unref(klass);
}

TEST_F(AnalyticsProducerTest, HasDefaults)
{
  g_autoptr(AnalyticsProducer) producer = ANALYTICS_PRODUCER(g_object_new(ANALYTICS_TYPE_PRODUCER, nullptr));

  EXPECT_EQ(text_property(producer, "name"), "");
  EXPECT_EQ(text_property(producer, "nice-name"), "");
  EXPECT_EQ(text_property(producer, "sample-frame-xml"), "");
  EXPECT_EQ(type_property(producer), 0);
  EXPECT_EQ(entries(producer), std::vector<Entry>());
}

TEST_F(AnalyticsProducerTest, HasTheValuesOfItsConstruction)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {3, 1, 2}, ANALYTICS_PRODUCER_BUILT_IN);

  EXPECT_EQ(references(producer), 1U);
  EXPECT_EQ(text_property(producer, "name"), "Any");
  EXPECT_EQ(text_property(producer, "nice-name"), "nice Any");
  EXPECT_EQ(text_property(producer, "sample-frame-xml"), "<Any/>");
  EXPECT_EQ(type_property(producer), 0);
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{3, FALSE, ""}, {1, FALSE, ""}, {2, FALSE, ""}}));
}

TEST_F(AnalyticsProducerTest, IsOfOneOfThreeKinds)
{
  EXPECT_EQ(ANALYTICS_PRODUCER_BUILT_IN, 0);
  EXPECT_EQ(ANALYTICS_PRODUCER_EXTERNAL, 1);
  for (const gint type : {0, 1, 2}) {
    g_autoptr(AnalyticsProducer) producer = make_producer("Any", {}, type);
    EXPECT_EQ(type_property(producer), type);
  }
  for (const gint type : {-1, 3, G_MAXINT}) {
    g_autoptr(AnalyticsProducer) producer = make_producer("Any", {}, type);
    EXPECT_EQ(type_property(producer), 0);
    EXPECT_EQ(testhost::take_glib_messages(),
              (Texts{"GLib-GObject: value \"" + std::to_string(type) +
                     "\" of type 'gint' is invalid or out of range for property 'type' of type 'gint'"}));
  }
}

TEST_F(AnalyticsProducerTest, WarnsOfAnUnknownProperty)
{
  constexpr guint UNKNOWN = 99;
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {});
  auto *klass = G_OBJECT_GET_CLASS(producer);
  GParamSpec *spec = g_object_class_find_property(klass, "name");
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_STRING);

  klass->get_property(G_OBJECT(producer), UNKNOWN, &value, spec);
  klass->set_property(G_OBJECT(producer), UNKNOWN, &value, spec);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 2U);
  for (const std::string &message : messages) {
    EXPECT_NE(
        message.find("invalid property id 99 for \"name\" of type 'GParamString' in 'AnalyticsProducer'"),
        std::string::npos)
        << message;
  }
}

TEST_F(AnalyticsProducerTest, CopiesAndReplacesAText)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {});
  auto *klass = G_OBJECT_GET_CLASS(producer);

  for (const char *name : {"name", "nice-name", "sample-frame-xml"}) {
    std::string text = "first " + std::string(name);
    GParamSpec *spec = g_object_class_find_property(klass, name);
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_static_string(&value, text.c_str());
    klass->set_property(G_OBJECT(producer), spec->param_id, &value, spec);
    text[0] = 'F';
    EXPECT_EQ(text_property(producer, name), "first " + std::string(name));
  }
}

TEST_F(AnalyticsProducerTest, ChecksTheArgumentsOfItsConstruction)
{
  g_autoptr(GArray) none = g_array_new(FALSE, FALSE, sizeof(guint32));

  EXPECT_EQ(analytics_producer_new(nullptr, "", "", none, 0), nullptr);
  EXPECT_EQ(analytics_producer_new("", nullptr, "", none, 0), nullptr);
  EXPECT_EQ(analytics_producer_new("", "", nullptr, none, 0), nullptr);
  EXPECT_EQ(analytics_producer_new("", "", "", nullptr, 0), nullptr);
  EXPECT_EQ(
      testhost::take_failed_preconditions(),
      (Texts{"name != NULL", "nice_name != NULL", "sample_frame_xml != NULL", "supported_channels != NULL"}));
}

TEST_F(AnalyticsProducerTest, IsInitiallyEnabledOnChannelsWithAConfiguredName)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Stored", {1, 2, 3});

  EXPECT_EQ(entries(producer),
            (std::vector<Entry>{{1, FALSE, ""}, {2, TRUE, "stored name"}, {3, FALSE, ""}}));
  EXPECT_EQ(state(producer, 1), "disabled");
  EXPECT_EQ(state(producer, 2), "[stored name]");
  EXPECT_EQ(state(producer, 3), "disabled");
}

TEST_F(AnalyticsProducerTest, ReturnsItsOwnChannels)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  EXPECT_EQ(channels_property(producer), analytics_producer_get_all_channels_enabled(producer));
  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{1, TRUE, "profile"}}));
}

TEST_F(AnalyticsProducerTest, IsEnabledAndDisabled)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1, 2});

  analytics_producer_set_channel_enabled(producer, 2, TRUE, "profile");
  EXPECT_EQ(state(producer, 1), "disabled");
  EXPECT_EQ(state(producer, 2), "[profile]");
  saves::wait();
  EXPECT_TRUE(content().ends_with("[Producers.1.Any]\nName=profile\n"));
  analytics_producer_set_channel_enabled(producer, 2, FALSE, "ignored");
  EXPECT_EQ(state(producer, 2), "disabled");
  saves::wait();
  EXPECT_TRUE(content().ends_with("[Producers.1.Any]\nName=\n"));
}

TEST_F(AnalyticsProducerTest, TreatsAnyValueButZeroAsEnabled)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  analytics_producer_set_channel_enabled(producer, 1, 256, "profile");
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{1, TRUE, "profile"}}));
}

TEST_F(AnalyticsProducerTest, IsEnabledUnderAnEmptyNameUntilTheNextStart)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  analytics_producer_set_channel_enabled(producer, 1, TRUE, "");
  EXPECT_EQ(state(producer, 1), "[]");
  g_autoptr(AnalyticsProducer) next = make_producer("Any", {1});
  EXPECT_EQ(state(next, 1), "disabled");
}

TEST_F(AnalyticsProducerTest, IsEnabledUnderItsOwnName)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Stored", {2});
  const auto *entry = static_cast<AnalyticsProducerChannel *>(
      analytics_producer_get_all_channels_enabled(producer)->pdata[0]);

  analytics_producer_set_channel_enabled(producer, 2, TRUE, entry->name);
  EXPECT_EQ(state(producer, 2), "[stored name]");
}

TEST_F(AnalyticsProducerTest, RefusesToEnableAChannelWithoutAName)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Stored", {2});

  analytics_producer_set_channel_enabled(producer, 2, TRUE, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"!enabled || name != NULL"}));
  EXPECT_EQ(state(producer, 2), "[stored name]");
  analytics_producer_set_channel_enabled(producer, 2, FALSE, nullptr);
  EXPECT_EQ(state(producer, 2), "disabled");
}

TEST_F(AnalyticsProducerTest, NotifiesOfEachChange)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});
  Notifications notifications(producer);
  std::string state_seen;
  notifications.hook = [&] { state_seen = state(producer, 1); };

  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_EQ(notifications.count, 1);
  EXPECT_EQ(state_seen, "[profile]");
  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_EQ(notifications.count, 2) << "also when nothing is different";
  analytics_producer_set_channel_enabled(producer, 1, FALSE, nullptr);
  EXPECT_EQ(notifications.count, 3);
  EXPECT_EQ(state_seen, "disabled");
}

TEST_F(AnalyticsProducerTest, RefusesAChannelThatItDoesNotSupport)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Stored", {2});
  const Notifications notifications(producer);
  const std::string before = content();

  /* The log has the signed number that the bus has. */
  for (const gint32 logged : {0, 1, 7, -1}) {
    const auto channel = static_cast<guint32>(logged);
    EXPECT_FALSE(analytics_producer_is_channel_supported(producer, channel));
    EXPECT_EQ(state(producer, channel), "disabled");
    for (const bool enabled : {true, false}) {
      analytics_producer_set_channel_enabled(producer, channel, enabled, "profile");
      EXPECT_EQ(testhost::take_syslog(),
                (SyslogLines{{LOG_WARNING, "Tried to enable/disable producer on non-supported channel " +
                                               std::to_string(logged) + " on Stored"}}));
    }
  }
  EXPECT_TRUE(analytics_producer_is_channel_supported(producer, 2));
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{2, TRUE, "stored name"}}));
  EXPECT_EQ(content(), before);
  EXPECT_EQ(notifications.count, 0);
}

TEST_F(AnalyticsProducerTest, CanSupportNoChannel)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {});

  EXPECT_EQ(entries(producer), std::vector<Entry>());
  EXPECT_FALSE(analytics_producer_is_channel_supported(producer, 1));
}

TEST_F(AnalyticsProducerTest, ChangesTheFirstOfTwoEntriesOfAChannel)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1, 1});

  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{1, TRUE, "profile"}, {1, FALSE, ""}}));
  EXPECT_EQ(state(producer, 1), "[profile]");
}

TEST_F(AnalyticsProducerTest, AcceptsChannelZero)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {0, 1});

  analytics_producer_set_channel_enabled(producer, 0, TRUE, "odd");
  EXPECT_EQ(entries(producer), (std::vector<Entry>{{0, TRUE, "odd"}, {1, FALSE, ""}}));
  g_autoptr(AnalyticsProducer) next = make_producer("Any", {0, 1});
  EXPECT_EQ(entries(next), (std::vector<Entry>{{0, TRUE, "odd"}, {1, FALSE, ""}}));
}

TEST_F(AnalyticsProducerTest, LeavesOutChannelsThatAreNegativeOnTheBus)
{
  g_autoptr(AnalyticsProducer) producer =
      make_producer("Any", {MAX_CHANNEL + 1, 2, MAX_CHANNEL, G_MAXUINT32});

  EXPECT_EQ(entries(producer), (std::vector<Entry>{{2, FALSE, ""}, {MAX_CHANNEL, FALSE, ""}}));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "left out 2 channels above 2147483647 of producer Any"}}));
}

TEST_F(AnalyticsProducerTest, StaysEnabledWhenTheFileCannotBeWritten)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("a[b]\n", {1});
  const Notifications notifications(producer);

  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "could not write name to producerconfig: "
                                       "Not the name of a group: \"Producers.0.a[b]\\n\""}}));
  EXPECT_EQ(state(producer, 1), "[profile]");
  EXPECT_EQ(notifications.count, 1);
}

TEST_F(AnalyticsProducerTest, ChecksForAProducer)
{
  g_autofree gchar *name = nullptr;

  analytics_producer_set_channel_enabled(nullptr, 1, TRUE, "profile");
  EXPECT_FALSE(analytics_producer_get_channel_enabled(nullptr, 1, &name));
  EXPECT_FALSE(analytics_producer_is_channel_supported(nullptr, 1));
  EXPECT_EQ(analytics_producer_get_all_channels_enabled(nullptr), nullptr);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts(4, "ANALYTICS_IS_PRODUCER(self)"));
}

/* Request threads read names while the main thread changes them. Each read returns one complete name; the
 * sanitizers detect a name that is freed too early. */
TEST_F(AnalyticsProducerTest, IsReadByThreadsWhileItChanges)
{
  constexpr int CHANGES = 200;
  const std::array<std::string, 2> names = {std::string(30, 'a'), std::string(60, 'b')};
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1, 2});
  std::atomic<bool> done = false;
  std::atomic<int> wrong = 0;
  std::atomic<int> enabled_seen = 0;
  const auto read = [&] {
    while (!done) {
      g_autofree gchar *name = nullptr;
      const gboolean enabled = analytics_producer_get_channel_enabled(producer, 2, &name);
      const bool right =
          enabled ? name != nullptr && (name == names[0] || name == names[1]) : name == nullptr;
      wrong += right && analytics_producer_is_channel_supported(producer, 2) ? 0 : 1;
      enabled_seen += enabled ? 1 : 0;
    }
  };

  std::thread first(read);
  std::thread second(read);
  for (int i = 0; i < CHANGES || enabled_seen == 0; i++) {
    analytics_producer_set_channel_enabled(producer, 2, i % 3 != 2, names[i % 3 % 2].c_str());
    saves::wait();
  }
  done = true;
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
}

#include "analyticsproducer.h"

#include "producerconfig.h"
#include "testhost.h"

#include <fstream>
#include <syslog.h>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

using Channels = std::vector<guint32>;

AnalyticsProducer *
make_producer(const std::string &name, const Channels &channels, gint type = ANALYTICS_PRODUCER_EXTERNAL)
{
  g_autoptr(GArray) array = g_array_new(FALSE, FALSE, sizeof(guint32));

  g_array_append_vals(array, channels.data(), channels.size());
  return analytics_producer_new(name.c_str(), ("nice " + name).c_str(), ("<" + name + "/>").c_str(), array,
                                type);
}

/* What a producer says of one channel. */
struct Enabled {
  Enabled(AnalyticsProducer *producer, guint32 channel)
  {
    g_autofree gchar *taken = g_strdup("not set");
    g_free(std::exchange(taken, nullptr));
    enabled = analytics_producer_get_channel_enabled(producer, channel, &taken);
    has_name = taken != nullptr;
    name = has_name ? taken : "";
  }

  gboolean enabled;
  bool has_name;
  std::string name;
};

class AnalyticsProducerTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    file_ = path("producers.conf");
    std::ofstream(file_) << "[Producers.1.Stored]\nName=stored name\n";
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
  }

  void TearDown() override
  {
    producer_config_free();
    Fixture::TearDown();
  }

private:
  std::string file_;
};

} // namespace

TEST_F(AnalyticsProducerTest, StartsEnabledWhereTheConfigurationHoldsAName)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Stored", {1, 2});

  EXPECT_FALSE(Enabled(producer, 1).enabled);
  EXPECT_TRUE(Enabled(producer, 2).enabled);
  EXPECT_EQ(Enabled(producer, 2).name, "stored name");
}

TEST_F(AnalyticsProducerTest, IsEnabledAndDisabled)
{
  g_autoptr(AnalyticsProducer) producer = make_producer("Any", {1});

  analytics_producer_set_channel_enabled(producer, 1, TRUE, "profile");
  EXPECT_TRUE(Enabled(producer, 1).enabled);
  EXPECT_EQ(Enabled(producer, 1).name, "profile");
  analytics_producer_set_channel_enabled(producer, 1, FALSE, "ignored");
  EXPECT_FALSE(Enabled(producer, 1).enabled);
  EXPECT_FALSE(Enabled(producer, 1).has_name);
}

TEST_F(AnalyticsProducerTest, IsListedOnce)
{
  g_autoptr(AnalyticsProducerList) list = analytics_producer_list_new();
  g_autoptr(AnalyticsProducer) first = make_producer("Any", {1});
  g_autoptr(AnalyticsProducer) second = make_producer("Any", {1});

  EXPECT_TRUE(analytics_producer_list_add(list, first));
  EXPECT_FALSE(analytics_producer_list_add(list, second));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "tried to add a producer that already exists: Any"}}));
  g_autoptr(AnalyticsProducer) found = analytics_producer_list_get_producer(list, "Any");
  EXPECT_EQ(found, first);
}

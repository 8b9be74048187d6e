/* SPDX-License-Identifier: MIT */
#include "externalsourcefactory.h"

#include "dbusclient.h"
#include "externalsrc.h"
#include "optionvalidation.h"
#include "producerconfig.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"
#include "testproducers.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <future>
#include <gst/app/gstappsink.h>
#include <mutex>
#include <poll.h>
#include <regex>
#include <syslog.h>
#include <unistd.h>
#include <utility>

using testelements::ReplacedFactory;
using testelements::Unusable;
using testelements::WithoutFactory;
using testfactory::Params;
using testfactory::Result;
using testhost::Texts;

namespace
{

/* A request for a stream, until the test replies. */
struct StreamRequest {
  std::string text; /* producer, name in frames, channel */
  DbusClientFdFunc on_fd;
  std::string source_name;
  gpointer user_data;
  GDestroyNotify user_data_free;
};

/* Stands in for the client of the receiver service. Any thread. */
class ReceiverClient
{
public:
  gboolean add(const gchar *producer, StreamRequest request, gint channel)
  {
    std::lock_guard guard(lock_);

    frames_ = gst_app_src_get_current_level_buffers(GST_APP_SRC(request.user_data));
    request.text = std::string(producer) + " as " + request.source_name + " on " + std::to_string(channel);
    requests_.push_back(std::move(request));
    return connected_;
  }

  /* The requests since the last call, sorted by text: the list of producers has no order. */
  std::vector<StreamRequest> take()
  {
    std::lock_guard guard(lock_);
    std::vector<StreamRequest> requests = std::exchange(requests_, {});

    std::sort(requests.begin(), requests.end(),
              [](const StreamRequest &one, const StreamRequest &other) { return one.text < other.text; });
    return requests;
  }

  /* How many frames the source had at the last request. */
  guint64 frames()
  {
    std::lock_guard guard(lock_);

    return frames_;
  }

  /* Whether requests can be made. */
  void set_connected(gboolean connected)
  {
    std::lock_guard guard(lock_);

    connected_ = connected;
  }

private:
  std::mutex lock_;
  std::vector<StreamRequest> requests_;
  gboolean connected_ = TRUE;
  guint64 frames_ = 0;
};

ReceiverClient *receiver;
bool no_source = false;

} // namespace

extern "C" {
TESTHOST_REPLACEMENT gboolean __wrap_dbus_client_connect_producer(const gchar *producer_name,
                                                                  const gchar *source_name, gint channel,
                                                                  GCancellable *cancellable,
                                                                  DbusClientFdFunc on_fd, gpointer user_data,
                                                                  GDestroyNotify user_data_free);
ExternalSrc *__real_external_src_new(void);
TESTHOST_REPLACEMENT ExternalSrc *__wrap_external_src_new(void);
}

gboolean
__wrap_dbus_client_connect_producer(const gchar *producer_name, const gchar *source_name, gint channel,
                                    GCancellable *cancellable, DbusClientFdFunc on_fd, gpointer user_data,
                                    GDestroyNotify user_data_free)
{
  EXPECT_EQ(cancellable, external_src_get_cancellable(EXTERNAL_SRC(user_data)));
  return receiver->add(producer_name, {"", on_fd, source_name, user_data, user_data_free}, channel);
}

ExternalSrc *
__wrap_external_src_new(void)
{
  return no_source ? nullptr : __real_external_src_new();
}

namespace
{

/* Replies without a stream. */
void
release(const std::vector<StreamRequest> &requests)
{
  for (const StreamRequest &request : requests) {
    request.user_data_free(request.user_data);
  }
}

Texts
texts(const std::vector<StreamRequest> &requests)
{
  Texts texts;

  for (const StreamRequest &request : requests) {
    texts.push_back(request.text);
  }
  return texts;
}

/* The ExternalSrc in a bin. It has no name of its own; a bin has its oldest child last. */
GstElement *
source_of(GstElement *bin)
{
  gpointer oldest = g_list_last(GST_BIN(bin)->children)->data;

  EXPECT_TRUE(EXTERNAL_IS_SRC(oldest));
  return GST_ELEMENT(oldest);
}

/* Whether the other end of a pipe is open. */
bool
has_reader(int fd)
{
  pollfd descriptor = {fd, POLLOUT, 0};

  EXPECT_GE(poll(&descriptor, 1, 0), 0);
  return (descriptor.revents & POLLERR) == 0;
}

/* The first buffer that the source in a bin has, which must be without a timestamp. */
std::string
first_buffer(GstElement *bin)
{
  GstElement *source = source_of(bin);
  g_object_ref(source);
  gst_bin_remove(GST_BIN(bin), source);
  g_autoptr(GstElement) pipeline = gst_pipeline_new(nullptr);
  auto *sink = GST_ELEMENT(g_object_new(GST_TYPE_APP_SINK, "sync", FALSE, nullptr));
  gst_bin_add_many(GST_BIN(pipeline), source, sink, nullptr);
  gst_element_link(source, sink);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);

  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND);
  std::string text;
  if (sample != nullptr) {
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    EXPECT_EQ(GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE);
    EXPECT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    text.assign(reinterpret_cast<const char *>(map.data), map.size);
    gst_buffer_unmap(buffer, &map);
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  g_object_unref(source);
  return text;
}

class ExternalSourceFactoryTest : public testhost::Fixture
{
protected:
  /* The local time is not UTC. */
  static void SetUpTestSuite()
  {
    g_setenv("TZ", "JST-9", TRUE);
    testelements::install();
    gst_object_unref(gst_object_ref_sink(external_src_new()));
  }

  /* Two applications, one of them enabled on channels 1 and 3, the other on 1 and, as the built-in producer,
   * on 5. Channel 2 has no producer. */
  void SetUp() override
  {
    Fixture::SetUp();
    receiver = &receiver_;
    configuration_ = path("producers.conf");
    std::ofstream(configuration_) << "[Producers.0.People]\nName=front door\n"
                                  << "[Producers.2.People]\nName=yard\n"
                                  << "[Producers.0.Cars]\nName=street\n"
                                  << "[Producers.0.BuiltIn]\nName=inside\n"
                                  << "[Producers.4.BuiltIn]\nName=roof\n";
    ASSERT_TRUE(producer_config_setup(configuration_.c_str()));
    producers_ = analytics_producer_list_new();
    add_producer("People", ANALYTICS_PRODUCER_EXTERNAL);
    add_producer("Cars", ANALYTICS_PRODUCER_EXTERNAL);
    add_producer("BuiltIn", ANALYTICS_PRODUCER_BUILT_IN);
    factory_ = SOURCE_FACTORY(external_source_factory_new(producers_));
    testelements::take_settings();
  }

  void TearDown() override
  {
    EXPECT_EQ(texts(receiver_.take()), Texts());
    g_clear_object(&factory_);
    g_clear_pointer(&producers_, analytics_producer_list_free);
    producer_config_free();
    receiver = nullptr;
    Fixture::TearDown();
  }

  void add_producer(const char *name, gint type)
  {
    g_autoptr(AnalyticsProducer) producer = testproducers::make_producer(name, {1, 2, 3, 4, 5}, type);

    ASSERT_TRUE(analytics_producer_list_add(producers_, producer));
  }

  Result request(const Params &params)
  {
    return Result(factory_, params);
  }

  void expect_refused(const Params &params, GQuark domain, const std::string &text)
  {
    testfactory::expect_refused(factory_, params, domain, text);
  }

  void expect_build_failure(const std::string &text)
  {
    expect_refused({{"analytics", "1"}}, source_factory_error_quark(), text);
  }

  ReceiverClient receiver_;
  std::string configuration_;
  AnalyticsProducerList *producers_ = nullptr;
  SourceFactory *factory_ = nullptr;
};

} // namespace

TEST_F(ExternalSourceFactoryTest, IsAPlainObjectWithTheFactoryInterface)
{
  testfactory::expect_plain_factory(external_source_factory_get_type(), "ExternalSourceFactory");
}

/* Parameters. */

TEST_F(ExternalSourceFactoryTest, DeclinesARequestWithoutAnalyticsAndIgnoresItsOtherParameters)
{
  for (const Params &params : {Params{}, Params{{"analytics", "0"}}, Params{{"video_channel", "abc"}},
                               Params{{"analytics", "0"}, {"video_channel", "abc"}}}) {
    testfactory::expect_declined(factory_, params);
  }
}

TEST_F(ExternalSourceFactoryTest, RefusesOtherAnalytics)
{
  for (const std::string value : {"3", "", "01", " 1", "yes", "%s"}) {
    expect_refused({{"analytics", value}, {"video_channel", "x"}}, option_validation_error_quark(),
                   "Invalid value of 'analytics' parameter: '" + value + "'.");
  }
}

TEST_F(ExternalSourceFactoryTest, RefusesABadChannel)
{
  expect_refused({{"analytics", "1"}, {"video_channel", "1a"}}, option_validation_error_quark(),
                 "Invalid value of 'channel'           parameter: '1a'.");
  expect_refused({{"analytics", "2"}, {"video_channel", "99999999999"}}, option_validation_error_quark(),
                 "Value out of bounds for 'channel'         parameter: '99999999999'.");
  EXPECT_EQ(testelements::take_settings(), Texts());
}

/* Producers that are requested. */

TEST_F(ExternalSourceFactoryTest, DeclinesAChannelOnWhichNoExternalProducerIsEnabled)
{
  for (const char *analytics : {"1", "2"}) {
    for (const char *channel : {"2", "0", "", "77", "2147483646"}) {
      testfactory::expect_declined(factory_, {{"analytics", analytics}, {"video_channel", channel}});
    }
  }
}

TEST_F(ExternalSourceFactoryTest, IgnoresABuiltInProducer)
{
  testfactory::expect_declined(factory_, {{"analytics", "1"}, {"video_channel", "5"}});
}

TEST_F(ExternalSourceFactoryTest, RequestsEachEnabledProducerOnTheFirstChannelByDefault)
{
  const Result result = request({{"analytics", "1"}});
  EXPECT_NE(result.source, nullptr);
  const std::vector<StreamRequest> requests = receiver_.take();

  EXPECT_EQ(texts(requests), (Texts{"Cars as street on 1", "People as front door on 1"}));
  release(requests);
}

TEST_F(ExternalSourceFactoryTest, RequestsProducersOnTheChannelOfTheRequest)
{
  const Result result = request({{"analytics", "2"}, {"video_channel", "3"}});
  EXPECT_NE(result.source, nullptr);
  const std::vector<StreamRequest> requests = receiver_.take();

  EXPECT_EQ(texts(requests), (Texts{"People as yard on 3"}));
  release(requests);
}

TEST_F(ExternalSourceFactoryTest, FollowsAProducerThatIsEnabledAndRemoved)
{
  g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers_, "Cars");
  const Params params = {{"analytics", "1"}, {"video_channel", "2"}};

  analytics_producer_set_channel_enabled(producer, 2, TRUE, "gate");
  {
    const Result result = request(params);
    const std::vector<StreamRequest> requests = receiver_.take();
    EXPECT_EQ(texts(requests), (Texts{"Cars as gate on 2"}));
    release(requests);
  }
  analytics_producer_list_remove(producers_, "Cars");
  testfactory::expect_declined(factory_, params);
}

/* The bin. */

TEST_F(ExternalSourceFactoryTest, BuildsABinOfSourceAndConverter)
{
  const Result result = request({{"analytics", "1"}, {"video_channel", "3"}});
  release(receiver_.take());
  ASSERT_NE(result.source, nullptr);
  EXPECT_EQ(result.error, nullptr);
  EXPECT_EQ(G_OBJECT_TYPE(result.source), GST_TYPE_BIN);
  EXPECT_STREQ(GST_OBJECT_NAME(result.source), "externalsrcfactorybin");
  EXPECT_EQ(GST_BIN_NUMCHILDREN(result.source), 2);

  g_autoptr(GstElement) converter = gst_bin_get_by_name(GST_BIN(result.source), "json2xml");
  ASSERT_NE(converter, nullptr);
  EXPECT_EQ(testfactory::factory_name(converter), "json2xml");
  GstElement *source = source_of(result.source);
  gint channel = 0;
  g_object_get(source, "video-channel", &channel, nullptr);
  EXPECT_EQ(channel, 3);
  testfactory::expect_linked(source, converter);
  testfactory::expect_ghost_pad(result.source, converter);
}

TEST_F(ExternalSourceFactoryTest, ExcludesPolygonsUnlessTheyAreRequested)
{
  {
    const Result result = request({{"analytics", "1"}});
    EXPECT_EQ(testelements::take_settings(), (Texts{"json2xml exclude-polygon=TRUE"}));
  }
  const Result result = request({{"analytics", "2"}});
  EXPECT_EQ(testelements::take_settings(), (Texts{"json2xml exclude-polygon=FALSE"}));
  release(receiver_.take());
}

TEST_F(ExternalSourceFactoryTest, StartsTheStreamWithAFrameOfTheMonotonicAndTheUtcTime)
{
  const gint64 before_us = g_get_monotonic_time();
  g_autoptr(GDateTime) before = g_date_time_new_now_utc();
  const Result result = request({{"analytics", "1"}});
  release(receiver_.take());
  const gint64 after_us = g_get_monotonic_time();
  g_autoptr(GDateTime) after = g_date_time_new_now_utc();
  ASSERT_NE(result.source, nullptr);

  const std::string frame = first_buffer(result.source);
  std::smatch found;
  ASSERT_TRUE(std::regex_match(
      frame, found,
      std::regex(R"X(\{     "Source": "StreamStart",     "Data": \{         "Item": \[             )X"
                 R"X(\{                 "TimestampMono": "(\d+)",                 "UtcTime": "([^"]+)")X"
                 R"X(             \}         \]     \} \})X")))
      << frame;
  const gint64 monotonic = g_ascii_strtoll(found.str(1).c_str(), nullptr, 10);
  EXPECT_GE(monotonic, before_us);
  EXPECT_LE(monotonic, after_us);
  EXPECT_EQ(found.str(2).back(), 'Z');
  g_autoptr(GDateTime) utc = g_date_time_new_from_iso8601(found.str(2).c_str(), nullptr);
  ASSERT_NE(utc, nullptr) << frame;
  EXPECT_GE(g_date_time_difference(utc, before), 0);
  EXPECT_GE(g_date_time_difference(after, utc), 0);
}

TEST_F(ExternalSourceFactoryTest, HasTheFirstFrameBeforeAnyProducerIsRequested)
{
  const Result result = request({{"analytics", "1"}, {"video_channel", "3"}});
  release(receiver_.take());

  EXPECT_EQ(receiver_.frames(), 1U);
}

/* The streams. */

TEST_F(ExternalSourceFactoryTest, GivesEachStreamToTheSourceThatRequestedIt)
{
  const Result result = request({{"analytics", "1"}});
  ASSERT_NE(result.source, nullptr);
  GstElement *source = source_of(result.source);
  std::vector<int> producers;
  guint sockets = 0;

  for (const StreamRequest &request : receiver_.take()) {
    std::array<int, 2> fds = {-1, -1};
    ASSERT_EQ(pipe(fds.data()), 0);
    request.on_fd(fds[0], request.source_name.c_str(), request.user_data);
    request.user_data_free(request.user_data);
    producers.push_back(fds[1]);
  }
  g_object_get(source, "num-sockets", &sockets, nullptr);
  EXPECT_EQ(sockets, 2U);

  for (const int fd : producers) {
    close(fd);
  }
  EXPECT_TRUE(testhost::spin_until([&] {
    g_object_get(source, "num-sockets", &sockets, nullptr);
    return sockets == 0;
  }));
}

TEST_F(ExternalSourceFactoryTest, IgnoresAStreamThatFailed)
{
  const Result result = request({{"analytics", "1"}, {"video_channel", "3"}});
  ASSERT_NE(result.source, nullptr);
  GstElement *source = source_of(result.source);
  const std::vector<StreamRequest> requests = receiver_.take();
  guint sockets = 1;

  ASSERT_EQ(requests.size(), 1U);
  requests[0].on_fd(-1, "yard", requests[0].user_data);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"consumer_fd > -1"}));
  release(requests);
  g_object_get(source, "num-sockets", &sockets, nullptr);
  EXPECT_EQ(sockets, 0U);
}

TEST_F(ExternalSourceFactoryTest, KeepsTheSourceUntilEveryReply)
{
  auto result = std::make_unique<Result>(factory_, Params{{"analytics", "1"}});
  ASSERT_NE(result->source, nullptr);
  const testhost::Observed source(source_of(result->source));
  const std::vector<StreamRequest> requests = receiver_.take();

  result.reset();
  ASSERT_EQ(requests.size(), 2U);
  requests[0].user_data_free(requests[0].user_data);
  EXPECT_TRUE(source.alive());
  requests[1].user_data_free(requests[1].user_data);
  EXPECT_FALSE(source.alive());
}

TEST_F(ExternalSourceFactoryTest, BuildsABinAlsoIfNoRequestCanBeMadeAndKeepsNothing)
{
  receiver_.set_connected(FALSE);
  auto result = std::make_unique<Result>(factory_, Params{{"analytics", "1"}});
  ASSERT_NE(result->source, nullptr);
  const testhost::Observed source(source_of(result->source));
  EXPECT_EQ(receiver_.take().size(), 2U);

  result.reset();
  EXPECT_FALSE(source.alive());
}

TEST_F(ExternalSourceFactoryTest, ClosesTheStreamsOfABinThatNeverPlayedWithTheBin)
{
  auto result = std::make_unique<Result>(factory_, Params{{"analytics", "1"}, {"video_channel", "3"}});
  ASSERT_NE(result->source, nullptr);
  const testhost::Observed source(source_of(result->source));
  const std::vector<StreamRequest> requests = receiver_.take();
  ASSERT_EQ(requests.size(), 1U);
  std::array<int, 2> fds = {-1, -1};
  ASSERT_EQ(pipe(fds.data()), 0);

  requests[0].on_fd(fds[0], "yard", requests[0].user_data);
  release(requests);
  result.reset();
  EXPECT_FALSE(source.alive());
  EXPECT_FALSE(has_reader(fds[1]));
  close(fds[1]);
}

TEST_F(ExternalSourceFactoryTest, ClosesAStreamThatComesAfterItsBinHasGone)
{
  auto result = std::make_unique<Result>(factory_, Params{{"analytics", "1"}, {"video_channel", "3"}});
  ASSERT_NE(result->source, nullptr);
  const std::vector<StreamRequest> requests = receiver_.take();
  ASSERT_EQ(requests.size(), 1U);
  std::array<int, 2> fds = {-1, -1};
  ASSERT_EQ(pipe(fds.data()), 0);

  result.reset();
  requests[0].on_fd(fds[0], "yard", requests[0].user_data);
  EXPECT_FALSE(has_reader(fds[1]));
  release(requests);
  close(fds[1]);
}

/* Failures. */

TEST_F(ExternalSourceFactoryTest, FailsWithoutASource)
{
  no_source = true;
  expect_build_failure("Could not construct externalsrc.");
  no_source = false;
}

TEST_F(ExternalSourceFactoryTest, FailsWithoutAConverterAlsoIfNoProducerIsEnabled)
{
  const WithoutFactory no_converter("json2xml");

  expect_build_failure("Could not construct json2xml.");
  expect_refused({{"analytics", "2"}, {"video_channel", "2"}}, source_factory_error_quark(),
                 "Could not construct json2xml.");
}

TEST_F(ExternalSourceFactoryTest, FailsWhenTheConverterCannotBeAdded)
{
  const ReplacedFactory converter("json2xml", Unusable::HAS_PARENT);

  expect_build_failure("Could not link externalsrc and json2xml.");
}

TEST_F(ExternalSourceFactoryTest, FailsWhenTheConverterCannotBeLinked)
{
  const ReplacedFactory converter("json2xml", Unusable::CANNOT_BE_LINKED);

  expect_build_failure("Could not link externalsrc and json2xml.");
}

TEST_F(ExternalSourceFactoryTest, FailsWhenTheBinCannotGetItsPad)
{
  const ReplacedFactory converter("json2xml", Unusable::HAS_NO_SOURCE_PAD);

  expect_build_failure("Could not add ghost pad for external metadata stream.");
}

TEST_F(ExternalSourceFactoryTest, ServesTwoThreadsAtOnce)
{
  constexpr int ROUNDS = 50;
  const auto request_often = [this](const char *channel) {
    int right = 0;
    for (int i = 0; i < ROUNDS; i++) {
      const Result result = request({{"analytics", "1"}, {"video_channel", channel}});
      right += result.source != nullptr ? 1 : 0;
    }
    return right;
  };

  auto other = std::async(std::launch::async, request_often, "3");
  EXPECT_EQ(request_often("1"), ROUNDS);
  EXPECT_EQ(other.get(), ROUNDS);
  const std::vector<StreamRequest> requests = receiver_.take();
  EXPECT_EQ(requests.size(), 3U * ROUNDS);
  release(requests);
}

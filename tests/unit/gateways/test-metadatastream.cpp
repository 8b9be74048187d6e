/* SPDX-License-Identifier: MIT */
#include "metadatastream.h"

#include "fakedaemon.h"
#include "tessardsrc.h"
#include "testclock.h"
#include "testhost.h"
#include "testlist.h"

#include <atomic>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace
{

using fakedaemon::Connection;
using fakedaemon::FakeDaemon;
using std::string_literals::operator""s;
using testhost::SyslogLine;
using testhost::SyslogLines;

const std::string REFUSAL = "FAIL\nThe camera has no events.\0"s;
const SyslogLine REFUSED = {LOG_WARNING, "Channel 3: The camera has no events."};

constexpr gint64 REPEATED_MS = 60 * G_TIME_SPAN_SECOND / G_TIME_SPAN_MILLISECOND;

/* The timeouts of the code under test, whose seconds are milliseconds: their lengths, and how many are over.
 */
std::vector<guint> waits_s;
guint waits_over;

using Wait = std::pair<GSourceFunc, gpointer>;

class MetadataStreamTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    waits_s.clear();
    waits_over = 0;
    gst_element_register(nullptr, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
    daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
    options_.event = TRUE;
    request_ = {&options_, path("metadata")};
    stream_ = std::make_unique<gateway::MetadataStream>(&request_, 3,
                                                        [this](GstBuffer *document) { take(document); });
  }

  void TearDown() override
  {
    stream_.reset();
    daemon_.reset();
    EXPECT_EQ(documents_.take(), std::vector<std::string>{});
    testhost::Fixture::TearDown();
  }

  void take(GstBuffer *document)
  {
    std::string text(gst_buffer_get_size(document), '\0');
    gst_buffer_extract(document, 0, text.data(), text.size());
    documents_.add((GST_BUFFER_IS_DISCONT(document) ? "first " : "") + text);
    while (is_held_) {
      g_thread_yield();
    }
  }

  void expect_documents(const std::vector<std::string> &texts)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return documents_.size() >= texts.size(); }));
    EXPECT_EQ(documents_.take(), texts);
  }

  /* The log's next line, which a main loop waits for. */
  void expect_log(const SyslogLines &lines)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::syslog_size() >= lines.size(); }));
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Accepts the next request, and refuses it. The stream then waits to begin again. */
  void refuse()
  {
    daemon_->accept_request()->send(REFUSAL);
    const gsize before = waits_s.size();
    EXPECT_TRUE(testhost::spin_until([&] { return waits_s.size() > before; }));
  }

  void wait_for_restart()
  {
    EXPECT_TRUE(testhost::spin_until([&] { return waits_over == waits_s.size(); }));
  }

  std::unique_ptr<FakeDaemon> daemon_;
  RequestOptions options_;
  gateway::MetadataRequest request_ = {};
  std::unique_ptr<gateway::MetadataStream> stream_;
  testhost::List<std::string> documents_;
  std::atomic<bool> is_held_ = false;
};

} // namespace

#pragma GCC visibility push(default)
extern "C" {

guint __wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data);

guint
__wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data)
{
  waits_s.push_back(interval);
  return g_timeout_add_full(
      G_PRIORITY_DEFAULT, interval,
      [](gpointer data) -> gboolean {
        const Wait *wait = static_cast<Wait *>(data);
        waits_over++;
        return wait->first(wait->second);
      },
      new Wait(function, user_data), [](gpointer data) { delete static_cast<Wait *>(data); });
}
}
#pragma GCC visibility pop

TEST_F(MetadataStreamTest, SendsTheRequestOfItsChannel)
{
  EXPECT_FALSE(stream_->is_started());
  stream_->start();
  stream_->start();
  EXPECT_TRUE(stream_->is_started());
  EXPECT_EQ(daemon_->accept()->read_request(), "OPEN\nevent=1\nvideo_channel=3\n\n");
}

TEST_F(MetadataStreamTest, PassesDocumentsOn)
{
  stream_->start();
  Connection *connection = daemon_->accept_stream();
  connection->send(fakedaemon::document("a") + fakedaemon::document("b"));
  expect_documents({"first a", "b"});
}

TEST_F(MetadataStreamTest, PassesOnWhatIsNoDocument)
{
  stream_->start();
  const std::vector<std::string> texts = {"<tt:MetadataStream>", "\0\xff<"s, "<?xml ?><!DOCTYPE a>",
                                          std::string(100000, '<')};
  Connection *connection = daemon_->accept_stream();
  for (const std::string &text : texts) {
    connection->send(fakedaemon::document(text));
  }
  expect_documents({"first " + texts[0], texts[1], texts[2], texts[3]});
}

TEST_F(MetadataStreamTest, BeginsAgainAfterARefusal)
{
  stream_->start();
  refuse();
  expect_log({REFUSED});
  EXPECT_EQ(waits_s, std::vector<guint>{GATEWAY_RESTART_SECONDS});
  EXPECT_TRUE(stream_->is_started());

  wait_for_restart();
  daemon_->accept_stream()->send(fakedaemon::document("a"));
  expect_documents({"first a"});
}

TEST_F(MetadataStreamTest, BeginsAgainAfterAMalformedStream)
{
  stream_->start();
  daemon_->accept_request()->send("OK\0"s + std::string(100, 'x'));
  EXPECT_TRUE(testhost::spin_until([&] { return !waits_s.empty(); }));
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].text.starts_with("Channel 3: The daemon's stream is malformed")) << lines[0].text;

  wait_for_restart();
  daemon_->accept_stream()->send(fakedaemon::document("a"));
  expect_documents({"first a"});
}

TEST_F(MetadataStreamTest, FollowsADaemonThatGoesAndComesBack)
{
  stream_->start();
  daemon_->accept_stream()->send(fakedaemon::document("a"));
  expect_documents({"first a"});
  daemon_.reset();
  expect_log({{LOG_WARNING, "Channel 3: The daemon ended the stream."}});

  daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
  daemon_->accept_stream()->send(fakedaemon::document("b"));
  expect_documents({"first b"});
  EXPECT_EQ(waits_s, std::vector<guint>{});
  testhost::dispatch_ready();
  testhost::take_syslog(); /* the socket is not there for a moment */
}

TEST_F(MetadataStreamTest, LogsARepeatedFailureOnceAMinute)
{
  testclock::stop();
  stream_->start();
  refuse();
  expect_log({REFUSED});
  testclock::advance_ms(REPEATED_MS - 1);
  wait_for_restart();
  refuse();
  expect_log({});
  testclock::advance_ms(1);
  wait_for_restart();
  refuse();
  expect_log({REFUSED});
}

TEST_F(MetadataStreamTest, CutsALongReason)
{
  stream_->start();
  daemon_->accept_request()->send("FAIL\n" + std::string(10000, 'a') + '\0');
  expect_log({{LOG_WARNING, "Channel 3: " + std::string(1024, 'a')}});
}

TEST_F(MetadataStreamTest, StopEndsTheRestart)
{
  stream_->start();
  refuse();
  expect_log({REFUSED});
  stream_->stop();
  EXPECT_FALSE(stream_->is_started());
}

TEST_F(MetadataStreamTest, StopWaitsForTheCallback)
{
  is_held_ = true;
  stream_->start();
  Connection *connection = daemon_->accept_stream();
  connection->send(fakedaemon::document("a") + fakedaemon::document("b"));
  EXPECT_TRUE(testhost::spin_until([&] { return documents_.size() == 1; }));

  std::atomic<bool> is_stopped = false;
  const pid_t main_thread = gettid();
  std::thread releaser([&] {
    EXPECT_TRUE(testhost::wait_until_asleep(main_thread));
    EXPECT_FALSE(is_stopped);
    is_held_ = false;
  });
  stream_->stop();
  is_stopped = true;
  const std::vector<std::string> taken = documents_.take();
  releaser.join();
  connection->send(fakedaemon::document("c"));
  connection->read_to_end();
  EXPECT_EQ(taken.front(), "first a");
  EXPECT_EQ(documents_.take(), std::vector<std::string>{});
}

TEST_F(MetadataStreamTest, StartsAgainAfterStop)
{
  stream_->start();
  daemon_->accept_stream();
  stream_->stop();
  stream_->start();
  daemon_->accept_stream()->send(fakedaemon::document("a"));
  expect_documents({"first a"});
}

TEST_F(MetadataStreamTest, SendsSyncPoints)
{
  stream_->send_sync_point();
  stream_->start();
  Connection *connection = daemon_->accept_stream();
  connection->send(fakedaemon::document("a"));
  expect_documents({"first a"});
  stream_->send_sync_point();
  EXPECT_EQ(connection->read(5), "SYNC\n");
}

TEST_F(MetadataStreamTest, KnowsRequestsOfAnalytics)
{
  EXPECT_FALSE(gateway::requests_analytics(options_));
  options_.analytics = g_strdup("0");
  EXPECT_FALSE(gateway::requests_analytics(options_));
  options_.analytics[0] = '1';
  EXPECT_TRUE(gateway::requests_analytics(options_));
}

TEST_F(MetadataStreamTest, RefusesAnUnknownValue)
{
  options_.analytics = g_strdup("many");
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(gateway::new_metadata_source(request_, 3, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS));
  EXPECT_STREQ(error->message, "There is no value analytics=many.");
}

/* SPDX-License-Identifier: MIT */
#include "metadatafeed.h"

#include "fakedaemon.h"
#include "rtsplimits.h"
#include "tessardsrc.h"
#include "testclock.h"
#include "testhost.h"

#include <chrono>
#include <future>
#include <gst/app/gstappsink.h>
#include <syslog.h>
#include <thread>

namespace
{

using fakedaemon::Connection;
using fakedaemon::FakeDaemon;
using std::chrono_literals::operator""s;
using std::string_literals::operator""s;

constexpr const char *EMPTY = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream "
                              "xmlns:tt=\"http://www.onvif.org/ver10/schema\"/>";

/* A feed with its track in a pipeline, whose documents the test takes. */
class MetadataFeedTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    gst_element_register(nullptr, "tessardsrc", GST_RANK_NONE, TESSARD_TYPE_SRC);
    daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
    options_.event = TRUE;
    request_ = {&options_, path("metadata")};
    track_ = rtsp::new_metadata_track();
    sink_ = gst_element_factory_make("appsink", nullptr);
    g_object_set(sink_, "sync", FALSE, nullptr);
    pipeline_ = gst_pipeline_new(nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), track_, sink_, nullptr);
    gst_element_link(track_, sink_);
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    feed_ = std::make_shared<rtsp::MetadataFeed>(&request_, 1, GST_APP_SRC(track_));
  }

  void TearDown() override
  {
    stop();
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    daemon_.reset();
    testclock::reset();
    testhost::Fixture::TearDown();
  }

  void stop()
  {
    if (feed_ != nullptr) {
      std::weak_ptr<rtsp::MetadataFeed> left = feed_;
      feed_->stop();
      feed_.reset();
      EXPECT_TRUE(testhost::spin_until([&] { return left.expired(); }));
    }
  }

  Connection *play_stream()
  {
    feed_->play();
    testhost::dispatch_ready();
    Connection *connection = daemon_->accept_stream();
    connection->send(fakedaemon::document("first"));
    EXPECT_EQ(next_text(), EMPTY);
    EXPECT_EQ(next_text(), "first");
    return connection;
  }

  void play_again()
  {
    feed_->play();
    testhost::dispatch_ready();
  }

  std::string next_text()
  {
    g_autoptr(GstSample) sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), testhost::SPIN_LIMIT_US * GST_USECOND);
    if (sample == nullptr) {
      return "no document";
    }
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    std::string text(gst_buffer_get_size(buffer), '\0');
    gst_buffer_extract(buffer, 0, text.data(), text.size());
    return text;
  }

  bool has_text()
  {
    g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), 0);
    return sample != nullptr;
  }

  std::unique_ptr<FakeDaemon> daemon_;
  RequestOptions options_;
  gateway::MetadataRequest request_ = {};
  GstElement *pipeline_ = nullptr;
  GstElement *track_ = nullptr; /* borrowed from the pipeline, as the next one */
  GstElement *sink_ = nullptr;
  std::shared_ptr<rtsp::MetadataFeed> feed_;
};

} // namespace

TEST_F(MetadataFeedTest, TrackBeginsWithAnEmptyDocument)
{
  EXPECT_EQ(next_text(), EMPTY);
  EXPECT_FALSE(has_text());
}

TEST_F(MetadataFeedTest, FeedsTheTrack)
{
  Connection *connection = play_stream();
  connection->send(fakedaemon::document("second"));
  EXPECT_EQ(next_text(), "second");
}

TEST_F(MetadataFeedTest, PassesOnWhatIsNoDocument)
{
  Connection *connection = play_stream();
  for (const std::string &text : {"<tt:MetadataStream>"s, "\0\xff"s, std::string(100000, '<')}) {
    connection->send(fakedaemon::document(text));
    EXPECT_EQ(next_text(), text);
  }
}

TEST_F(MetadataFeedTest, DropsALongDocument)
{
  const std::string longest(RTSP_DOCUMENT_BYTES_MAX, 'a');
  Connection *connection = play_stream();
  connection->send(fakedaemon::document(longest));
  EXPECT_EQ(next_text(), longest);
  connection->send(fakedaemon::document(longest + "a") + fakedaemon::document("next"));
  EXPECT_EQ(next_text(), "next");
  const std::string size = std::to_string(RTSP_DOCUMENT_BYTES_MAX + 1);
  EXPECT_EQ(testhost::take_syslog(),
            testhost::SyslogLines({{LOG_WARNING, "A document of " + size + " bytes is not sent."}}));
}

TEST_F(MetadataFeedTest, SyncPointsHaveAnInterval)
{
  testclock::stop();
  Connection *connection = play_stream();
  for (int i = 0; i < 5; i++) {
    play_again();
  }
  EXPECT_EQ(connection->read(5), "SYNC\n");

  /* The others are one. GLib's time goes on. */
  connection->send(fakedaemon::document("state"));
  EXPECT_EQ(next_text(), "state");
  play_again();
  testclock::advance_ms(RTSP_SYNC_POINT_MS);
  auto synced = std::async(std::launch::async, [&] { return connection->read(5); });
  EXPECT_TRUE(testhost::spin_until([&] { return synced.wait_for(0s) == std::future_status::ready; }));
  EXPECT_EQ(synced.get(), "SYNC\n");

  stop();
  EXPECT_EQ(connection->read_to_end(), "");
}

TEST_F(MetadataFeedTest, SyncPointsComeAtOnceAfterTheInterval)
{
  testclock::stop();
  Connection *connection = play_stream();
  for (int i = 0; i < 3; i++) {
    play_again();
    EXPECT_EQ(connection->read(5), "SYNC\n");
    testclock::advance_ms(RTSP_SYNC_POINT_MS);
  }
  stop();
  EXPECT_EQ(connection->read_to_end(), "");
}

TEST_F(MetadataFeedTest, StopEndsTheStreamAndAWaitingSyncPoint)
{
  Connection *connection = play_stream();
  play_again();
  play_again();
  stop();
  EXPECT_EQ(connection->read_to_end(), "SYNC\n");
  EXPECT_FALSE(has_text());
}

TEST_F(MetadataFeedTest, PlayAfterStopStartsNothing)
{
  EXPECT_EQ(next_text(), EMPTY);
  const std::set<std::string> objects = testhost::live_objects();
  feed_->stop();
  feed_->play();
  testhost::dispatch_ready();
  EXPECT_EQ(testhost::live_objects(), objects);
}

TEST_F(MetadataFeedTest, CanBeCalledOnAnyThread)
{
  std::thread other([this] { feed_->play(); });
  other.join();
  testhost::dispatch_ready();
  daemon_->accept_stream()->send(fakedaemon::document("first"));
  EXPECT_EQ(next_text(), EMPTY);
  EXPECT_EQ(next_text(), "first");
  std::thread stopper([this] {
    feed_->stop();
    feed_.reset();
  });
  stopper.join();
  testhost::dispatch_ready();
}

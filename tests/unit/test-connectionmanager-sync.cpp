/* SPDX-License-Identifier: MIT */
#include "connectionmanager.h"

#include "testconnection.h"

#include <mutex>
#include <thread>
#include <unistd.h>

using testelements::Behaviour;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

constexpr const char *STARTED_EXPRESSION = "conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED";

std::string
sync_lines(gsize count)
{
  std::string lines;

  for (gsize i = 0; i < count; i++) {
    lines += "SYNC\n";
  }
  return lines;
}

/* Starts a pipeline on another thread as soon as its sink begins to stop, and records which elements start
 * from then on. */
class ConcurrentStart
{
public:
  explicit ConcurrentStart(GstElement *pipeline) : pipeline_(GST_ELEMENT(gst_object_ref(pipeline)))
  {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);

    gst_bus_set_sync_handler(bus, on_message, this, nullptr);
  }

  /* For a pipeline that has stopped: the elements that started. */
  Texts end()
  {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);

    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    EXPECT_TRUE(starter_.joinable()) << "the sink did not stop";
    if (starter_.joinable()) {
      starter_.join();
    }
    g_clear_pointer(&pipeline_, gst_object_unref);
    return std::exchange(started_, {});
  }

private:
  static bool is_behind_document(const std::string &name)
  {
    return name.starts_with("queue") || name.starts_with("gdppay") || name == "fdsink";
  }

  static GstBusSyncReply on_message(GstBus *, GstMessage *message, gpointer user_data)
  {
    auto *self = static_cast<ConcurrentStart *>(user_data);
    GstState from = GST_STATE_NULL;
    GstState to = GST_STATE_NULL;

    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED) {
      return GST_BUS_PASS;
    }
    gst_message_parse_state_changed(message, &from, &to, nullptr);
    std::lock_guard guard(self->lock_);
    const std::string name = GST_MESSAGE_SRC_NAME(message);
    if (self->starter_.joinable() && to > from && is_behind_document(name)) {
      self->started_.push_back(name);
    }
    if (!self->starter_.joinable() && to < from && name == "fdsink") {
      self->start();
    }
    return GST_BUS_PASS;
  }

  /* Returns when the other thread waits in the middle of the state change. */
  void start()
  {
    std::promise<pid_t> tid;
    std::future<pid_t> begun = tid.get_future();

    starter_ = std::thread([pipeline = pipeline_, tid = std::move(tid)]() mutable {
      tid.set_value(gettid());
      gst_element_set_state(pipeline, GST_STATE_PLAYING);
    });
    EXPECT_TRUE(testhost::wait_until_asleep(begun.get()));
  }

  GstElement *pipeline_;
  std::mutex lock_;
  std::thread starter_;
  Texts started_;
};

/* Whether the client hangs up or half-closes. */
class ConnectionManagerStuckTest : public ConnectionManagerTest, public testing::WithParamInterface<bool>
{
};

} // namespace

TEST_F(ConnectionManagerTest, SendsOneSyncPointForOneLine)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  request_sync_point(&connection);
}

TEST_F(ConnectionManagerTest, SendsASyncPointForEachOfSeveralLinesInOneWrite)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\nother\nSYNC\n"));
  expect_sync_points(3);
}

TEST_F(ConnectionManagerTest, WaitsForTheRestOfALine)
{
  Connection connection(Behaviour::ONE_BUFFER);
  Connection other(Behaviour::ONE_BUFFER);
  connection.stream();
  const testhost::LatencyMeter meter;

  ASSERT_TRUE(connection.client.send("SYN"));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  other.stream();
  request_sync_point(&other);

  ASSERT_TRUE(connection.client.send("C\n"));
  expect_sync_points();
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
}

TEST_F(ConnectionManagerTest, IgnoresEveryOtherLine)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(
      connection.client.send("sync\nSYNC\r\n SYNC\n\n\u20ac\n"s + std::string(100000, 'S') + "\nSYNC"));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  EXPECT_EQ(testelements::sent_events_size(), 0U);
  ASSERT_TRUE(connection.client.send("\n"));
  expect_sync_points();
}

TEST_F(ConnectionManagerTest, SendsNoSyncPointForALineBeforeTheStartAndLimitsTheWarnings)
{
  constexpr gsize LIMIT = CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS;
  for (const gsize count : {gsize{1}, LIMIT * 100}) {
    Connection connection(Behaviour::ONE_BUFFER);
    ASSERT_TRUE(connection.prepare());

    ASSERT_TRUE(connection.client.send(sync_lines(count)));
    EXPECT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
    EXPECT_EQ(testhost::take_failed_preconditions(), Texts(std::min(count, LIMIT), STARTED_EXPRESSION));

    connection.start_streaming();
    EXPECT_EQ(testelements::sent_events_size(), 0U);
    request_sync_point(&connection);
  }
}

TEST_F(ConnectionManagerTest, WarnsAboutASyncLineDuringPrepare)
{
  Connection connection(Behaviour::SILENT);
  auto preparing = connection.begin_to_prepare();

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(testhost::spin_until([] { return testhost::glib_messages_size() > 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{STARTED_EXPRESSION}));
  connection.client.hang_up();
  EXPECT_FALSE(Connection::wait_for(&preparing));
}

TEST_F(ConnectionManagerTest, KeepsASyncLineBetweenAnnouncementAndStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  connection_manager_announce_start(connection.manager);

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  EXPECT_EQ(testelements::sent_events_size(), 0U);

  connection_manager_start(connection.manager);
  expect_sync_points();
}

TEST_F(ConnectionManagerTest, LimitsThePendingSyncPoints)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  connection_manager_announce_start(connection.manager);

  ASSERT_TRUE(connection.client.send(sync_lines(CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS + 10)));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  connection_manager_start(connection.manager);
  EXPECT_TRUE(wait_for_events(CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS));
  connection.client.hang_up();
  connection.expect_gone();
  expect_sync_points(CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS);
}

TEST_F(ConnectionManagerTest, SendsNoSyncPointForALineBeforeInvalidBytes)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\n\xff"));
  connection.expect_end();
}

/* Clients that do not read. */

/* The full stream and the events that wait for it do not stop other clients. */
TEST_P(ConnectionManagerStuckTest, ServesOthersWhileAClientRequestsButDoesNotRead)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  connection.stream_until_stuck();
  const testhost::LatencyMeter meter;

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_FALSE(testhost::spin_until([] { return testelements::sent_events_size() > 1; }, SHORT_US));

  {
    Connection other(Behaviour::ONE_BUFFER);
    other.stream();
  }
  if (GetParam()) {
    connection.client.hang_up();
  } else {
    connection.client.half_close();
  }
  connection.expect_gone();
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
  testelements::take_sent_events();
}

INSTANTIATE_TEST_SUITE_P(Ends, ConnectionManagerStuckTest, testing::Bool(),
                         [](const auto &end) { return end.param ? "HangUp"s : "HalfClose"s; });

/* A GStreamer thread changes the pipeline to PLAYING, possibly while the manager stops it. */
TEST_F(ConnectionManagerTest, NothingStartsBehindTheDocumentWhileAPipelineStops)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  connection.stream_until_stuck();
  gst_element_set_state(connection.pipeline(), GST_STATE_PAUSED);
  ASSERT_TRUE(testhost::spin_until([&] { return GST_STATE(connection.pipeline()) == GST_STATE_PAUSED; }));
  connection.wait_until_stuck();
  ASSERT_TRUE(connection.client.send("SYNC\n"));
  ASSERT_TRUE(wait_for_events(1));
  ConcurrentStart concurrent_start(connection.pipeline());

  /* A hang-up would end the wait of the sync point. */
  connection.client.half_close();
  connection.release();
  EXPECT_TRUE(testhost::spin_until([&] { return !connection.observed.alive(); }));
  EXPECT_EQ(concurrent_start.end(), Texts());
  testelements::take_sent_events();
}

TEST_F(ConnectionManagerTest, SendsTheSyncPointsWhenTheClientReadsAgain)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  connection.stream_until_stuck();

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\n"));
  EXPECT_TRUE(testhost::spin_until(
      [&] { return !connection.client.received().empty() && testelements::sent_events_size() == 2; }));
  expect_sync_points(2);
}

TEST_F(ConnectionManagerTest, UsesNoProcessorTimeForAClientThatDoesNotRead)
{
  constexpr gint64 PERIOD_US = 300 * G_TIME_SPAN_MILLISECOND;
  Connection connection(Behaviour::FLOOD);
  connection.stream_until_stuck();

  const gint64 used_before = testhost::processor_time_us();
  testhost::spin_until([] { return false; }, PERIOD_US);
  EXPECT_LT(testhost::processor_time_us() - used_before, PERIOD_US / 2);
}

TEST_F(ConnectionManagerTest, ReadsAnEndlessLineInConstantMemory)
{
  constexpr gsize TOTAL_BYTES = 50 * 1024 * 1024;
  constexpr gsize MAX_GROWTH_BYTES = 8 * 1024 * 1024;
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();
  const std::string piece(64 * 1024, 'S');
  const testhost::LatencyMeter meter;
  const gsize resident_before = testhost::resident_bytes();
  gsize sent = 0;

  ASSERT_TRUE(testhost::spin_until([&] {
    sent += connection.client.send_some(piece);
    return sent >= TOTAL_BYTES;
  }));
  ASSERT_TRUE(connection.client.send("\nSYNC\n"));
  expect_sync_points();
  EXPECT_LT(testhost::resident_bytes(), resident_before + MAX_GROWTH_BYTES);
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
}

/* SPDX-License-Identifier: MIT */
#include "connectionmanager.h"

#include "faults.h"
#include "ratelimitedlog.h"
#include "testconnection.h"

#include <algorithm>
#include <array>
#include <glib-unix.h>
#include <gst/app/gstappsrc.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

using testelements::Behaviour;
using testhost::SyslogLines;

using namespace std::string_literals;

namespace
{

/* A way in which a connection ends, and what it logs. */
struct End {
  const char *name;
  void (*end)(Connection *connection);
  SyslogLines lines;
  const char *told = nullptr; /* of the client, at debug priority; NULL for nothing */
};

const std::vector<End> ENDS = {
    {"HangUp", [](Connection *connection) { connection->client.hang_up(); }, {}},
    {"HalfClose", [](Connection *connection) { connection->client.half_close(); }, {}},
    {"HalfCloseAfterALine",
     [](Connection *connection) {
       ASSERT_TRUE(connection->client.send("other\n"));
       connection->client.half_close();
     },
     {}},
    {"InvalidUtf8", [](Connection *connection) { ASSERT_TRUE(connection->client.send("\xc0\x80\n")); }, {}},
    {"PipelineError",
     [](Connection *connection) {
       GST_ELEMENT_ERROR(connection->source, STREAM, FAILED, ("Out of order"), (nullptr));
     },
     {{LOG_ERR, "Error in metadata connection manager pipeline: Out of order."}},
     "stream failed: Out of order"},
    /* docs/compatibility.md, "two full stops". */
    {"PipelineErrorWithAFullStop",
     [](Connection *connection) {
       GST_ELEMENT_ERROR(connection->source, RESOURCE, READ, ("100%% lost."), (nullptr));
     },
     {{LOG_ERR, "Error in metadata connection manager pipeline: 100% lost.."}},
     "stream failed: 100% lost."},
    {"FailedWrite",
     [](Connection *connection) {
       GST_ELEMENT_ERROR(connection->source, RESOURCE, WRITE, ("Client gone"), (nullptr));
     },
     {}},
};

class ConnectionManagerEndTest : public ConnectionManagerTest, public testing::WithParamInterface<End>
{
};

/* The lines about the client, which is this process. */
testhost::Texts
lines_about_the_client(const End &end)
{
  const std::string client = "process " + std::to_string(getpid()) + " of user " + std::to_string(getuid());

  return end.told != nullptr ? testhost::Texts{client + ": " + end.told} : testhost::Texts();
}

/* One iteration of the main loop. It dispatches everything that is ready when it begins. */
void
iterate()
{
  g_main_context_iteration(nullptr, FALSE);
}

gsize
count_alive(const std::vector<std::unique_ptr<Connection>> &connections)
{
  return std::ranges::count_if(connections,
                               [](const auto &connection) { return connection->observed.alive(); });
}

/* The client of a live source gets "OK" regardless of when the end comes. */
class ConnectionManagerLiveTest : public ConnectionManagerTest, public testing::WithParamInterface<bool>
{
protected:
  static constexpr int ROUNDS = 200;

  static bool source_fails()
  {
    return GetParam();
  }

  static std::unique_ptr<Connection> connect(Behaviour behaviour = Behaviour::ONE_BUFFER)
  {
    return std::make_unique<Connection>(std::vector{testelements::make_live_source(behaviour)});
  }

  /* A connection that ends before any data. */
  static std::unique_ptr<Connection> connect_ending()
  {
    std::unique_ptr<Connection> connection = connect(source_fails() ? Behaviour::ERROR : Behaviour::SILENT);

    if (!source_fails()) {
      connection->client.half_close();
    }
    return connection;
  }

  static void end(Connection *connection)
  {
    if (source_fails()) {
      GST_ELEMENT_ERROR(connection->source, STREAM, FAILED, ("%s", testelements::ERROR_TEXT), (nullptr));
    } else {
      connection->client.half_close();
    }
  }

  /* Replies and starts as the server does. */
  static void reply_and_start(Connection *connection)
  {
    connection_manager_announce_start(connection->manager);
    EXPECT_EQ(write(connection->fd, "OK", 3), 3) << g_strerror(errno);
    connection_manager_start(connection->manager);
  }

  static void expect_ok_and_end(Connection *connection)
  {
    SyslogLines lines;
    if (source_fails()) {
      lines = BROKEN_SOURCE;
    }

    connection->expect_end();
    EXPECT_EQ(connection->client.received().substr(0, 3), "OK\0"s);
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Whether the caller's reference to the manager is the only one. */
  static bool is_unused(ConnectionManager *manager)
  {
    return g_atomic_int_get(reinterpret_cast<gint *>(&G_OBJECT(manager)->ref_count)) == 1;
  }

  /* Not on the main thread. */
  static bool wait_until_unused(ConnectionManager *manager)
  {
    const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;

    while (!is_unused(manager) && g_get_monotonic_time() < end_us) {
      g_thread_yield();
    }
    return is_unused(manager);
  }
};

} // namespace

/* Ends during prepare. */

TEST_F(ConnectionManagerTest, WaitsForDataUntilTheClientHangsUp)
{
  Connection connection(Behaviour::SILENT);
  auto preparing = connection.begin_to_prepare();

  EXPECT_FALSE(testhost::spin_until(
      [&] { return preparing.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, SHORT_US));
  connection.client.hang_up();
  EXPECT_FALSE(Connection::wait_for(&preparing));
}

TEST_F(ConnectionManagerTest, EndsWhenTheClientHalfClosesDuringPrepare)
{
  Connection connection(Behaviour::SILENT);
  connection.client.half_close();

  EXPECT_FALSE(connection.prepare());
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, EndsWhenTheStreamEndsBeforeAnyData)
{
  Connection connection(Behaviour::END);

  /* The payloader also frames the end of the stream, which may count as data. */
  if (connection.prepare()) {
    connection.start();
  }
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, EndsWhenAWriteFailsDuringPrepare)
{
  expect_failure({testelements::make_source(Behaviour::WRITE_ERROR)});
}

/* Ends after prepare. */

TEST_P(ConnectionManagerEndTest, BeforeTheStartIsHandledByTheStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());

  GetParam().end(&connection);
  testhost::dispatch_ready();
  EXPECT_TRUE(connection.observed.alive());
  connection.start();
  connection.expect_gone();
  EXPECT_EQ(testhost::take_syslog(), GetParam().lines);
}

TEST_P(ConnectionManagerEndTest, OfAStreamReleasesTheManager)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();
  connection.release();

  GetParam().end(&connection);
  connection.expect_gone();
  EXPECT_EQ(testhost::take_syslog(), GetParam().lines);
  EXPECT_EQ(testhost::take_debug_lines(), lines_about_the_client(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Ends, ConnectionManagerEndTest, testing::ValuesIn(ENDS),
                         [](const auto &end) { return std::string(end.param.name); });

TEST_F(ConnectionManagerTest, IgnoresOtherMessagesOfThePipeline)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  GST_ELEMENT_WARNING(connection.source, STREAM, FAILED, ("Not so bad"), (nullptr));
  gst_element_post_message(connection.source, gst_message_new_latency(GST_OBJECT(connection.source)));
  testhost::dispatch_ready();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING,
                          "Warning from TestSource in metadata connection manager pipeline: Not so bad"}}));
  rate_limited_log_flush();
  request_sync_point(&connection);
}

TEST_F(ConnectionManagerTest, LogsAWarningBeforeAHangUp)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();
  connection.release();

  GST_ELEMENT_WARNING(connection.source, STREAM, FAILED, ("Not so bad"), (nullptr));
  connection.client.hang_up();
  connection.expect_gone();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING,
                          "Warning from TestSource in metadata connection manager pipeline: Not so bad"}}));
  rate_limited_log_flush();
}

TEST_F(ConnectionManagerTest, EndsWithTheStream)
{
  GstElement *source = gst_element_factory_make("appsrc", nullptr);
  g_autoptr(GstCaps) caps = gst_caps_from_string("application/x-test");
  g_object_set(source, "caps", caps, nullptr);
  Connection connection(std::vector{source});
  gst_app_src_push_buffer(GST_APP_SRC(source), gst_buffer_new_memdup(testelements::DOCUMENT_TEXT,
                                                                     strlen(testelements::DOCUMENT_TEXT)));
  connection.stream();
  connection.release();

  gst_app_src_end_of_stream(GST_APP_SRC(source));
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, EndsWhenTheClientHangsUpDuringAWrite)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  connection.release();
  connection.wait_until_stuck();
}

/* The sink is in the middle of a large write to a full socket when the pipeline has to stop. */
TEST_F(ConnectionManagerTest, EndsWhenAClientThatDoesNotReadHalfCloses)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  connection.release();
  connection.wait_until_stuck();
  const testhost::LatencyMeter meter;

  connection.client.half_close();
  EXPECT_TRUE(testhost::spin_until([&] { return !connection.observed.alive(); }));
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
  connection.expect_end();
}

/* Many ends at once: each connection waits in a queue for its pipeline to be stopped. */

TEST_F(ConnectionManagerTest, StopsABoundedNumberOfPipelinesInEachIteration)
{
  constexpr gsize CLIENTS = 20;
  std::vector<std::unique_ptr<Connection>> connections;
  for (gsize i = 0; i < CLIENTS; i++) {
    connections.push_back(std::make_unique<Connection>(Behaviour::ONE_BUFFER));
    connections.back()->stream();
    connections.back()->release();
  }
  testhost::dispatch_ready();

  for (gsize i = 0; i < CLIENTS; i += 2) {
    connections[i]->client.hang_up();
    GST_ELEMENT_ERROR(connections[i + 1]->source, RESOURCE, WRITE, ("Client gone"), (nullptr));
  }
  for (gsize alive = CLIENTS; alive > 0; alive = count_alive(connections)) {
    iterate();
    ASSERT_GE(count_alive(connections) + CONNECTION_MANAGER_MAX_ENDS_PER_TURN, alive);
  }
}

TEST_F(ConnectionManagerTest, EndsThePrepareOfAQueuedConnection)
{
  Connection connection(Behaviour::SILENT);
  std::promise<pid_t> tid;
  std::future<pid_t> begun = tid.get_future();
  auto preparing = std::async(std::launch::async, [&] {
    tid.set_value(gettid());
    return connection_manager_prepare(connection.manager) != FALSE;
  });
  ASSERT_TRUE(testhost::wait_until_asleep(begun.get()));
  testhost::dispatch_ready();

  connection.client.half_close();
  iterate();
  ASSERT_EQ(preparing.wait_for(std::chrono::microseconds(testhost::SPIN_LIMIT_US)),
            std::future_status::ready);
  EXPECT_FALSE(preparing.get());
  EXPECT_EQ(GST_STATE(connection.source), GST_STATE_PAUSED);
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, SendsNothingMoreToAQueuedConnection)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  ASSERT_TRUE(testhost::spin_until([&] { return GST_STATE(connection.pipeline()) == GST_STATE_PLAYING; }));
  testhost::dispatch_ready();

  connection.client.half_close();
  iterate();
  const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
  while (!connection.client.ended() && g_get_monotonic_time() < end_us) {
    g_thread_yield();
  }
  EXPECT_TRUE(connection.client.ended());
  EXPECT_EQ(GST_STATE(connection.pipeline()), GST_STATE_PLAYING);
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, DoesNotStartAQueuedConnection)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  testhost::dispatch_ready();

  connection.client.half_close();
  iterate();
  connection.start();
  const gint64 end_us = g_get_monotonic_time() + SHORT_US;
  while (g_get_monotonic_time() < end_us) {
    EXPECT_EQ(connection.client.received(), "");
    g_thread_yield();
  }
  connection.expect_end();
  EXPECT_EQ(connection.client.received(), "");
}

/* Watches. */

TEST_F(ConnectionManagerTest, LogsASocketWatchThatCannotBeRemoved)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();
  /* The socket watch is the older one. */
  ASSERT_TRUE(g_source_remove_by_user_data(connection.manager));

  GST_ELEMENT_ERROR(connection.source, STREAM, FAILED, ("Out of order"), (nullptr));
  connection.expect_end();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Error in metadata connection manager pipeline: Out of order."},
                         {LOG_WARNING, "Could not remove metadata socket I/O watch."}}));
  EXPECT_EQ(testhost::take_glib_messages().size(), 1U);
}

TEST_F(ConnectionManagerTest, LogsABusWatchThatCannotBeRemoved)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();
  g_autoptr(GstBus) bus = gst_element_get_bus(connection.pipeline());
  ASSERT_TRUE(gst_bus_remove_watch(bus));

  connection.client.hang_up();
  connection.expect_gone();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not remove metadata bus watch watch."}}));
  EXPECT_EQ(testhost::take_glib_messages().size(), 1U);
}

/* Another watch reads the socket between the wake-up and the read. */
TEST_F(ConnectionManagerTest, LogsAReadThatFindsNoData)
{
  Connection connection(Behaviour::ONE_BUFFER);
  const guint other_watch = g_unix_fd_add(
      connection.fd, G_IO_IN,
      [](gint fd, GIOCondition, gpointer) -> gboolean {
        std::array<char, 64> bytes;
        EXPECT_EQ(recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT), 5);
        return G_SOURCE_CONTINUE;
      },
      nullptr);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  connection.release();
  EXPECT_TRUE(testhost::spin_until([] { return testhost::syslog_size() > 0; }));
  g_source_remove(other_watch);
  connection.expect_end();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Reading incoming metadata request interrupted, shutting down."}}));
}

/* The callback needs the watch's id. The hook runs before the id is stored, and gives the main thread time to
 * dispatch the error. */
TEST_F(ConnectionManagerTest, HandlesAnErrorDispatchedWhileTheWatchIsInstalled)
{
  const unsigned errors_before = testelements::errors_reported();
  Connection connection(Behaviour::ERROR);
  bool hooked = false;
  faults::after_next_bus_watch([&] {
    g_autoptr(GstBus) bus = gst_element_get_bus(connection.pipeline());
    const gint64 limit_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
    while (testelements::errors_reported() == errors_before && g_get_monotonic_time() < limit_us) {
      g_thread_yield();
    }
    const gint64 end_us = g_get_monotonic_time() + 4 * SHORT_US;
    while (gst_bus_have_pending(bus) && g_get_monotonic_time() < end_us) {
      g_thread_yield();
    }
    hooked = true;
  });

  EXPECT_FALSE(connection.prepare());
  EXPECT_TRUE(hooked);
  EXPECT_EQ(testhost::take_syslog(), BROKEN_SOURCE);
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, HandlesEachOfManyImmediateErrors)
{
  for (int round = 0; round < 500; round++) {
    expect_failure({testelements::make_source(Behaviour::ERROR)}, BROKEN_SOURCE);
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
}

TEST_F(ConnectionManagerTest, ReleasesAllConnectionsWhoseClientsHangUpDuringPrepare)
{
  for (int round = 0; round < 200; round++) {
    Connection connection(round % 2 == 0 ? Behaviour::ONE_BUFFER : Behaviour::FLOOD);
    auto preparing = connection.begin_to_prepare();
    for (int i = 0; i < round % 20; i++) {
      g_main_context_iteration(nullptr, FALSE);
    }
    connection.client.hang_up();
    if (Connection::wait_for(&preparing)) {
      connection.start();
    }
    connection.expect_gone();
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
}

/* Ends of live sources. */

/* The hooks run on the preparing thread. The second one runs when the watches can be dispatched. */
TEST_P(ConnectionManagerLiveTest, GetsOkWhenItEndsBeforePrepareWaits)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect_ending();
    bool stopped = false;
    faults::after_next_bus_watch(
        [&] { faults::after_next_unlock([&] { stopped = wait_until_unused(connection->manager); }); });

    EXPECT_TRUE(connection->prepare()) << "round " << round;
    EXPECT_TRUE(stopped);
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

TEST_P(ConnectionManagerLiveTest, GetsOkWhenItEndsWhilePrepareWaits)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect_ending();

    EXPECT_TRUE(connection->prepare()) << "round " << round;
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

TEST_P(ConnectionManagerLiveTest, GetsOkWhenItEndsBeforeTheStart)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect();

    EXPECT_TRUE(connection_manager_prepare(connection->manager)) << "round " << round;
    end(connection.get());
    EXPECT_TRUE(testhost::spin_until([&] { return is_unused(connection->manager); }));
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

/* The end is dispatched after the start. */
TEST_P(ConnectionManagerLiveTest, GetsOkWhenItEndsAfterTheStart)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect();

    EXPECT_TRUE(connection_manager_prepare(connection->manager)) << "round " << round;
    end(connection.get());
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, ConnectionManagerLiveTest, testing::Bool(),
                         [](const auto &end) { return end.param ? "Error"s : "HalfClose"s; });

/* SPDX-License-Identifier: MIT */
#include "connectionmanager.h"

#include "testconnection.h"

#include <array>
#include <syslog.h>

using testelements::Behaviour;
using testelements::FOR_EVER;
using testelements::ReplacedFactory;
using testelements::StateFailure;
using testhost::SyslogLines;

using namespace std::string_literals;

namespace
{

/* The place in the pipeline of the element that fails. */
struct Place {
  const char *name;
  const char *factory; /* null for the source */
  bool in_bin;         /* the source is a bin with a source and a filter */
  bool has_thread;
};

constexpr std::array PLACES = {
    Place{"Source", nullptr, false, true},
    Place{"SourceInBin", nullptr, true, true},
    Place{"FilterInBin", "capsfilter", true, false},
    Place{"Document", "onvifxmlmetadatastreamdoc", false, false},
    Place{"Queue", "queue", false, true},
    Place{"Payloader", "gdppay", false, false},
    Place{"Sink", "fdsink", false, false},
};

constexpr std::array STARTS = {GST_STATE_CHANGE_NULL_TO_READY, GST_STATE_CHANGE_READY_TO_PAUSED,
                               GST_STATE_CHANGE_PAUSED_TO_PLAYING};

constexpr std::array STOPS = {GST_STATE_CHANGE_PLAYING_TO_PAUSED, GST_STATE_CHANGE_PAUSED_TO_READY,
                              GST_STATE_CHANGE_READY_TO_NULL};

/* The stage in which the client ends its connection. */
enum class Stage {
  PREPARING,
  PREPARED,
  STREAMING,
  STUCK, /* the client does not read, the socket and the queue are full */
};

constexpr std::array STAGES = {Stage::PREPARING, Stage::PREPARED, Stage::STREAMING, Stage::STUCK};

GstElement *
put_into_bin(GstElement *source)
{
  GstElement *bin = gst_bin_new(nullptr);
  GstElement *filter = gst_element_factory_make("capsfilter", nullptr);
  g_autoptr(GstPad) pad = gst_element_get_static_pad(filter, "src");

  gst_bin_add_many(GST_BIN(bin), source, filter, nullptr);
  EXPECT_TRUE(gst_element_link(source, filter));
  EXPECT_TRUE(gst_element_add_pad(bin, gst_ghost_pad_new("src", pad)));
  return bin;
}

std::string
object_name(gpointer object)
{
  g_autofree gchar *address = g_strdup_printf("%p", object);

  return G_OBJECT_TYPE_NAME(object) + " "s + address;
}

/* An element and its pads, as live_objects() names them. */
std::set<std::string>
objects_of(GstElement *element)
{
  std::set<std::string> objects = {object_name(element)};

  for (GList *pad = element->pads; pad != nullptr; pad = pad->next) {
    objects.insert(object_name(pad->data));
  }
  return objects;
}

class ConnectionManagerFailureTest : public ConnectionManagerTest
{
protected:
  void SetUp() override
  {
    ConnectionManagerTest::SetUp();
    objects_ = testhost::live_objects();
    threads_ = testhost::count_threads();
    descriptors_ = testhost::open_descriptors();
  }

  void TearDown() override
  {
    testelements::take_sent_events();
    testelements::release_failing_elements();
    ConnectionManagerTest::TearDown();
  }

  static std::unique_ptr<Connection> connect(const Place &place, const StateFailure &failure,
                                             Behaviour behaviour, bool live = false)
  {
    std::unique_ptr<ReplacedFactory> replaced;
    GstElement *source = nullptr;

    if (place.factory != nullptr) {
      replaced = std::make_unique<ReplacedFactory>(place.factory, failure);
      source = live ? testelements::make_live_source(behaviour) : testelements::make_source(behaviour);
    } else {
      source = testelements::make_failing_source(behaviour, failure, live);
    }
    auto connection = std::make_unique<Connection>(std::vector{place.in_bin ? put_into_bin(source) : source});
    connection->replaced = std::move(replaced);
    return connection;
  }

  /* Runs the connection up to @stage and half-closes. */
  static void run_up_to(Stage stage, Connection *connection)
  {
    if (stage == Stage::PREPARING) {
      auto preparing = connection->begin_to_prepare();
      ASSERT_TRUE(testhost::spin_until([&] { return GST_STATE(connection->source) == GST_STATE_PAUSED; }));
      connection->client.half_close();
      EXPECT_FALSE(Connection::wait_for(&preparing));
      return;
    }
    ASSERT_TRUE(connection->prepare());
    if (stage != Stage::PREPARED) {
      connection->start();
    }
    if (stage == Stage::STREAMING) {
      EXPECT_TRUE(testhost::spin_until([&] { return connection->has_document(); }));
    } else if (stage == Stage::STUCK) {
      connection->wait_until_stuck();
    }
    if (stage != Stage::PREPARED) {
      ASSERT_TRUE(
          testhost::spin_until([&] { return GST_STATE(connection->pipeline()) == GST_STATE_PLAYING; }));
    }
    connection->client.half_close();
  }

  static Behaviour behaviour_for(Stage stage)
  {
    switch (stage) {
    case Stage::PREPARING:
      return Behaviour::SILENT;
    case Stage::STUCK:
      return Behaviour::FLOOD;
    default:
      return Behaviour::ONE_BUFFER;
    }
  }

  /* Expects that the manager and the descriptor go with one line in the log. What stays of the sources is for
   * expect_left(). */
  static void expect_end(Connection *connection)
  {
    connection->observed_sources.clear();
    connection->release();
    EXPECT_TRUE(testhost::spin_until([&] { return !connection->observed.alive(); }));
    EXPECT_TRUE(connection->client.wait_for_end());
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_ERR, "Could not stop connection manager pipeline."}}));
  }

  /* Expects that @count failing elements and @threads of their threads are left, and nothing else. */
  void expect_left(gsize count, gsize threads)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::live_objects() == objects_with_failing(); }))
        << testing::PrintToString(testhost::live_objects());
    EXPECT_EQ(testelements::failing_elements().size(), count);
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::count_threads() <= threads_ + threads; }))
        << testhost::count_threads() << " instead of " << threads_ + threads << " threads";
  }

  void expect_descriptors_closed()
  {
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::open_descriptors() == descriptors_; }))
        << testing::PrintToString(testhost::open_descriptors());
  }

private:
  std::set<std::string> objects_with_failing() const
  {
    std::set<std::string> objects = objects_;

    for (GstElement *element : testelements::failing_elements()) {
      objects.merge(objects_of(element));
    }
    return objects;
  }

  std::set<std::string> objects_;
  gsize threads_ = 0;
  std::set<int> descriptors_;
};

/* The element fails in each downward state change, before or after the change is done, in each stage. */
class ConnectionManagerStopFailureTest : public ConnectionManagerFailureTest,
                                         public testing::WithParamInterface<Place>
{
protected:
  /* The pipeline plays from STREAMING on. A sink that waits for its first data is still in READY. */
  static bool can_fail(GstStateChange change, Stage stage)
  {
    return stage >= Stage::STREAMING || change == GST_STATE_CHANGE_READY_TO_NULL ||
           (change == GST_STATE_CHANGE_PAUSED_TO_READY && !is_sink());
  }

  static bool is_sink()
  {
    return g_strcmp0(GetParam().factory, "fdsink") == 0;
  }

  static bool has_stopped_its_thread(const StateFailure &failure)
  {
    return failure.change == GST_STATE_CHANGE_READY_TO_NULL ||
           (failure.change == GST_STATE_CHANGE_PAUSED_TO_READY && failure.works);
  }

  void stop(const StateFailure &failure, Stage stage)
  {
    const auto connection = connect(GetParam(), failure, behaviour_for(stage));

    run_up_to(stage, connection.get());
    expect_end(connection.get());
    if (failure.times == FOR_EVER) {
      elements_left_++;
      threads_left_ += GetParam().has_thread && !has_stopped_its_thread(failure) ? 1 : 0;
    }
  }

  void stop_each(unsigned times)
  {
    for (const GstStateChange change : STOPS) {
      for (const bool works : {false, true}) {
        for (const Stage stage : STAGES) {
          SCOPED_TRACE(gst_state_change_get_name(change) + (works ? " done, "s : " undone, "s) +
                       std::to_string(static_cast<int>(stage)));
          if (can_fail(change, stage)) {
            stop({change, works, times}, stage);
          }
          ASSERT_FALSE(HasFailure());
        }
      }
    }
  }

  void expect_stops(unsigned times)
  {
    stop_each(times);
    expect_left(elements_left_, threads_left_);
    /* The sink has descriptors of its own. */
    if (!is_sink() || elements_left_ == 0) {
      expect_descriptors_closed();
    }
    EXPECT_EQ(testelements::release_failing_elements(), elements_left_);
  }

private:
  gsize elements_left_ = 0;
  gsize threads_left_ = 0;
};

/* The sources are live: then an element that does not reach PLAYING fails the state change of the pipeline.
 */
class ConnectionManagerStartFailureTest : public ConnectionManagerFailureTest,
                                          public testing::WithParamInterface<Place>
{
};

} // namespace

TEST_P(ConnectionManagerStopFailureTest, LeavesNothingAfterOneFailure)
{
  expect_stops(1);
}

TEST_P(ConnectionManagerStopFailureTest, LeavesNothingAfterTwoFailures)
{
  expect_stops(2);
}

TEST_P(ConnectionManagerStopFailureTest, LeavesOnlyAnElementThatNeverStops)
{
  expect_stops(FOR_EVER);
}

INSTANTIATE_TEST_SUITE_P(Elements, ConnectionManagerStopFailureTest, testing::ValuesIn(PLACES),
                         [](const auto &place) { return std::string(place.param.name); });

TEST_P(ConnectionManagerStartFailureTest, LeavesNothing)
{
  for (const GstStateChange change : STARTS) {
    for (const bool works : {false, true}) {
      SCOPED_TRACE(gst_state_change_get_name(change) + (works ? " done"s : " undone"s));
      const auto connection = connect(GetParam(), {change, works, FOR_EVER}, Behaviour::ONE_BUFFER, true);
      EXPECT_FALSE(connection->prepare());
      connection->expect_end();
      EXPECT_EQ(connection->client.received(), "");
    }
  }
  expect_left(0, 0);
}

/* A sink reaches PLAYING only when it has data. */
INSTANTIATE_TEST_SUITE_P(ElementsButTheSink, ConnectionManagerStartFailureTest,
                         testing::ValuesIn(PLACES.begin(), PLACES.end() - 1),
                         [](const auto &place) { return std::string(place.param.name); });

TEST_F(ConnectionManagerFailureTest, LeavesADocumentThatNeverStopsWhenASourceDoesNotStart)
{
  const ReplacedFactory replaced("onvifxmlmetadatastreamdoc",
                                 {GST_STATE_CHANGE_PAUSED_TO_READY, false, FOR_EVER});
  for (const bool works : {false, true}) {
    const auto connection = connect(PLACES[0], {GST_STATE_CHANGE_PAUSED_TO_PLAYING, works, FOR_EVER},
                                    Behaviour::ONE_BUFFER, true);
    EXPECT_FALSE(connection->prepare());
    expect_end(connection.get());
  }

  expect_left(2, 0);
  expect_descriptors_closed();
  EXPECT_EQ(testelements::release_failing_elements(), 2U);
}

TEST_F(ConnectionManagerFailureTest, LeavesASourceThatNeverStopsAndItsThread)
{
  constexpr gsize CLIENTS = 39;
  std::vector<std::unique_ptr<Connection>> connections;
  for (gsize i = 0; i < CLIENTS; i++) {
    connections.push_back(
        connect(PLACES[0], {GST_STATE_CHANGE_PAUSED_TO_READY, false, FOR_EVER}, Behaviour::ONE_BUFFER, true));
    connections.back()->stream();
  }

  for (const auto &connection : connections) {
    connection->observed_sources.clear();
    connection->client.hang_up();
    connection->release();
  }
  for (const auto &connection : connections) {
    EXPECT_TRUE(testhost::spin_until([&] { return !connection->observed.alive(); }));
  }
  EXPECT_EQ(testhost::take_syslog(),
            SyslogLines(CLIENTS, {LOG_ERR, "Could not stop connection manager pipeline."}));
  expect_left(CLIENTS, CLIENTS);
  expect_descriptors_closed();
  EXPECT_EQ(testelements::release_failing_elements(), CLIENTS);
}

/* In both branches of a pipeline, one of which is a bin, and behind them. */
TEST_F(ConnectionManagerFailureTest, LeavesEachOfSeveralElementsThatNeverStop)
{
  constexpr StateFailure NEVER_STOPS = {GST_STATE_CHANGE_PAUSED_TO_READY, false, FOR_EVER};
  {
    const ReplacedFactory document("onvifxmlmetadatastreamdoc", NEVER_STOPS);
    const ReplacedFactory filter("capsfilter", NEVER_STOPS);
    Connection connection({testelements::make_failing_source(Behaviour::FLOOD, NEVER_STOPS),
                           put_into_bin(testelements::make_failing_source(Behaviour::FLOOD, NEVER_STOPS))});
    run_up_to(Stage::STUCK, &connection);
    expect_end(&connection);
  }

  expect_left(4, 2);
  expect_descriptors_closed();
  EXPECT_EQ(testelements::release_failing_elements(), 4U);
}

TEST_F(ConnectionManagerFailureTest, StopsWithASyncPointUnderWay)
{
  const testelements::DefaultEventHandling handling;
  for (const unsigned times : {1U, FOR_EVER}) {
    const auto connection =
        connect(PLACES[3], {GST_STATE_CHANGE_PAUSED_TO_READY, false, times}, Behaviour::FLOOD);
    connection->stream_until_stuck();
    ASSERT_TRUE(connection->client.send("SYNC\n"));
    ASSERT_TRUE(wait_for_events(1));
    connection->client.half_close();
    expect_end(connection.get());
  }

  expect_left(1, 0);
  EXPECT_EQ(testelements::release_failing_elements(), 1U);
}

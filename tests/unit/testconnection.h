/* SPDX-License-Identifier: MIT */
/* One client of a connection manager, and the fixture of the manager's tests. */
#pragma once

#include "connectionmanager.h"
#include "testclient.h"
#include "testelements.h"
#include "testhost.h"

#include <future>
#include <memory>
#include <syslog.h>
#include <vector>

constexpr gint64 SHORT_US = 50 * G_TIME_SPAN_MILLISECOND;

/* What the manager logs of Behaviour::ERROR. */
inline const testhost::SyslogLines BROKEN_SOURCE = {
    {LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."}};

/* A list of the sources, as connection_manager_new() takes it. */
inline GList *
list_of(const std::vector<GstElement *> &sources)
{
  GList *list = nullptr;

  for (GstElement *source : sources) {
    list = g_list_append(list, source);
  }
  return list;
}

/* The element that the source pad of @element is linked to. Borrowed. */
inline GstElement *
element_behind(GstElement *element)
{
  g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "src");
  g_autoptr(GstPad) peer = gst_pad_get_peer(pad);

  return peer != nullptr ? GST_ELEMENT(GST_OBJECT_PARENT(peer)) : nullptr;
}

class Connection
{
public:
  /* Takes the sources, floating or not. */
  explicit Connection(const std::vector<GstElement *> &sources)
      : client(Client::connect_pair(&fd)), source(sources[0]),
        manager(connection_manager_new(list_of(sources), fd)), observed(manager)
  {
    for (GstElement *element : sources) {
      if (G_IS_OBJECT(element)) {
        observed_sources.emplace_back(std::make_unique<testhost::Observed>(element));
      }
    }
  }

  explicit Connection(testelements::Behaviour behaviour)
      : Connection(std::vector{testelements::make_source(behaviour)})
  {
  }

  /* Hangs up and expects that nothing of the connection is left. */
  ~Connection()
  {
    client.hang_up();
    expect_gone();
  }

  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  /* Calls prepare on another thread, as the server does. */
  std::future<bool> begin_to_prepare()
  {
    return std::async(std::launch::async, [this] { return connection_manager_prepare(manager) != FALSE; });
  }

  bool prepare()
  {
    auto preparing = begin_to_prepare();

    return wait_for(&preparing);
  }

  static bool wait_for(std::future<bool> *result)
  {
    EXPECT_TRUE(testhost::spin_until(
        [result] { return result->wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    return result->get();
  }

  void start()
  {
    connection_manager_announce_start(manager);
    connection_manager_start(manager);
  }

  /* Starts a prepared connection and waits for the document. */
  void start_streaming()
  {
    start();
    EXPECT_TRUE(testhost::spin_until([this] { return has_document(); }));
  }

  /* Prepares, starts and waits for the document. */
  void stream()
  {
    ASSERT_TRUE(prepare());
    start_streaming();
  }

  /* Prepares and starts a source of Behaviour::FLOOD, and waits until the client, which does not read, is
   * stuck. */
  void stream_until_stuck()
  {
    ASSERT_TRUE(prepare());
    start();
    wait_until_stuck();
  }

  /* Waits until the client's socket and the queue are full and the source waits for room. */
  void wait_until_stuck() const
  {
    GstElement *queue = element_behind(element_behind(source));
    guint max_bytes = 0;
    testhost::IdleThreads idle_threads;

    ASSERT_NE(g_object_class_find_property(G_OBJECT_GET_CLASS(queue), "current-level-bytes"), nullptr);
    g_object_get(queue, "max-size-bytes", &max_bytes, nullptr);
    ASSERT_TRUE(testhost::spin_until([&] {
      guint bytes = 0;
      g_object_get(queue, "current-level-bytes", &bytes, nullptr);
      return bytes + testelements::BIG_BUFFER_BYTES > max_bytes && idle_threads.for_us(SHORT_US);
    }));
  }

  bool has_document()
  {
    return client.received().find(testelements::DOCUMENT_TEXT) != std::string::npos;
  }

  /* Drops the reference that made the manager. */
  void release()
  {
    g_clear_object(&manager);
  }

  /* Releases the manager, and expects that it goes and the sources with it. */
  void expect_gone()
  {
    release();
    EXPECT_TRUE(testhost::spin_until([this] { return !observed.alive(); }));
    for (const auto &observed_source : observed_sources) {
      EXPECT_TRUE(testhost::spin_until([&] { return !observed_source->alive(); }));
    }
  }

  /* The same, and that the client sees the end of its connection. */
  void expect_end()
  {
    expect_gone();
    EXPECT_TRUE(client.wait_for_end());
  }

  GstElement *pipeline() const
  {
    return GST_ELEMENT(GST_OBJECT_PARENT(source));
  }

  int fd = -1;
  Client client;
  GstElement *source; /* the first; borrowed */
  ConnectionManager *manager;
  testhost::Observed observed;
  std::vector<std::unique_ptr<testhost::Observed>> observed_sources;
  std::unique_ptr<testelements::ReplacedFactory> replaced; /* for as long as elements are made */
};

class ConnectionManagerTest : public testhost::Fixture
{
protected:
  using SentEvents = std::vector<testelements::SentEvent>;

  static void SetUpTestSuite()
  {
    testelements::install();
  }

  void TearDown() override
  {
    EXPECT_EQ(testelements::take_sent_events(), SentEvents());
    Fixture::TearDown();
  }

  /* Expects that prepare fails with @sources and logs @lines, and that the client then sees the end of its
   * connection and nothing else. */
  static void expect_failure(const std::vector<GstElement *> &sources,
                             const testhost::SyslogLines &lines = {})
  {
    Connection connection(sources);

    EXPECT_FALSE(connection.prepare());
    EXPECT_EQ(testhost::take_syslog(), lines);
    EXPECT_FALSE(connection.client.ended());
    connection.expect_end();
    EXPECT_EQ(connection.client.received(), "");
  }

  static std::vector<GstElement *> two_sources()
  {
    return {testelements::make_source(testelements::Behaviour::ONE_BUFFER),
            testelements::make_source(testelements::Behaviour::ONE_BUFFER)};
  }

  static bool wait_for_events(gsize count)
  {
    return testhost::spin_until([count] { return testelements::sent_events_size() >= count; });
  }

  /* Waits for @count sync points, and expects that there is no other event. */
  static void expect_sync_points(gsize count = 1)
  {
    EXPECT_TRUE(wait_for_events(count));
    EXPECT_EQ(testelements::take_sent_events(),
              SentEvents(count, {GST_EVENT_CUSTOM_DOWNSTREAM, true, "GstMetaDataStreamSetSyncPoint", 0}));
  }

  /* Sends a SYNC line and expects its sync point. */
  static void request_sync_point(Connection *connection)
  {
    ASSERT_TRUE(connection->client.send("SYNC\n"));
    expect_sync_points();
  }
};

#include "connectionmanager.h"

#include "faults.h"
#include "ratelimitedlog.h"
#include "testclient.h"
#include "testelements.h"
#include "testhost.h"

#include <algorithm>
#include <fcntl.h>
#include <future>
#include <glib-unix.h>
#include <gst/app/gstappsrc.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using testelements::Behaviour;
using testelements::FOR_EVER;
using testelements::ReplacedFactory;
using testelements::SentEvent;
using testelements::StateFailure;
using testelements::Unusable;
using testhost::Observed;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

constexpr gint64 SHORT_US = 50 * G_TIME_SPAN_MILLISECOND;
constexpr const char *STARTED_EXPRESSION = "conn->priv->status == CONNECTION_MANAGER_STATUS_STARTED";

const SentEvent SYNC_POINT = {GST_EVENT_CUSTOM_DOWNSTREAM, true, "GstMetaDataStreamSetSyncPoint", 0};

using SentEvents = std::vector<SentEvent>;

GList *
list_of(const std::vector<GstElement *> &sources)
{
  GList *list = nullptr;

  for (GstElement *source : sources) {
    list = g_list_append(list, source);
  }
  return list;
}

/* One client and its manager. */
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
        observed_sources.emplace_back(std::make_unique<Observed>(element));
      }
    }
  }

  explicit Connection(Behaviour behaviour) : Connection(std::vector{testelements::make_source(behaviour)})
  {
  }

  ~Connection()
  {
    release();
  }

  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  /* What a pool thread of the server does. */
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

  /* Prepares, starts and waits until the document is with the client. */
  void stream()
  {
    ASSERT_TRUE(prepare());
    start();
    EXPECT_TRUE(testhost::spin_until([this] { return has_document(); }));
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

  /* That nothing of the connection is left once the caller's reference is gone. */
  void expect_gone()
  {
    release();
    EXPECT_TRUE(testhost::spin_until([this] { return !observed.alive(); }));
    for (const auto &observed_source : observed_sources) {
      EXPECT_TRUE(testhost::spin_until([&] { return !observed_source->alive(); }));
    }
  }

  /* The same, as the client sees it. */
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
  Observed observed;
  std::vector<std::unique_ptr<Observed>> observed_sources;
  std::unique_ptr<testelements::ReplacedFactory> replaced; /* for as long as elements are made */
};

class ConnectionManagerTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }

  void TearDown() override
  {
    EXPECT_EQ(testelements::take_sent_events(), SentEvents());
    Fixture::TearDown();
  }

  /* @sources is what prepare fails with; @lines what it logs meanwhile. */
  void expect_failure(const std::vector<GstElement *> &sources, const SyslogLines &lines)
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
    return {testelements::make_source(Behaviour::ONE_BUFFER),
            testelements::make_source(Behaviour::ONE_BUFFER)};
  }

  static bool wait_for_events(gsize count)
  {
    return testhost::spin_until([count] { return testelements::sent_events_size() >= count; });
  }
};

std::string
factory_name(GstElement *element)
{
  return GST_OBJECT_NAME(gst_element_get_factory(element));
}

/* The element behind the source pad of @element. Borrowed. */
GstElement *
element_behind(GstElement *element)
{
  g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "src");
  g_autoptr(GstPad) peer = gst_pad_get_peer(pad);

  return peer != nullptr ? GST_ELEMENT(GST_OBJECT_PARENT(peer)) : nullptr;
}

/* The names of the writable properties that differ from those of an element just made. */
Texts
changed_settings(GstElement *element)
{
  g_autoptr(GstElement) fresh =
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_create(gst_element_get_factory(element), nullptr)));
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(G_OBJECT_GET_CLASS(element), &count);
  Texts changed;

  for (guint i = 0; i < count; i++) {
    const std::string name = properties[i]->name;
    if ((properties[i]->flags & G_PARAM_WRITABLE) == 0 || name == "name" || name == "parent") {
      continue;
    }
    g_auto(GValue) value = G_VALUE_INIT;
    g_auto(GValue) fresh_value = G_VALUE_INIT;
    g_value_init(&value, properties[i]->value_type);
    g_value_init(&fresh_value, properties[i]->value_type);
    g_object_get_property(G_OBJECT(element), name.c_str(), &value);
    g_object_get_property(G_OBJECT(fresh), name.c_str(), &fresh_value);
    if (g_param_values_cmp(properties[i], &value, &fresh_value) != 0) {
      changed.push_back(name);
    }
  }
  return changed;
}

/* Waits until nothing moves any more for a client that does not read: its socket and the queue are full. */
void
wait_until_stuck(const Connection &connection)
{
  GstElement *queue = element_behind(element_behind(connection.source));
  guint max_bytes = 0;
  gint64 full_since_us = 0;

  ASSERT_NE(g_object_class_find_property(G_OBJECT_GET_CLASS(queue), "current-level-bytes"), nullptr);
  g_object_get(queue, "max-size-bytes", &max_bytes, nullptr);
  ASSERT_TRUE(testhost::spin_until([&] {
    guint bytes = 0;
    g_object_get(queue, "current-level-bytes", &bytes, nullptr);
    const bool full = bytes + testelements::BIG_BUFFER_BYTES > max_bytes;
    const gint64 now_us = g_get_monotonic_time();
    full_since_us = full && full_since_us != 0 ? full_since_us : now_us;
    return full && now_us - full_since_us > SHORT_US;
  }));
}

/* Changes the state of a pipeline on another thread as soon as its sink begins to stop, and sees which
 * elements start from then on. */
class Disturbance
{
public:
  explicit Disturbance(GstElement *pipeline) : pipeline_(GST_ELEMENT(gst_object_ref(pipeline)))
  {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);

    gst_bus_set_sync_handler(bus, on_message, this, nullptr);
  }

  /* To be called when the pipeline has stopped. */
  Texts end()
  {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);

    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    EXPECT_TRUE(disturber_.joinable()) << "the sink did not stop";
    if (disturber_.joinable()) {
      disturber_.join();
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
    auto *self = static_cast<Disturbance *>(user_data);
    GstState from = GST_STATE_NULL;
    GstState to = GST_STATE_NULL;

    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED) {
      return GST_BUS_PASS;
    }
    gst_message_parse_state_changed(message, &from, &to, nullptr);
    std::lock_guard guard(self->lock_);
    const std::string name = GST_MESSAGE_SRC_NAME(message);
    if (self->disturber_.joinable() && to > from && is_behind_document(name)) {
      self->started_.push_back(name);
    }
    if (!self->disturber_.joinable() && to < from && name == "fdsink") {
      self->disturb();
    }
    return GST_BUS_PASS;
  }

  /* Comes back when the other thread is in the middle of the change. */
  void disturb()
  {
    std::promise<pid_t> tid;
    std::future<pid_t> begun = tid.get_future();

    disturber_ = std::thread([pipeline = pipeline_, tid = std::move(tid)]() mutable {
      tid.set_value(gettid());
      gst_element_set_state(pipeline, GST_STATE_PLAYING);
    });
    EXPECT_TRUE(testhost::wait_until_asleep(begun.get()));
  }

  GstElement *pipeline_;
  std::mutex lock_;
  std::thread disturber_;
  Texts started_;
};

} // namespace

TEST_F(ConnectionManagerTest, HasTwoConstructOnlyProperties)
{
  constexpr int FLAGS = G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY;
  auto *object_class = G_OBJECT_CLASS(g_type_class_ref(connection_manager_get_type()));
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(object_class, &count);
  GParamSpec *list = g_object_class_find_property(object_class, "source-list");
  GParamSpec *fd = g_object_class_find_property(object_class, "fd");

  EXPECT_STREQ(g_type_name(connection_manager_get_type()), "ConnectionManager");
  ASSERT_EQ(count, 2U);
  ASSERT_TRUE(G_IS_PARAM_SPEC_POINTER(list));
  EXPECT_STREQ(g_param_spec_get_nick(list), "Source List");
  EXPECT_STREQ(g_param_spec_get_blurb(list), "List of sources to generate the metadata xml");
  EXPECT_EQ(list->flags & ~G_PARAM_STATIC_STRINGS, FLAGS);
  ASSERT_TRUE(G_IS_PARAM_SPEC_INT(fd));
  EXPECT_STREQ(g_param_spec_get_nick(fd), "File Descriptor");
  EXPECT_STREQ(g_param_spec_get_blurb(fd), "The file descriptor for metadata client");
  EXPECT_EQ(fd->flags & ~G_PARAM_STATIC_STRINGS, FLAGS);
  EXPECT_EQ(G_PARAM_SPEC_INT(fd)->minimum, G_MININT);
  EXPECT_EQ(G_PARAM_SPEC_INT(fd)->maximum, G_MAXINT);
  EXPECT_EQ(G_PARAM_SPEC_INT(fd)->default_value, -1);
  g_type_class_unref(object_class);
}

TEST_F(ConnectionManagerTest, GivesWhatItWasMadeOf)
{
  Connection connection(Behaviour::ONE_BUFFER);
  GList *list = nullptr;
  int fd = -1;

  g_object_get(connection.manager, "source-list", &list, "fd", &fd, nullptr);

  ASSERT_EQ(g_list_length(list), 1U);
  EXPECT_EQ(list->data, connection.source);
  EXPECT_EQ(fd, connection.fd);
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, TakesADescriptorOnlyOnce)
{
  Connection connection(Behaviour::ONE_BUFFER);
  GObjectClass *object_class = G_OBJECT_GET_CLASS(connection.manager);
  GParamSpec *pspec = g_object_class_find_property(object_class, "fd");
  GValue value = G_VALUE_INIT;
  int fd = -1;

  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, connection.fd + 1);
  object_class->set_property(G_OBJECT(connection.manager), pspec->param_id, &value, pspec);
  g_object_get(connection.manager, "fd", &fd, nullptr);
  EXPECT_EQ(fd, connection.fd);
}

TEST_F(ConnectionManagerTest, WarnsOfUnknownProperties)
{
  Connection connection(Behaviour::ONE_BUFFER);
  GObjectClass *object_class = G_OBJECT_GET_CLASS(connection.manager);
  GParamSpec *pspec = g_object_class_find_property(object_class, "fd");
  GValue value = G_VALUE_INIT;

  g_value_init(&value, G_TYPE_INT);
  object_class->set_property(G_OBJECT(connection.manager), 99, &value, pspec);
  object_class->get_property(G_OBJECT(connection.manager), 99, &value, pspec);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 2U);
  for (const std::string &message : messages) {
    EXPECT_TRUE(
        message.ends_with("invalid property id 99 for \"fd\" of type 'GParamInt' in 'ConnectionManager'"))
        << message;
  }
}

TEST_F(ConnectionManagerTest, HasNoDescriptorByDefault)
{
  auto *manager = CONNECTION_MANAGER(g_object_new(connection_manager_get_type(), nullptr));
  GList *list = nullptr;
  int fd = 0;

  g_object_get(manager, "source-list", &list, "fd", &fd, nullptr);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(fd, -1);
  g_object_unref(manager);
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{
          {LOG_ERR, "Could not close metadata client fd when destroying pipeline: Bad file descriptor"}}));
}

TEST_F(ConnectionManagerTest, ChecksTheArgumentsOfNew)
{
  g_autoptr(GList) list = g_list_append(nullptr, GINT_TO_POINTER(1));

  EXPECT_EQ(connection_manager_new(nullptr, 0), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"src_lists != NULL"}));
  EXPECT_EQ(connection_manager_new(list, -1), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"fd != -1"}));
}

TEST_F(ConnectionManagerTest, ChecksTheArgumentsOfPrepare)
{
  EXPECT_FALSE(connection_manager_prepare(nullptr));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"conn != NULL"}));

  GList *list = list_of({testelements::make_source(Behaviour::SILENT)});
  auto *no_fd = CONNECTION_MANAGER(g_object_new(connection_manager_get_type(), "source-list", list, nullptr));
  EXPECT_FALSE(connection_manager_prepare(no_fd));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"conn->priv->fd != -1"}));
  g_object_unref(no_fd);
  EXPECT_EQ(testhost::take_syslog().size(), 1U);

  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  auto *no_list = CONNECTION_MANAGER(g_object_new(connection_manager_get_type(), "fd", fd, nullptr));
  EXPECT_FALSE(connection_manager_prepare(no_list));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"conn->priv->src_lists != NULL"}));
  g_object_unref(no_list);
}

TEST_F(ConnectionManagerTest, ChecksTheArgumentsOfStart)
{
  connection_manager_announce_start(nullptr);
  connection_manager_start(nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"conn != NULL", "conn != NULL"}));
}

TEST_F(ConnectionManagerTest, LogsADescriptorThatIsNotClosedWell)
{
  Connection connection(Behaviour::ONE_BUFFER);
  faults::fail_close_of(connection.fd);

  connection.expect_end();
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{
          {LOG_ERR, "Could not close metadata client fd when destroying pipeline: Input/output error"}}));
}

TEST_F(ConnectionManagerTest, TakesSourcesThatAreNotFloating)
{
  GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
  gst_object_ref_sink(source);
  Connection connection(std::vector{source});

  connection.stream();
  connection.client.hang_up();
  connection.expect_gone();
}

/* The pipeline. */

TEST_F(ConnectionManagerTest, BuildsThePipelineInOrder)
{
  Connection connection(two_sources());
  ASSERT_TRUE(connection.prepare());
  std::vector<std::string> children;

  EXPECT_STREQ(GST_OBJECT_NAME(connection.pipeline()), "metadataserver2client");
  EXPECT_TRUE(GST_IS_PIPELINE(connection.pipeline()));
  /* A bin puts what is added before what is there. */
  for (GList *item = g_list_last(GST_BIN_CHILDREN(connection.pipeline())); item != nullptr;
       item = item->prev) {
    GstElementFactory *factory = gst_element_get_factory(GST_ELEMENT(item->data));
    children.emplace_back(factory != nullptr ? GST_OBJECT_NAME(factory) : G_OBJECT_TYPE_NAME(item->data));
  }
  EXPECT_EQ(children, (std::vector<std::string>{"onvifxmlmetadatastreamdoc", "queue", "gdppay", "fdsink",
                                                "TestSource", "TestSource"}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, LinksSourcesToDocumentToQueueToPayloaderToSink)
{
  Connection connection(two_sources());
  ASSERT_TRUE(connection.prepare());
  GList *list = nullptr;
  g_object_get(connection.manager, "source-list", &list, nullptr);

  GstElement *document = element_behind(GST_ELEMENT(list->data));
  EXPECT_EQ(element_behind(GST_ELEMENT(list->next->data)), document);
  EXPECT_EQ(factory_name(document), "onvifxmlmetadatastreamdoc");
  EXPECT_EQ(document->numsinkpads, 2);
  GstElement *queue = element_behind(document);
  EXPECT_EQ(factory_name(queue), "queue");
  EXPECT_TRUE(g_str_has_prefix(GST_OBJECT_NAME(queue), "queue"));
  GstElement *payloader = element_behind(queue);
  EXPECT_EQ(factory_name(payloader), "gdppay");
  EXPECT_TRUE(g_str_has_prefix(GST_OBJECT_NAME(payloader), "gdppay"));
  GstElement *sink = element_behind(payloader);
  EXPECT_EQ(factory_name(sink), "fdsink");
  EXPECT_STREQ(GST_OBJECT_NAME(sink), "fdsink");
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, LeavesAllSettingsButTheSinksDescriptor)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  GstElement *queue = element_behind(element_behind(connection.source));
  GstElement *payloader = element_behind(queue);
  GstElement *sink = element_behind(payloader);
  int fd = -1;

  EXPECT_EQ(changed_settings(queue), Texts());
  EXPECT_EQ(changed_settings(payloader), Texts());
  EXPECT_EQ(changed_settings(sink), (Texts{"fd"}));
  g_object_get(sink, "fd", &fd, nullptr);
  EXPECT_EQ(fd, connection.fd);
  connection.client.hang_up();
  connection.expect_gone();
}

/* The hold. */

TEST_F(ConnectionManagerTest, SendsNothingBeforeTheStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());

  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection_manager_announce_start(connection.manager);
  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection_manager_start(connection.manager);
  EXPECT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));

  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, HoldsALiveSourceToo)
{
  Connection connection(std::vector{testelements::make_live_source(Behaviour::FLOOD)});
  ASSERT_TRUE(connection.prepare());

  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection.start();
  EXPECT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, StartIsForgivenBeforePrepareAndTwice)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection_manager_start(connection.manager);

  connection.stream();
  connection_manager_start(connection.manager);
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, StreamsGdpOfTheDocumentsCaps)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  EXPECT_NE(connection.client.received().find("application/x-onvif-metadata"), std::string::npos);
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, StreamsFromAllSources)
{
  Connection connection(
      {testelements::make_source(Behaviour::SILENT), testelements::make_source(Behaviour::ONE_BUFFER)});

  connection.stream();
  connection.client.hang_up();
  connection.expect_gone();
}

/* Failures of prepare: each releases every source once, and the client sees the end of its connection. */

TEST_F(ConnectionManagerTest, FailsWithoutAPipeline)
{
  faults::fail_next(faults::Call::PIPELINE_NEW);
  expect_failure(two_sources(), {{LOG_ERR, "Could not create metadata pipeline."}});
}

class ConnectionManagerElementTest : public ConnectionManagerTest,
                                     public testing::WithParamInterface<const char *>
{
};

TEST_P(ConnectionManagerElementTest, FailsWhenItCannotBeMade)
{
  const testelements::WithoutFactory without(GetParam());

  expect_failure(two_sources(), {{LOG_ERR, "Could not create "s + GetParam() + "."}});
}

TEST_P(ConnectionManagerElementTest, FailsWhenItCannotBeAdded)
{
  const testelements::ReplacedFactory replaced(GetParam(), Unusable::HAS_PARENT);

  expect_failure(two_sources(), {{LOG_ERR, "Failed to add "s + GetParam() + "."}});
}

INSTANTIATE_TEST_SUITE_P(Elements, ConnectionManagerElementTest,
                         testing::Values("onvifxmlmetadatastreamdoc", "queue", "gdppay", "fdsink"),
                         [](const auto &element) { return std::string(element.param); });

TEST_F(ConnectionManagerTest, FailsSilentlyWhenTheCommonElementsCannotBeLinked)
{
  for (const char *name : {"queue", "gdppay"}) {
    const testelements::ReplacedFactory replaced(name, Unusable::CANNOT_BE_LINKED);
    expect_failure(two_sources(), {});
  }
}

TEST_F(ConnectionManagerTest, FailsWithoutAnElementForASource)
{
  constexpr const char *TEXT = "Not a valid source element to add to metadata server pipeline.";

  expect_failure({testelements::make_source(Behaviour::SILENT), nullptr}, {{LOG_ERR, TEXT}});
  expect_failure({nullptr, testelements::make_source(Behaviour::SILENT)}, {{LOG_ERR, TEXT}});
}

TEST_F(ConnectionManagerTest, FailsWithAnotherObjectForASource)
{
  auto *no_element = static_cast<GstElement *>(g_object_new(G_TYPE_OBJECT, nullptr));

  expect_failure({testelements::make_source(Behaviour::SILENT), no_element},
                 {{LOG_ERR, "Not a valid source element to add to metadata server pipeline."}});
}

TEST_F(ConnectionManagerTest, FailsSilentlyWhenASourceCannotBeAdded)
{
  expect_failure(
      {testelements::make_source(Behaviour::SILENT), testelements::make_unusable(Unusable::HAS_PARENT)}, {});
}

TEST_F(ConnectionManagerTest, FailsSilentlyWhenTwoSourcesHaveTheSameName)
{
  const std::vector<GstElement *> sources = two_sources();
  gst_object_set_name(GST_OBJECT(sources[0]), "same");
  gst_object_set_name(GST_OBJECT(sources[1]), "same");

  expect_failure(sources, {});
}

TEST_F(ConnectionManagerTest, FailsWhenASourceCannotBeLinked)
{
  Connection connection({testelements::make_source(Behaviour::SILENT),
                         testelements::make_unusable(Unusable::CANNOT_BE_LINKED)});

  EXPECT_FALSE(connection.prepare());
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_ERR);
  EXPECT_TRUE(g_regex_match_simple("^Failed to link 0x[0-9a-f]+\\aA and onvifxmlmetadatastreamdoc\\.$",
                                   lines[0].text.c_str(), static_cast<GRegexCompileFlags>(0),
                                   static_cast<GRegexMatchFlags>(0)))
      << testing::PrintToString(lines[0].text);
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, FailsWhenASourceDoesNotStart)
{
  expect_failure({testelements::make_source(Behaviour::START_STATE_FAILS)}, {});
  expect_failure({testelements::make_source(Behaviour::ONE_BUFFER),
                  testelements::make_source(Behaviour::START_STATE_FAILS)},
                 {});
}

TEST_F(ConnectionManagerTest, LogsTheFirstReasonWhenASourceRefusesToStart)
{
  expect_failure({testelements::make_source(Behaviour::START_REFUSED)},
                 {{LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."}});
}

TEST_F(ConnectionManagerTest, FailsWhenASourceHasAnErrorAtOnce)
{
  expect_failure({testelements::make_source(Behaviour::ERROR)},
                 {{LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."}});
}

TEST_F(ConnectionManagerTest, LogsADescriptorThatIsNotOpen)
{
  /* A small number would soon be somebody else's. */
  constexpr int NOT_OPEN = 900;
  ConnectionManager *manager =
      connection_manager_new(list_of({testelements::make_source(Behaviour::START_STATE_FAILS)}), NOT_OPEN);

  EXPECT_FALSE(connection_manager_prepare(manager));
  g_object_unref(manager);
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{
          {LOG_WARNING, "Could not make metadata client socket non-blocking: Bad file descriptor"},
          {LOG_ERR, "Could not close metadata client fd when destroying pipeline: Bad file descriptor"}}));
}

/* Sync points. */

TEST_F(ConnectionManagerTest, SendsOneSyncPointForOneLine)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, SendsASyncPointForEachOfSeveralLinesInOneWrite)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\nother\nSYNC\n"));
  EXPECT_TRUE(wait_for_events(3));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT, SYNC_POINT, SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
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
  ASSERT_TRUE(other.client.send("SYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));

  ASSERT_TRUE(connection.client.send("C\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
  for (Connection *ending : {&connection, &other}) {
    ending->client.hang_up();
    ending->expect_gone();
  }
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
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, WarnsOfASyncLineBeforeTheStartAndSendsNothing)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(testhost::spin_until([] { return testhost::glib_messages_size() > 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{STARTED_EXPRESSION}));

  connection.start();
  ASSERT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));
  EXPECT_EQ(testelements::sent_events_size(), 0U);
  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, WarnsOfASyncLineWhilePreparing)
{
  Connection connection(Behaviour::SILENT);
  auto preparing = connection.begin_to_prepare();

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(testhost::spin_until([] { return testhost::glib_messages_size() > 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{STARTED_EXPRESSION}));
  connection.client.hang_up();
  EXPECT_FALSE(Connection::wait_for(&preparing));
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, WarnsOnlySoOftenOfSyncLinesBeforeTheStart)
{
  constexpr gsize LIMIT = CONNECTION_MANAGER_MAX_EARLY_SYNC_WARNINGS;
  Connection connection(Behaviour::ONE_BUFFER);
  std::string lines;
  for (gsize i = 0; i < LIMIT * 100; i++) {
    lines += "SYNC\n";
  }
  ASSERT_TRUE(connection.prepare());

  ASSERT_TRUE(connection.client.send(lines));
  EXPECT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts(LIMIT, STARTED_EXPRESSION));

  connection.start();
  ASSERT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));
  EXPECT_EQ(testelements::sent_events_size(), 0U);
  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, KeepsASyncLineThatComesBetweenAnnouncementAndStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  connection_manager_announce_start(connection.manager);

  ASSERT_TRUE(connection.client.send("SYNC\n"));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  EXPECT_EQ(testelements::sent_events_size(), 0U);

  connection_manager_start(connection.manager);
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, KeepsNoMoreSyncPointsThanDocumented)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  connection_manager_announce_start(connection.manager);
  std::string lines;
  for (int i = 0; i < CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS + 10; i++) {
    lines += "SYNC\n";
  }

  ASSERT_TRUE(connection.client.send(lines));
  ASSERT_TRUE(testhost::spin_until([&] { return connection.client.unread() == 0; }));
  connection_manager_start(connection.manager);
  EXPECT_TRUE(wait_for_events(CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS));
  connection.client.hang_up();
  connection.expect_gone();
  EXPECT_EQ(testelements::take_sent_events(),
            SentEvents(CONNECTION_MANAGER_MAX_PENDING_SYNC_POINTS, SYNC_POINT));
}

TEST_F(ConnectionManagerTest, SendsNoSyncPointThatStandsBeforeWrongBytes)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  ASSERT_TRUE(connection.client.send("SYNC\n\xff"));
  connection.expect_end();
}

/* Neither the stream, which waits for the client, nor an event that waits for the stream stops the others,
 * whether the client goes away or only ends what it sends. */
class ConnectionManagerStuckTest : public ConnectionManagerTest, public testing::WithParamInterface<bool>
{
};

TEST_P(ConnectionManagerStuckTest, GoesOnForOthersWhenAClientAsksButDoesNotRead)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  wait_until_stuck(connection);
  const testhost::LatencyMeter meter;

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_FALSE(testhost::spin_until([] { return testelements::sent_events_size() > 1; }, SHORT_US));

  Connection other(Behaviour::ONE_BUFFER);
  other.stream();
  other.client.hang_up();
  other.expect_gone();
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

/* A pipeline goes to PLAYING on a thread of GStreamer's own, and may be about to when it has to stop. */
TEST_F(ConnectionManagerTest, StopsForGoodWhatIsBehindTheDocument)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  wait_until_stuck(connection);
  gst_element_set_state(connection.pipeline(), GST_STATE_PAUSED);
  ASSERT_TRUE(testhost::spin_until([&] { return GST_STATE(connection.pipeline()) == GST_STATE_PAUSED; }));
  ASSERT_TRUE(connection.client.send("SYNC\n"));
  ASSERT_TRUE(wait_for_events(1));
  Disturbance disturbance(connection.pipeline());

  /* Not a hang-up, which ends what the sync point waits for. */
  connection.client.half_close();
  connection.release();
  EXPECT_TRUE(testhost::spin_until([&] { return !connection.observed.alive(); }));
  EXPECT_EQ(disturbance.end(), Texts());
  connection.expect_gone();
  testelements::take_sent_events();
}

TEST_F(ConnectionManagerTest, SendsASyncPointDownTheStreamOnceTheClientReadsAgain)
{
  const testelements::DefaultEventHandling handling;
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  wait_until_stuck(connection);

  ASSERT_TRUE(connection.client.send("SYNC\nSYNC\n"));
  EXPECT_TRUE(testhost::spin_until(
      [&] { return !connection.client.received().empty() && testelements::sent_events_size() == 2; }));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT, SYNC_POINT}));
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, NeedsNoProcessorForAClientThatDoesNotRead)
{
  constexpr gint64 PERIOD_US = 300 * G_TIME_SPAN_MILLISECOND;
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  wait_until_stuck(connection);

  const gint64 used_before = testhost::processor_time_us();
  testhost::spin_until([] { return false; }, PERIOD_US);
  EXPECT_LT(testhost::processor_time_us() - used_before, PERIOD_US / 2);
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, FollowsALineWithoutEndInConstantMemory)
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
  EXPECT_TRUE(wait_for_events(1));
  EXPECT_EQ(testelements::take_sent_events(), (SentEvents{SYNC_POINT}));
  EXPECT_LT(testhost::resident_bytes(), resident_before + MAX_GROWTH_BYTES);
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
  connection.client.hang_up();
  connection.expect_gone();
}

/* The ways in which a connection ends. */

TEST_F(ConnectionManagerTest, WaitsForDataUntilTheClientHangsUp)
{
  Connection connection(Behaviour::SILENT);
  auto preparing = connection.begin_to_prepare();

  EXPECT_FALSE(testhost::spin_until(
      [&] { return preparing.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, SHORT_US));
  connection.client.hang_up();
  EXPECT_FALSE(Connection::wait_for(&preparing));
  connection.expect_gone();
}

TEST_F(ConnectionManagerTest, EndsWhenTheClientEndsItsHalfWhilePreparing)
{
  Connection connection(Behaviour::SILENT);
  connection.client.half_close();

  EXPECT_FALSE(connection.prepare());
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, EndsWhenTheStreamEndsBeforeAnyData)
{
  Connection connection(Behaviour::END);

  /* The payloader frames the end of the stream too, which may count as data. */
  if (connection.prepare()) {
    connection.start();
  }
  connection.expect_end();
}

TEST_F(ConnectionManagerTest, EndsWhenAWriteFailsWhilePreparing)
{
  expect_failure({testelements::make_source(Behaviour::WRITE_ERROR)}, {});
}

class ConnectionManagerEndTest : public ConnectionManagerTest
{
protected:
  /* Ends the connection at each stage after the preparation. @lines is what it logs, each time. */
  void expect_end_by(const std::function<void(Connection *)> &end, const SyslogLines &lines)
  {
    for (const bool started : {false, true}) {
      Connection connection(Behaviour::ONE_BUFFER);
      ASSERT_TRUE(connection.prepare());
      if (started) {
        connection.start();
        ASSERT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));
        connection.release();
      }
      end(&connection);
      EXPECT_TRUE(testhost::spin_until([&] { return !started || !connection.observed.alive(); }));
      testhost::dispatch_ready();
      if (!started) {
        EXPECT_TRUE(connection.observed.alive());
        connection.start();
      }
      connection.expect_gone();
      EXPECT_EQ(testhost::take_syslog(), lines);
    }
  }
};

TEST_F(ConnectionManagerEndTest, HangUp)
{
  expect_end_by([](Connection *connection) { connection->client.hang_up(); }, {});
}

TEST_F(ConnectionManagerEndTest, HalfClose)
{
  expect_end_by([](Connection *connection) { connection->client.half_close(); }, {});
}

TEST_F(ConnectionManagerEndTest, HalfCloseBehindALine)
{
  expect_end_by(
      [](Connection *connection) {
        ASSERT_TRUE(connection->client.send("other\n"));
        connection->client.half_close();
      },
      {});
}

TEST_F(ConnectionManagerEndTest, BytesThatAreNoText)
{
  expect_end_by([](Connection *connection) { ASSERT_TRUE(connection->client.send("\xc0\x80\n")); }, {});
}

TEST_F(ConnectionManagerEndTest, PipelineError)
{
  expect_end_by(
      [](Connection *connection) {
        GST_ELEMENT_ERROR(connection->source, STREAM, FAILED, ("Out of order"), (nullptr));
      },
      {{LOG_ERR, "Error in metadata connection manager pipeline: Out of order."}});
}

TEST_F(ConnectionManagerEndTest, ErrorThatEndsInAFullStopIsLoggedWithTwo)
{
  expect_end_by(
      [](Connection *connection) {
        GST_ELEMENT_ERROR(connection->source, RESOURCE, READ, ("100%% lost."), (nullptr));
      },
      {{LOG_ERR, "Error in metadata connection manager pipeline: 100% lost.."}});
}

TEST_F(ConnectionManagerEndTest, FailedWriteIsNotLogged)
{
  expect_end_by(
      [](Connection *connection) {
        GST_ELEMENT_ERROR(connection->source, RESOURCE, WRITE, ("Client gone"), (nullptr));
      },
      {});
}

TEST_F(ConnectionManagerEndTest, OtherMessagesEndNothing)
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
  ASSERT_TRUE(connection.client.send("SYNC\n"));
  EXPECT_TRUE(wait_for_events(1));
  testelements::take_sent_events();
  connection.client.hang_up();
  connection.expect_gone();
}

TEST_F(ConnectionManagerEndTest, EndOfStream)
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

/* The client's socket is written to when the client has gone. */
TEST_F(ConnectionManagerEndTest, HangUpInTheMiddleOfAWrite)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  connection.release();
  wait_until_stuck(connection);

  connection.client.hang_up();
  connection.expect_gone();
}

/* The sink sits in the middle of a large write to a full socket when the pipeline has to stop. */
TEST_F(ConnectionManagerEndTest, HalfCloseByAClientThatDoesNotRead)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  connection.release();
  wait_until_stuck(connection);
  const testhost::LatencyMeter meter;

  connection.client.half_close();
  EXPECT_TRUE(testhost::spin_until([&] { return !connection.observed.alive(); }));
  EXPECT_LT(meter.longest_us(), G_TIME_SPAN_SECOND);
  connection.expect_end();
}

/* Many ends at once. */

namespace
{

/* One turn of the main loop, which dispatches everything that is ready when it begins. */
void
turn()
{
  g_main_context_iteration(nullptr, FALSE);
}

gsize
count_alive(const std::vector<std::unique_ptr<Connection>> &connections)
{
  return std::ranges::count_if(connections,
                               [](const auto &connection) { return connection->observed.alive(); });
}

} // namespace

TEST_F(ConnectionManagerEndTest, TakesDownItsShareOfPipelinesInEachTurn)
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
    turn();
    ASSERT_GE(count_alive(connections) + CONNECTION_MANAGER_MAX_ENDS_PER_TURN, alive);
  }
}

TEST_F(ConnectionManagerEndTest, DoesNotWaitForAClientInLine)
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
  turn();
  ASSERT_EQ(preparing.wait_for(std::chrono::microseconds(testhost::SPIN_LIMIT_US)),
            std::future_status::ready);
  EXPECT_FALSE(preparing.get());
  EXPECT_EQ(GST_STATE(connection.source), GST_STATE_PAUSED);
  connection.expect_end();
}

TEST_F(ConnectionManagerEndTest, SendsNothingMoreToAClientInLine)
{
  Connection connection(Behaviour::FLOOD);
  ASSERT_TRUE(connection.prepare());
  connection.start();
  ASSERT_TRUE(testhost::spin_until([&] { return GST_STATE(connection.pipeline()) == GST_STATE_PLAYING; }));
  testhost::dispatch_ready();

  connection.client.half_close();
  turn();
  const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
  while (!connection.client.ended() && g_get_monotonic_time() < end_us) {
    g_thread_yield();
  }
  EXPECT_TRUE(connection.client.ended());
  EXPECT_EQ(GST_STATE(connection.pipeline()), GST_STATE_PLAYING);
  connection.expect_gone();
}

TEST_F(ConnectionManagerEndTest, StartsNothingForAClientInLine)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());
  testhost::dispatch_ready();

  connection.client.half_close();
  turn();
  connection.start();
  const gint64 end_us = g_get_monotonic_time() + SHORT_US;
  while (g_get_monotonic_time() < end_us) {
    EXPECT_EQ(connection.client.received(), "");
    g_thread_yield();
  }
  connection.expect_end();
  EXPECT_EQ(connection.client.received(), "");
}

TEST_F(ConnectionManagerEndTest, LogsASocketWatchThatCannotBeRemoved)
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

TEST_F(ConnectionManagerEndTest, LogsABusWatchThatCannotBeRemoved)
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

/* Somebody else reads the socket between the wake-up and the read. */
TEST_F(ConnectionManagerEndTest, LogsAReadThatHasToBeTriedAgain)
{
  Connection connection(Behaviour::ONE_BUFFER);
  const guint thief = g_unix_fd_add(
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
  g_source_remove(thief);
  connection.expect_end();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Reading incoming metadata request interrupted, shutting down."}}));
}

/* A message that is dispatched before the watch's id is known to its callback would be lost, and prepare
 * would wait for ever. The hook stands between the two, and gives the main thread time to dispatch the error.
 */
TEST_F(ConnectionManagerEndTest, LosesNoErrorThatIsDispatchedWhileTheWatchIsInstalled)
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
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."}}));
  connection.expect_end();
}

TEST_F(ConnectionManagerEndTest, LosesNoneOfManyImmediateErrors)
{
  for (int round = 0; round < 500; round++) {
    expect_failure({testelements::make_source(Behaviour::ERROR)},
                   {{LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."}});
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
}

/* The client of a live source is told "OK", whenever the end comes. */
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

  /* One that ends at once, before any data. */
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

  /* What the server does with a connection that is prepared. */
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
      lines.push_back({LOG_ERR, "Error in metadata connection manager pipeline: Broken test source."});
    }

    connection->expect_end();
    EXPECT_EQ(connection->client.received().substr(0, 3), "OK\0"s);
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Whether nobody has the manager any more but who made it. */
  static bool is_left_alone(ConnectionManager *manager)
  {
    return g_atomic_int_get(reinterpret_cast<gint *>(&G_OBJECT(manager)->ref_count)) == 1;
  }

  /* For a thread other than the main one. */
  static bool wait_until_left_alone(ConnectionManager *manager)
  {
    const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;

    while (!is_left_alone(manager) && g_get_monotonic_time() < end_us) {
      g_thread_yield();
    }
    return is_left_alone(manager);
  }
};

/* The hooks run on the preparing thread, the second one right where the watches may be dispatched. */
TEST_P(ConnectionManagerLiveTest, EndsBeforeThePreparationLooks)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect_ending();
    bool stopped = false;
    faults::after_next_bus_watch(
        [&] { faults::after_next_unlock([&] { stopped = wait_until_left_alone(connection->manager); }); });

    EXPECT_TRUE(connection->prepare()) << "round " << round;
    EXPECT_TRUE(stopped);
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

TEST_P(ConnectionManagerLiveTest, EndsWhileThePreparationWaits)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect_ending();

    EXPECT_TRUE(connection->prepare()) << "round " << round;
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

TEST_P(ConnectionManagerLiveTest, EndsBeforeTheStart)
{
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    const std::unique_ptr<Connection> connection = connect();

    EXPECT_TRUE(connection_manager_prepare(connection->manager)) << "round " << round;
    end(connection.get());
    EXPECT_TRUE(testhost::spin_until([&] { return is_left_alone(connection->manager); }));
    reply_and_start(connection.get());
    expect_ok_and_end(connection.get());
    EXPECT_EQ(connection->client.received(), "OK\0"s);
  }
}

/* Nothing is dispatched before the start. */
TEST_P(ConnectionManagerLiveTest, EndsBehindTheStart)
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

/* The client may go at any moment of the preparation. */
TEST_F(ConnectionManagerEndTest, LeavesNothingOfManyClientsThatHangUpMeanwhile)
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

/* Elements that fail in a state change. */

namespace
{

/* Where in the pipeline the element is that fails. */
struct Place {
  const char *name;
  const char *factory; /* none for the source itself */
  bool in_bin;         /* the source is a bin of a source and a filter */
  bool has_thread;     /* of its own */
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

/* When the client goes. */
enum class Stage {
  PREPARING,
  PREPARED,
  STREAMING,
  STUCK, /* it does not read, and nothing moves any more */
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

/* What one element consists of, as live_objects() has it. */
std::set<std::string>
objects_of(GstElement *element)
{
  std::set<std::string> objects = {object_name(element)};

  for (GList *pad = element->pads; pad != nullptr; pad = pad->next) {
    objects.insert(object_name(pad->data));
  }
  return objects;
}

} // namespace

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

  /* Up to where the client goes, and that. */
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
      wait_until_stuck(*connection);
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

  /* That the manager and the client's descriptor go, with one line in the log. */
  static void expect_end(Connection *connection)
  {
    connection->release();
    EXPECT_TRUE(testhost::spin_until([&] { return !connection->observed.alive(); }));
    EXPECT_TRUE(connection->client.wait_for_end());
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_ERR, "Could not stop connection manager pipeline."}}));
  }

  /* That so many of the failing elements are left, with so many threads of their own, and nothing else. */
  void expect_left(gsize count, gsize threads)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::live_objects() == objects_with_failing(); }))
        << testing::PrintToString(testhost::live_objects());
    EXPECT_EQ(testelements::failing_elements().size(), count);
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::count_threads() <= threads_ + threads; }))
        << testhost::count_threads() << " instead of " << threads_ + threads << " threads";
  }

  /* That no descriptors are left either. */
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

/* Clients of one element that fails in each change on the way down, in each way, in each stage. */
class ConnectionManagerStopFailureTest : public ConnectionManagerFailureTest,
                                         public testing::WithParamInterface<Place>
{
protected:
  /* The pipeline plays from STREAMING on, and a sink that waits for its first data is still in READY. */
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
    /* The sink has some of its own. */
    if (!is_sink() || elements_left_ == 0) {
      expect_descriptors_closed();
    }
    EXPECT_EQ(testelements::release_failing_elements(), elements_left_);
  }

private:
  gsize elements_left_ = 0;
  gsize threads_left_ = 0;
};

TEST_P(ConnectionManagerStopFailureTest, LeavesNothingWhenItFailsOnce)
{
  expect_stops(1);
}

TEST_P(ConnectionManagerStopFailureTest, LeavesNothingWhenItFailsTwice)
{
  expect_stops(2);
}

TEST_P(ConnectionManagerStopFailureTest, LeavesTheElementAloneWhenItFailsForEver)
{
  expect_stops(FOR_EVER);
}

INSTANTIATE_TEST_SUITE_P(Elements, ConnectionManagerStopFailureTest, testing::ValuesIn(PLACES),
                         [](const auto &place) { return std::string(place.param.name); });

/* Live, so that the pipeline is told at once of an element that does not come to PLAYING. */
class ConnectionManagerStartFailureTest : public ConnectionManagerFailureTest,
                                          public testing::WithParamInterface<Place>
{
};

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

/* A sink goes to PLAYING only when it has data. */
INSTANTIATE_TEST_SUITE_P(ElementsButTheSink, ConnectionManagerStartFailureTest,
                         testing::ValuesIn(PLACES.begin(), PLACES.end() - 1),
                         [](const auto &place) { return std::string(place.param.name); });

/* Of a pipeline that did not play. */
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

/* Both branches of a pipeline, one of them a bin, and what both go to. */
TEST_F(ConnectionManagerFailureTest, LeavesEachOfSeveralElementsThatRefuse)
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
    ASSERT_TRUE(connection->prepare());
    connection->start();
    wait_until_stuck(*connection);
    ASSERT_TRUE(connection->client.send("SYNC\n"));
    ASSERT_TRUE(wait_for_events(1));
    connection->client.half_close();
    expect_end(connection.get());
  }

  expect_left(1, 0);
  EXPECT_EQ(testelements::release_failing_elements(), 1U);
}

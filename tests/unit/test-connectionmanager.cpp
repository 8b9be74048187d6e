/* SPDX-License-Identifier: MIT */
#include "connectionmanager.h"

#include "faults.h"
#include "testconnection.h"

#include <fcntl.h>
#include <syslog.h>

using testelements::Behaviour;
using testelements::Unusable;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

class ConnectionManagerElementTest : public ConnectionManagerTest,
                                     public testing::WithParamInterface<const char *>
{
};

std::string
factory_name(GstElement *element)
{
  return GST_OBJECT_NAME(gst_element_get_factory(element));
}

/* The names of the writable properties whose values differ from those of a new element. */
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

TEST_F(ConnectionManagerTest, ReturnsItsConstructProperties)
{
  Connection connection(Behaviour::ONE_BUFFER);
  GList *list = nullptr;
  int fd = -1;

  g_object_get(connection.manager, "source-list", &list, "fd", &fd, nullptr);

  ASSERT_EQ(g_list_length(list), 1U);
  EXPECT_EQ(list->data, connection.source);
  EXPECT_EQ(fd, connection.fd);
}

TEST_F(ConnectionManagerTest, KeepsItsFirstDescriptor)
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

TEST_F(ConnectionManagerTest, WarnsAboutUnknownProperties)
{
  Connection connection(Behaviour::ONE_BUFFER);

  testhost::expect_unknown_property_warnings(connection.manager, "fd");
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

TEST_F(ConnectionManagerTest, LogsAFailureToCloseTheDescriptor)
{
  Connection connection(Behaviour::ONE_BUFFER);
  faults::fail_close_of(connection.fd);

  connection.expect_end();
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{
          {LOG_ERR, "Could not close metadata client fd when destroying pipeline: Input/output error"}}));
}

TEST_F(ConnectionManagerTest, AcceptsSourcesThatAreNotFloating)
{
  GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
  gst_object_ref_sink(source);
  Connection connection(std::vector{source});

  connection.stream();
}

/* The pipeline. */

TEST_F(ConnectionManagerTest, AddsTheElementsInOrder)
{
  Connection connection(two_sources());
  ASSERT_TRUE(connection.prepare());
  Texts children;

  EXPECT_STREQ(GST_OBJECT_NAME(connection.pipeline()), "metadataserver2client");
  EXPECT_TRUE(GST_IS_PIPELINE(connection.pipeline()));
  /* A bin prepends each child. */
  for (GList *item = g_list_last(GST_BIN_CHILDREN(connection.pipeline())); item != nullptr;
       item = item->prev) {
    GstElementFactory *factory = gst_element_get_factory(GST_ELEMENT(item->data));
    children.emplace_back(factory != nullptr ? GST_OBJECT_NAME(factory) : G_OBJECT_TYPE_NAME(item->data));
  }
  EXPECT_EQ(children,
            (Texts{"onvifxmlmetadatastreamdoc", "queue", "gdppay", "fdsink", "TestSource", "TestSource"}));
}

TEST_F(ConnectionManagerTest, LinksTheElementsInOrder)
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
}

TEST_F(ConnectionManagerTest, SetsNoPropertyButTheSinksDescriptor)
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
}

/* The start. */

TEST_F(ConnectionManagerTest, SendsNothingBeforeTheStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  ASSERT_TRUE(connection.prepare());

  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection_manager_announce_start(connection.manager);
  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection_manager_start(connection.manager);
  EXPECT_TRUE(testhost::spin_until([&] { return connection.has_document(); }));
}

TEST_F(ConnectionManagerTest, SendsNothingOfALiveSourceBeforeTheStart)
{
  Connection connection(std::vector{testelements::make_live_source(Behaviour::FLOOD)});
  ASSERT_TRUE(connection.prepare());

  EXPECT_FALSE(testhost::spin_until([&] { return !connection.client.received().empty(); }, SHORT_US));
  connection.start_streaming();
}

TEST_F(ConnectionManagerTest, IgnoresAStartBeforePrepareAndASecondStart)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection_manager_start(connection.manager);

  connection.stream();
  connection_manager_start(connection.manager);
}

TEST_F(ConnectionManagerTest, StreamsGdpWithTheDocumentsCaps)
{
  Connection connection(Behaviour::ONE_BUFFER);
  connection.stream();

  EXPECT_NE(connection.client.received().find("application/x-onvif-metadata"), std::string::npos);
}

TEST_F(ConnectionManagerTest, StreamsFromAllSources)
{
  Connection connection(
      {testelements::make_source(Behaviour::SILENT), testelements::make_source(Behaviour::ONE_BUFFER)});

  connection.stream();
}

/* Failures of prepare. Each releases all sources, and the client sees the end of its connection. */

TEST_F(ConnectionManagerTest, FailsWithoutAPipeline)
{
  faults::fail_next(faults::Call::PIPELINE_NEW);
  expect_failure(two_sources(), {{LOG_ERR, "Could not create metadata pipeline."}});
}

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
    expect_failure(two_sources());
  }
}

/* One pointer is null and one object is no element. */
TEST_F(ConnectionManagerTest, FailsWithASourceThatIsNoElement)
{
  const SyslogLines lines = {{LOG_ERR, "Not a valid source element to add to metadata server pipeline."}};
  auto *no_element = static_cast<GstElement *>(g_object_new(G_TYPE_OBJECT, nullptr));

  expect_failure({testelements::make_source(Behaviour::SILENT), nullptr}, lines);
  expect_failure({nullptr, testelements::make_source(Behaviour::SILENT)}, lines);
  expect_failure({testelements::make_source(Behaviour::SILENT), no_element}, lines);
}

TEST_F(ConnectionManagerTest, FailsSilentlyWhenASourceCannotBeAdded)
{
  const std::vector<GstElement *> same_name = two_sources();
  gst_object_set_name(GST_OBJECT(same_name[0]), "same");
  gst_object_set_name(GST_OBJECT(same_name[1]), "same");

  expect_failure(same_name);
  expect_failure(
      {testelements::make_source(Behaviour::SILENT), testelements::make_unusable(Unusable::HAS_PARENT)});
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
  expect_failure({testelements::make_source(Behaviour::START_STATE_FAILS)});
  expect_failure({testelements::make_source(Behaviour::ONE_BUFFER),
                  testelements::make_source(Behaviour::START_STATE_FAILS)});
}

TEST_F(ConnectionManagerTest, LogsTheErrorOfASourceThatDoesNotStart)
{
  expect_failure({testelements::make_source(Behaviour::START_REFUSED)}, BROKEN_SOURCE);
  expect_failure({testelements::make_source(Behaviour::ERROR)}, BROKEN_SOURCE);
}

TEST_F(ConnectionManagerTest, LogsADescriptorThatIsNotOpen)
{
  /* Large, so that nothing else gets this number. */
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

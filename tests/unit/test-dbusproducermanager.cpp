/* SPDX-License-Identifier: MIT */
#include "dbusproducermanager.h"

#include "faults.h"
#include "metadataserver1.h"
#include "producerconfig.h"
#include "testproducermanager.h"

#include <syslog.h>

using namespace testproducermanager;

using testbus::Peer;
using testhost::Observed;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

SyslogLine
not_on_bus(const std::string &name)
{
  return {LOG_WARNING, "producer \"" + name + "\" is not on the bus: its name cannot end an object's path"};
}

/* One line for each member of an interface, and for each annotation. */
Texts
describe_annotations(const std::string &of, GDBusAnnotationInfo **annotations)
{
  Texts lines;

  for (; annotations != nullptr && *annotations != nullptr; annotations++) {
    lines.push_back("annotation of " + of + " " + (*annotations)->key);
  }
  return lines;
}

void
append(Texts *lines, const Texts &more)
{
  lines->insert(lines->end(), more.begin(), more.end());
}

Texts
describe_arguments(const std::string &direction, GDBusArgInfo **arguments)
{
  Texts lines;

  for (; arguments != nullptr && *arguments != nullptr; arguments++) {
    lines.push_back(direction + " " + (*arguments)->name + " " + (*arguments)->signature);
    append(&lines, describe_annotations((*arguments)->name, (*arguments)->annotations));
  }
  return lines;
}

Texts
describe_members(GDBusInterfaceInfo *info)
{
  Texts lines = describe_annotations(info->name, info->annotations);

  for (GDBusMethodInfo **method = info->methods; method != nullptr && *method != nullptr; method++) {
    lines.push_back("method "s + (*method)->name);
    append(&lines, describe_arguments("in", (*method)->in_args));
    append(&lines, describe_arguments("out", (*method)->out_args));
    append(&lines, describe_annotations((*method)->name, (*method)->annotations));
  }
  for (GDBusSignalInfo **signal = info->signals; signal != nullptr && *signal != nullptr; signal++) {
    lines.push_back("signal "s + (*signal)->name);
  }
  for (GDBusPropertyInfo **property = info->properties; property != nullptr && *property != nullptr;
       property++) {
    lines.push_back("property "s + (*property)->name + " " + (*property)->signature + " " +
                    std::to_string((*property)->flags));
    append(&lines, describe_annotations((*property)->name, (*property)->annotations));
  }
  return lines;
}

class DBusProducerManagerTest : public Fixture
{
};

class DBusProducerManagerOneTest : public FixtureWithOne
{
protected:
  /* An interface as the service describes it. */
  Texts introspect(const std::string &object, const char *interface) const
  {
    const std::string xml = tool_->call(method(object, "org.freedesktop.DBus.Introspectable", "Introspect"));
    g_autoptr(GVariant) reply = g_variant_parse(nullptr, xml.c_str(), nullptr, nullptr, nullptr);
    const gchar *text = nullptr;
    g_variant_get(reply, "(&s)", &text);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(text, &error);
    g_assert_no_error(error);

    GDBusInterfaceInfo *info = g_dbus_node_info_lookup_interface(node, interface);
    return info != nullptr ? describe_members(info) : Texts{"no such interface"};
  }
};

} // namespace

/* Objects and properties. */

TEST_F(DBusProducerManagerTest, ExportsProducersAddedBeforeAndAfterTheBus)
{
  add("Early");
  acquire();
  EXPECT_EQ(managed_objects(), "({" + managed("Early", BOTH_DISABLED) + "},)");
  remove("Early");
  add("Late", {});
  EXPECT_EQ(managed_objects(), "({'" + path_of("Late") +
                                   "': {'com.quon.MetadataServer1.Producer': {'Name': <'Late'>, 'NiceName': "
                                   "<'nice Late'>, 'SampleFrameXML': <'<Late/>'>, 'ChannelsEnabled': "
                                   "<@a(ibs) []>}}},)");
}

TEST_F(DBusProducerManagerTest, KeepsTheManagerOutOfTheManagedObjects)
{
  acquire();

  EXPECT_EQ(managed_objects(), "({},)");
  EXPECT_EQ(set_producers("{}"), DONE);
}

TEST_F(DBusProducerManagerTest, SendsSignalsWhenProducersAreAddedAndRemoved)
{
  acquire();
  add("Passing", {7});
  remove("Passing");

  EXPECT_EQ(take_signals(),
            (Texts{ROOT + " org.freedesktop.DBus.ObjectManager.InterfacesAdded ('"s + path_of("Passing") +
                       "', {'com.quon.MetadataServer1.Producer': {'Name': <'Passing'>, 'NiceName': <'nice "
                       "Passing'>, 'SampleFrameXML': <'<Passing/>'>, 'ChannelsEnabled': <[(7, false, "
                       "'')]>}})",
                   ROOT + " org.freedesktop.DBus.ObjectManager.InterfacesRemoved ('"s + path_of("Passing") +
                       "', ['com.quon.MetadataServer1.Producer'])"}));
  EXPECT_EQ(managed_objects(), "({},)");
}

TEST_F(DBusProducerManagerOneTest, RepliesToGetAllWithExactlyTheFourProperties)
{
  EXPECT_EQ(tool_->call(method(path_of("One"), PROPERTIES, "GetAll", g_variant_new("(s)", PRODUCER))),
            "({'Name': <'One'>, 'NiceName': <'nice One'>, 'SampleFrameXML': <'<One/>'>, 'ChannelsEnabled': "
            "<[(1, false, ''), (2, false, '')]>},)");
}

TEST_F(DBusProducerManagerOneTest, RefusesUnknownProperties)
{
  EXPECT_EQ(get("One", "Type"), "org.freedesktop.DBus.Error.InvalidArgs: No such property “Type”");
}

TEST_F(DBusProducerManagerOneTest, RefusesToSetAnyProperty)
{
  for (const char *property : {"Name", "NiceName", "SampleFrameXML", "ChannelsEnabled"}) {
    GVariant *value =
        property == "ChannelsEnabled"s ? parse("a(ibs)", "[(1, true, 'x')]") : g_variant_new_string("x");
    EXPECT_EQ(tool_->call(method(path_of("One"), PROPERTIES, "Set",
                                 g_variant_new("(ssv)", PRODUCER, property, value))),
              "org.freedesktop.DBus.Error.InvalidArgs: Property “"s + property + "” is not writable");
  }
  expect_channels("One", BOTH_DISABLED);
}

TEST_F(DBusProducerManagerOneTest, HasExactlyTheDescribedInterfaces)
{
  EXPECT_EQ(
      introspect(path_of("One"), PRODUCER),
      (Texts{"method SetChannelsEnabled", "in enabled_channels a(ibs)", "property Name s 1",
             "property NiceName s 1", "property SampleFrameXML s 1", "property ChannelsEnabled a(ibs) 1"}));
  EXPECT_EQ(introspect(ROOT, MANAGER),
            (Texts{"method SetProducersEnabled", "in enabled_producers a{sa(ibs)}"}));
}

TEST_F(DBusProducerManagerTest, HasABindingNamedAfterTheInterfaces)
{
  EXPECT_EQ(
      (Texts{g_type_name(TYPE_METADATA_SERVER1_PRODUCER), g_type_name(TYPE_METADATA_SERVER1_PRODUCER_PROXY),
             g_type_name(TYPE_METADATA_SERVER1_PRODUCER_SKELETON),
             g_type_name(TYPE_METADATA_SERVER1_PRODUCER_MANAGER),
             g_type_name(TYPE_METADATA_SERVER1_PRODUCER_MANAGER_PROXY),
             g_type_name(TYPE_METADATA_SERVER1_PRODUCER_MANAGER_SKELETON)}),
      (Texts{"MetadataServer1Producer", "MetadataServer1ProducerProxy", "MetadataServer1ProducerSkeleton",
             "MetadataServer1ProducerManager", "MetadataServer1ProducerManagerProxy",
             "MetadataServer1ProducerManagerSkeleton"}));
}

TEST_F(DBusProducerManagerTest, ExportsAProducerThatStartsEnabled)
{
  producer_config_set_name("One", 2, "Türe \"2\"");
  acquire();
  add("One", {3, 2, 1});

  expect_channels("One", "[(3, false, ''), (2, true, 'Türe \"2\"'), (1, false, '')]");
}

TEST_F(DBusProducerManagerTest, ReplacesInvalidUtf8InTexts)
{
  g_autoptr(GArray) none = g_array_new(FALSE, FALSE, sizeof(guint32));
  g_autoptr(AnalyticsProducer) producer =
      analytics_producer_new("Raw", "nice \xff", "<\xc3/>", none, ANALYTICS_PRODUCER_BUILT_IN);
  acquire();
  analytics_producer_list_add(producers_, producer);

  EXPECT_EQ(get("Raw", "NiceName"), "(<'nice \xef\xbf\xbd'>,)");
  EXPECT_EQ(get("Raw", "SampleFrameXML"), "(<'<\xef\xbf\xbd/>'>,)");
}

/* docs/compatibility.md, "texts on the bus". */
TEST_F(DBusProducerManagerOneTest, CopiesTheTextsOnceWhenItExports)
{
  auto *klass = G_OBJECT_GET_CLASS(one_);

  for (const char *name : {"name", "nice-name", "sample-frame-xml"}) {
    GParamSpec *spec = g_object_class_find_property(klass, name);
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_static_string(&value, "changed");
    klass->set_property(G_OBJECT(one_), spec->param_id, &value, spec);
    g_object_notify_by_pspec(G_OBJECT(one_), spec);
  }
  EXPECT_EQ(managed_objects(), "({" + managed("One", BOTH_DISABLED) + "},)");
}

TEST_F(DBusProducerManagerTest, LeavesOutProducersWhoseNamesCannotEndAPath)
{
  acquire();
  add("Good");
  for (const char *name : {"", "with space", "a/b", "a-b", "a.b", "Türe", "a\nb", "/"}) {
    add(name);
  }
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{not_on_bus(""), not_on_bus("with space"), not_on_bus("a/b"), not_on_bus("a-b"),
                   not_on_bus("a.b"), not_on_bus("T\\303\\274re"), not_on_bus("a\\nb"), not_on_bus("/")}));
  EXPECT_EQ(managed_objects(), "({" + managed("Good", BOTH_DISABLED) + "},)");

  for (const char *name : {"", "with space", "a/b", "a-b", "a.b", "Türe", "a\nb", "/"}) {
    remove(name);
  }
  EXPECT_EQ(set_channels("Good", "[(1, true, 'x')]"), DONE);
}

TEST_F(DBusProducerManagerTest, ChangesProducersWithoutAnObjectThroughTheManager)
{
  acquire();
  AnalyticsProducer *producer = add("a-b");
  EXPECT_EQ(testhost::take_syslog(), SyslogLines{not_on_bus("a-b")});

  EXPECT_EQ(set_producers("{'a-b': [(1, true, 'x')]}"), DONE);
  EXPECT_TRUE(analytics_producer_get_channel_enabled(producer, 1, nullptr));
}

TEST_F(DBusProducerManagerTest, ExportsEveryNameThatCanEndAPath)
{
  const std::string name = "_09azAZ" + std::string(10'000, 'n');
  acquire();
  add(name);

  EXPECT_EQ(get(name, "Name"), "(<'" + name + "'>,)");
}

/* Producers that are removed. */

TEST_F(DBusProducerManagerOneTest, FailsACallWhoseProducerIsRemovedBeforeItsDispatch)
{
  const Arrivals arrivals(service_->connection());
  const Peer::Outcome outcome = tool_->start(set_channels_call("One", "[(1, true, 'x')]"));
  ASSERT_TRUE(arrivals.wait_for(1));

  remove("One");
  ASSERT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); }));
  EXPECT_EQ(**outcome, gone(PRODUCER, path_of("One")));
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerOneTest, FailsACallWhoseProducerIsRemovedBetweenItsChanges)
{
  const Observed observed(one_);
  faults::HeldSync sync;
  const Peer::Outcome outcome =
      start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);
  remove("One");
  EXPECT_TRUE(observed.alive());
  sync.release();

  EXPECT_EQ(wait_for(outcome), gone(PRODUCER, path_of("One")));
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n");
  EXPECT_FALSE(observed.alive());
}

TEST_F(DBusProducerManagerOneTest, CompletesACallWhoseProducerIsRemovedDuringItsLastSave)
{
  const Observed observed(one_);
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  remove("One");
  sync.release();

  EXPECT_EQ(wait_for(outcome), DONE);
  EXPECT_FALSE(observed.alive());
}

TEST_F(DBusProducerManagerOneTest, FailsAQueuedCallWhoseProducerIsReplaced)
{
  const Observed observed(add("Passing"));
  faults::HeldSync sync;
  const Peer::Outcome first = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_channels_call("Passing", "[(1, true, 'y')]"), set_channels_call("One", "[(2, true, 'z')]")});
  remove("Passing");
  add("Passing");
  sync.release();

  EXPECT_EQ(wait_for(first), DONE);
  EXPECT_EQ(wait_for(waiting[0]), gone(PRODUCER, path_of("Passing"))) << "the new producer is another object";
  EXPECT_EQ(wait_for(waiting[1]), DONE);
  EXPECT_FALSE(observed.alive());
  expect_channels("Passing", BOTH_DISABLED);
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n\n[Producers.1.One]\nName=z\n");
}

TEST_F(DBusProducerManagerOneTest, RefusesCallsOfAReleasedProducer)
{
  g_clear_pointer(&producers_, analytics_producer_list_free);

  EXPECT_EQ(
      set_channels("One", "[(1, true, 'x')]"),
      "org.freedesktop.DBus.Error.UnknownMethod: Method SetChannelsEnabled is not implemented on interface "
      "com.quon.MetadataServer1.Producer");
}

TEST_F(DBusProducerManagerTest, ReleasesARemovedProducerThatHasOtherReferences)
{
  acquire();
  g_autoptr(AnalyticsProducer) producer = ANALYTICS_PRODUCER(g_object_ref(add("One")));
  remove("One");
  take_signals();

  EXPECT_EQ(references(producer), 1U);
  EXPECT_EQ(g_signal_has_handler_pending(producer, g_signal_lookup("notify", G_TYPE_OBJECT), 0, TRUE), FALSE);
  analytics_producer_set_channel_enabled(producer, 1, TRUE, "x");
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerOneTest, ExportsAProducerThatIsAddedAgain)
{
  set_channels("One", "[(1, true, 'x')]");
  remove("One");
  add("One", {1});

  expect_channels("One", "[(1, true, 'x')]");
  EXPECT_EQ(set_channels("One", "[(2, true, 'x')]"), NOT_SUPPORTED);
}

/* Start, end and failures. */

TEST_F(DBusProducerManagerTest, HoldsNeitherProducersNorConnectionAfterTearDown)
{
  const guint before = references(service_->connection());
  acquire();
  AnalyticsProducer *producer = add("One");
  const Observed observed(producer);
  set_channels("One", "[(1, true, 'x')]");
  EXPECT_GT(references(service_->connection()), before);

  dbus_producer_manager_teardown();
  testhost::dispatch_ready();
  EXPECT_EQ(references(producer), 1U) << "the list holds it";
  /* The thread of GDBus holds the connection while it sends. */
  EXPECT_TRUE(testhost::spin_until([&] { return references(service_->connection()) == before; }))
      << references(service_->connection()) << " instead of " << before;
  EXPECT_EQ(managed_objects(),
            "org.freedesktop.DBus.Error.UnknownMethod: Object does not exist at path “"s + ROOT + "”");
  EXPECT_EQ(set_channels("One", "[]"),
            "org.freedesktop.DBus.Error.UnknownMethod: Object does not exist at path “" + path_of("One") +
                "”");
  g_clear_pointer(&producers_, analytics_producer_list_free);
  EXPECT_FALSE(observed.alive());
}

TEST_F(DBusProducerManagerOneTest, FailsUndispatchedCallsAtTearDown)
{
  const Arrivals arrivals(service_->connection());
  const Peer::Outcome one = tool_->start(set_channels_call("One", "[(1, true, 'x')]"));
  const Peer::Outcome all = tool_->start(
      method(ROOT, MANAGER, "SetProducersEnabled", parse("(a{sa(ibs)})", "({'One': [(1, true, 'x')]},)")));
  ASSERT_TRUE(arrivals.wait_for(2));

  stop();
  for (const Peer::Outcome &outcome : {one, all}) {
    ASSERT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); }));
    EXPECT_TRUE((*outcome)->starts_with("org.freedesktop.DBus.Error.UnknownMethod: ")) << **outcome;
  }
}

TEST_F(DBusProducerManagerOneTest, FailsQueuedCallsAtTearDown)
{
  const Observed observed(one_);
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_channels_call("One", "[(2, true, 'z')]"), set_producers_call("{'One': [(2, true, 'z')]}")});

  stop();
  EXPECT_FALSE(observed.alive()) << "tear-down does not wait for the disk";
  EXPECT_EQ(wait_for(first), gone(PRODUCER, path_of("One")));
  EXPECT_EQ(wait_for(waiting[0]), gone(PRODUCER, path_of("One")));
  EXPECT_EQ(wait_for(waiting[1]), gone(MANAGER, ROOT));
  sync.release();
  producer_config_free();
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n");
  ASSERT_TRUE(producer_config_setup(file_.c_str()));
}

TEST_F(DBusProducerManagerOneTest, DropsQueuedCallsWhenTheConnectionCloses)
{
  faults::HeldSync sync;
  start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);
  start_behind(
      {set_channels_call("One", "[(2, true, 'z')]"), set_producers_call("{'One': [(2, true, 'z')]}")});
  const Observed connection(service_->connection());

  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
  EXPECT_EQ(references(one_), 1U) << "the list holds it";
  sync.release();
  service_.emplace();
  acquire();
  expect_channels("One", "[(1, true, 'x'), (2, false, '')]");
  EXPECT_EQ(set_channels("One", "[(2, true, 'later')]"), DONE);
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n\n[Producers.1.One]\nName=later\n");
}

TEST_F(DBusProducerManagerTest, TearsDownWithoutABus)
{
  AnalyticsProducer *producer = add("One");

  dbus_producer_manager_teardown();
  EXPECT_EQ(references(producer), 1U);
  dbus_producer_manager_teardown();
}

TEST_F(DBusProducerManagerTest, StartsAgainAfterTearDown)
{
  acquire();
  add("Before");
  stop();
  producers_ = analytics_producer_list_new();
  dbus_producer_manager_init(producers_);
  add("After");
  acquire();

  EXPECT_EQ(managed_objects(), "({" + managed("After", BOTH_DISABLED) + "},)");
}

TEST_F(DBusProducerManagerTest, KeepsItsObjectsWhenItIsInitialisedTwice)
{
  add("One");
  dbus_producer_manager_init(producers_);
  acquire();

  EXPECT_EQ(managed_objects(), "({" + managed("One", BOTH_DISABLED) + "},)");
}

TEST_F(DBusProducerManagerOneTest, ReleasesAConnectionThatCloses)
{
  const Observed connection(service_->connection());

  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));

  service_.emplace();
  add("Two");
  acquire();
  expect_channels("One", BOTH_DISABLED);
  EXPECT_EQ(set_producers("{'One': [(1, true, 'x')], 'Two': [(2, true, 'y')]}"), DONE);
}

TEST_F(DBusProducerManagerTest, IgnoresAClosedConnection)
{
  add("One");
  service_->close();
  const Observed connection(service_->connection());

  acquire();
  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
}

TEST_F(DBusProducerManagerTest, ExportsTheProducersWhenTheManagerCannotBeExported)
{
  g_autoptr(MetadataServer1ProducerManager) other = metadata_server1_producer_manager_skeleton_new();
  ASSERT_TRUE(g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(other), service_->connection(), ROOT,
                                               nullptr));
  add("One");
  acquire();

  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{{LOG_WARNING, "failed to export interface 'com.quon.MetadataServer1.ProducerManager': An "
                                 "object is already exported for the interface "
                                 "com.quon.MetadataServer1.ProducerManager at "
                                 "/com/quon/MetadataServer1/Producers"}}));
  EXPECT_EQ(set_channels("One", "[(1, true, 'x')]"), DONE);
  stop();
  g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(other));
}

TEST_F(DBusProducerManagerTest, RefusesAMethodThatCannotBeConnected)
{
  faults::fail_next_connection_to("handle-set-channels-enabled");
  faults::fail_next_connection_to("handle-set-producers-enabled");
  add("One");
  acquire();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Error connecting callback for SetChannelsEnabled"},
                         {LOG_WARNING, "Error connecting callback for SetProducersEnabled"}}));

  EXPECT_EQ(
      set_channels("One", "[]"),
      "org.freedesktop.DBus.Error.UnknownMethod: Method SetChannelsEnabled is not implemented on interface "
      "com.quon.MetadataServer1.Producer");
  EXPECT_EQ(set_producers("{}"), "org.freedesktop.DBus.Error.UnknownMethod: Method SetProducersEnabled is "
                                 "not implemented on interface "
                                 "com.quon.MetadataServer1.ProducerManager");
  expect_channels("One", BOTH_DISABLED);
}

TEST_F(DBusProducerManagerTest, ChecksItsArguments)
{
  dbus_producer_manager_init(nullptr);
  dbus_producer_manager_on_bus_acquired(nullptr, producers_);
  dbus_producer_manager_on_bus_acquired(service_->connection(), nullptr);
  acquire();
  acquire();
  dbus_producer_manager_teardown();
  acquire();

  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"producers != NULL", "G_IS_DBUS_CONNECTION(connection)", "producers != NULL",
                   "manager_skeleton == NULL", "object_manager != NULL"}));
}

#include "dbusproducermanager.h"

#include "faults.h"
#include "metadataserver1.h"
#include "producerconfig.h"
#include "testbus.h"
#include "testhost.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <sstream>
#include <syslog.h>
#include <thread>
#include <utility>

using testbus::Bus;
using testbus::Peer;
using testhost::Observed;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

constexpr const char *ROOT = "/com/quon/MetadataServer1/Producers";
constexpr const char *PRODUCER = "com.quon.MetadataServer1.Producer";
constexpr const char *MANAGER = "com.quon.MetadataServer1.ProducerManager";
constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char *OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager";

constexpr const char *NOT_SUPPORTED =
    "org.freedesktop.DBus.Error.Failed: Tried to enable/disable producer on non-supported channel";
constexpr const char *NO_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Producer with specified name does not exist";
constexpr const char *NOT_SUPPORTED_ON_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Videochannel is not supported on producer";
constexpr const char *NOT_APPLIED =
    "org.freedesktop.DBus.Error.Failed: Failed to apply configuration to producer";

constexpr const char *TOO_MANY_TUPLES =
    "org.freedesktop.DBus.Error.LimitsExceeded: More than 4096 tuples in one call";
constexpr const char *TOO_MANY_CALLS = "org.freedesktop.DBus.Error.LimitsExceeded: Too many calls wait";

constexpr const char *NAME_TOO_LONG =
    "org.freedesktop.DBus.Error.LimitsExceeded: Configuration name is longer than 256 bytes";

/* The error of a call for an object that has gone. */
std::string
gone(const std::string &interface, const std::string &object)
{
  return "org.freedesktop.DBus.Error.UnknownMethod: No such interface “" + interface +
         "” on object at path " + object;
}

const std::string TOO_LONG(PRODUCER_CONFIG_MAX_NAME_BYTES + 1, 'x');

constexpr const char *DONE = "()";

/* A folder whose files cost no disk's time, where there is one. */
constexpr const char *MEMORY_DIR = "/dev/shm";

using Channels = std::vector<guint32>;

std::string
path_of(const std::string &producer)
{
  return ROOT + "/"s + producer;
}

std::string
repeat(const std::string &text, gsize count)
{
  std::string repeated;

  for (gsize i = 0; i < count; i++) {
    repeated += text;
  }
  return repeated;
}

SyslogLine
not_on_bus(const std::string &name)
{
  return {LOG_WARNING, "producer \"" + name + "\" is not on the bus: its name cannot end an object's path"};
}

/* The value of a type in GVariant's text format, floating. */
GVariant *
parse(const char *type, const std::string &text)
{
  return g_variant_new_parsed(("@"s + type + " " + text).c_str());
}

guint
references(gpointer object)
{
  return G_OBJECT(object)->ref_count;
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

/* Calls @hook at each change of a producer's channels, while this object lives. */
class OnChange
{
public:
  OnChange(AnalyticsProducer *producer, std::function<void()> hook)
      : producer_(ANALYTICS_PRODUCER(g_object_ref(producer))), hook_(std::move(hook)),
        id_(g_signal_connect(producer, "notify::channels-enabled", G_CALLBACK(on_notify), this))
  {
  }

  ~OnChange()
  {
    g_signal_handler_disconnect(producer_, id_);
    g_object_unref(producer_);
  }

  OnChange(const OnChange &) = delete;
  OnChange &operator=(const OnChange &) = delete;

private:
  static void on_notify(AnalyticsProducer *, GParamSpec *, OnChange *self)
  {
    self->hook_();
  }

  AnalyticsProducer *producer_;
  std::function<void()> hook_;
  gulong id_;
};

/* Counts the calls that have arrived at a connection, whether they have been answered or not. */
class Arrivals
{
public:
  explicit Arrivals(GDBusConnection *connection)
      : connection_(connection), id_(g_dbus_connection_add_filter(connection, on_message, this, nullptr))
  {
  }

  ~Arrivals()
  {
    g_dbus_connection_remove_filter(connection_, id_);
  }

  Arrivals(const Arrivals &) = delete;
  Arrivals &operator=(const Arrivals &) = delete;

  /* Dispatches nothing. */
  bool wait_for(unsigned count) const
  {
    const gint64 end = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;

    while (count_ < count && g_get_monotonic_time() < end) {
      std::this_thread::yield();
    }
    return count_ >= count;
  }

private:
  static GDBusMessage *on_message(GDBusConnection *, GDBusMessage *message, gboolean incoming,
                                  gpointer user_data)
  {
    if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
      static_cast<Arrivals *>(user_data)->count_++;
    }
    return message;
  }

  GDBusConnection *connection_;
  guint id_;
  std::atomic<unsigned> count_ = 0;
};

class DBusProducerManagerTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    load(path("producers.conf"));
    producers_ = analytics_producer_list_new();
    dbus_producer_manager_init(producers_);
    bus_.emplace();
    tool_.emplace();
    service_.emplace();
    tool_->listen(service_->name());
  }

  void TearDown() override
  {
    stop();
    service_.reset();
    tool_.reset();
    bus_.reset();
    producer_config_free();
    Fixture::TearDown();
  }

  void load(const std::string &file)
  {
    file_ = file;
    std::ofstream(file_) << "# producers\n";
    ASSERT_TRUE(producer_config_setup(file_.c_str()));
  }

  void acquire()
  {
    dbus_producer_manager_on_bus_acquired(service_->connection(), producers_);
  }

  /* As at the daemon's end. */
  void stop()
  {
    dbus_producer_manager_teardown();
    g_clear_pointer(&producers_, analytics_producer_list_free);
  }

  /* The list alone holds it. */
  AnalyticsProducer *add(const std::string &name, const Channels &channels = {1, 2})
  {
    g_autoptr(GArray) array = g_array_new(FALSE, FALSE, sizeof(guint32));
    g_array_append_vals(array, channels.data(), channels.size());
    g_autoptr(AnalyticsProducer) producer =
        analytics_producer_new(name.c_str(), ("nice " + name).c_str(), ("<" + name + "/>").c_str(), array,
                               ANALYTICS_PRODUCER_EXTERNAL);

    EXPECT_TRUE(analytics_producer_list_add(producers_, producer));
    return producer;
  }

  void remove(const std::string &name)
  {
    analytics_producer_list_remove(producers_, name.c_str());
  }

  Peer::Call method(const std::string &object, const char *interface, const char *name,
                    GVariant *arguments = nullptr) const
  {
    return {service_->name(), object, interface, name, arguments};
  }

  Peer::Call set_channels_call(const std::string &producer, const std::string &channels) const
  {
    return method(path_of(producer), PRODUCER, "SetChannelsEnabled",
                  g_variant_new("(@a(ibs))", parse("a(ibs)", channels)));
  }

  std::string set_channels(const std::string &producer, const std::string &channels) const
  {
    return tool_->call(set_channels_call(producer, channels));
  }

  Peer::Call set_producers_call(const std::string &wanted) const
  {
    return method(ROOT, MANAGER, "SetProducersEnabled",
                  g_variant_new("(@a{sa(ibs)})", parse("a{sa(ibs)}", wanted)));
  }

  std::string set_producers(const std::string &wanted) const
  {
    return tool_->call(set_producers_call(wanted));
  }

  /* Has the first of several calls wait for the disk, and returns when it does. */
  Peer::Outcome start_and_hold(const Peer::Call &call, const faults::HeldSync &sync) const
  {
    Peer::Outcome outcome = tool_->start(call);

    EXPECT_TRUE(testhost::spin_until([&sync] { return sync.is_holding(); }));
    return outcome;
  }

  /* Starts calls that arrive behind one that is worked off. */
  std::vector<Peer::Outcome> start_behind(const std::vector<Peer::Call> &calls)
  {
    const Arrivals arrivals(service_->connection());
    std::vector<Peer::Outcome> outcomes;

    outcomes.reserve(calls.size());
    for (const Peer::Call &call : calls) {
      outcomes.push_back(tool_->start(call));
    }
    EXPECT_TRUE(arrivals.wait_for(calls.size()));
    testhost::dispatch_ready();
    return outcomes;
  }

  static std::string wait_for(const Peer::Outcome &outcome)
  {
    EXPECT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); }));
    return outcome->value_or("nothing");
  }

  std::string get(const std::string &producer, const char *property) const
  {
    return tool_->call(
        method(path_of(producer), PROPERTIES, "Get", g_variant_new("(ss)", PRODUCER, property)));
  }

  std::string channels(const std::string &producer) const
  {
    return get(producer, "ChannelsEnabled");
  }

  std::string managed_objects() const
  {
    return tool_->call(method(ROOT, OBJECT_MANAGER, "GetManagedObjects"));
  }

  /* An interface as the bus shows it. */
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

  /* All signals that were sent until now. */
  Texts take_signals()
  {
    tool_->call(method(ROOT, OBJECT_MANAGER, "GetManagedObjects"));
    return tool_->take_signals();
  }

  std::string content() const
  {
    std::stringstream text;
    text << std::ifstream(file_).rdbuf();
    return text.str();
  }

  /* How often the file is written while @function runs. */
  static gsize saves(const std::function<void()> &function)
  {
    faults::keep_file_calls();
    function();
    return std::ranges::count_if(faults::take_file_calls(),
                                 [](const std::string &call) { return call.starts_with("rename "); });
  }

  AnalyticsProducerList *producers_ = nullptr;
  std::optional<Bus> bus_;
  std::optional<Peer> tool_;
  std::optional<Peer> service_;
  std::string file_;
};

/* What a change of a producer's channels tells everybody. */
std::string
changed(const std::string &producer, const std::string &channels)
{
  return path_of(producer) +
         " org.freedesktop.DBus.Properties.PropertiesChanged ('com.quon.MetadataServer1.Producer', "
         "{'ChannelsEnabled': <" +
         channels + ">}, [])";
}

std::string
managed(const std::string &producer, const std::string &channels)
{
  return "'" + path_of(producer) + "': {'com.quon.MetadataServer1.Producer': {'Name': <'" + producer +
         "'>, 'NiceName': <'nice " + producer + "'>, 'SampleFrameXML': <'<" + producer +
         "/>'>, 'ChannelsEnabled': <" + channels + ">}}";
}

constexpr const char *BOTH_DISABLED = "[(1, false, ''), (2, false, '')]";

} // namespace

/* What there is to see */

TEST_F(DBusProducerManagerTest, ShowsProducersThatWereAddedBeforeTheBusAndAfter)
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

TEST_F(DBusProducerManagerTest, TellsOfProducersThatComeAndGo)
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

TEST_F(DBusProducerManagerTest, AnswersGetAllWithExactlyTheFourProperties)
{
  acquire();
  add("One");

  EXPECT_EQ(tool_->call(method(path_of("One"), PROPERTIES, "GetAll", g_variant_new("(s)", PRODUCER))),
            "({'Name': <'One'>, 'NiceName': <'nice One'>, 'SampleFrameXML': <'<One/>'>, 'ChannelsEnabled': "
            "<[(1, false, ''), (2, false, '')]>},)");
}

TEST_F(DBusProducerManagerTest, RefusesPropertiesThatItDoesNotHave)
{
  acquire();
  add("One");

  EXPECT_EQ(get("One", "Type"), "org.freedesktop.DBus.Error.InvalidArgs: No such property “Type”");
}

TEST_F(DBusProducerManagerTest, RefusesToSetAnyProperty)
{
  acquire();
  add("One");

  for (const char *property : {"Name", "NiceName", "SampleFrameXML", "ChannelsEnabled"}) {
    GVariant *value =
        property == "ChannelsEnabled"s ? parse("a(ibs)", "[(1, true, 'x')]") : g_variant_new_string("x");
    EXPECT_EQ(tool_->call(method(path_of("One"), PROPERTIES, "Set",
                                 g_variant_new("(ssv)", PRODUCER, property, value))),
              "org.freedesktop.DBus.Error.InvalidArgs: Property “"s + property + "” is not writable");
  }
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
}

TEST_F(DBusProducerManagerTest, HasExactlyTheDescribedInterfaces)
{
  acquire();
  add("One");

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

TEST_F(DBusProducerManagerTest, ShowsAProducerThatStartsEnabled)
{
  producer_config_set_name("One", 2, "Türe \"2\"");
  acquire();
  add("One", {3, 2, 1});

  EXPECT_EQ(channels("One"), "(<[(3, false, ''), (2, true, 'Türe \"2\"'), (1, false, '')]>,)");
}

TEST_F(DBusProducerManagerTest, MakesTextsFitForAMessage)
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
TEST_F(DBusProducerManagerTest, KeepsTheTextsOfTheExport)
{
  acquire();
  AnalyticsProducer *producer = add("One");
  auto *klass = G_OBJECT_GET_CLASS(producer);

  for (const char *name : {"name", "nice-name", "sample-frame-xml"}) {
    GParamSpec *spec = g_object_class_find_property(klass, name);
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_static_string(&value, "changed");
    klass->set_property(G_OBJECT(producer), spec->param_id, &value, spec);
    g_object_notify_by_pspec(G_OBJECT(producer), spec);
  }
  EXPECT_EQ(managed_objects(), "({" + managed("One", BOTH_DISABLED) + "},)");
}

TEST_F(DBusProducerManagerTest, LeavesOutProducersWhoseNamesEndNoPath)
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

TEST_F(DBusProducerManagerTest, ChangesProducersThatAreNotOnTheBusThroughTheManager)
{
  acquire();
  AnalyticsProducer *producer = add("a-b");
  EXPECT_EQ(testhost::take_syslog(), SyslogLines{not_on_bus("a-b")});

  EXPECT_EQ(set_producers("{'a-b': [(1, true, 'x')]}"), DONE);
  EXPECT_TRUE(analytics_producer_get_channel_enabled(producer, 1, nullptr));
}

TEST_F(DBusProducerManagerTest, TakesEveryNameThatCanEndAPath)
{
  const std::string name = "_09azAZ" + std::string(10'000, 'n');
  acquire();
  add(name);

  EXPECT_EQ(get(name, "Name"), "(<'" + name + "'>,)");
}

/* SetChannelsEnabled */

TEST_F(DBusProducerManagerTest, EnablesAndDisablesChannels)
{
  acquire();
  AnalyticsProducer *producer = add("One");

  EXPECT_EQ(set_channels("One", "[(2, true, 'left door')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, false, ''), (2, true, 'left door')]>,)");
  EXPECT_TRUE(analytics_producer_get_channel_enabled(producer, 2, nullptr));
  EXPECT_EQ(content(), "[Producers.1.One]\nName=left door\n");

  EXPECT_EQ(set_channels("One", "[(2, false, 'ignored')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, false, ''), (2, false, '')]>,)");
  EXPECT_FALSE(analytics_producer_get_channel_enabled(producer, 2, nullptr));
  EXPECT_EQ(content(), "[Producers.1.One]\nName=\n");

  EXPECT_EQ(take_signals().size(), 3U) << "the object's coming and two changes";
}

TEST_F(DBusProducerManagerTest, TellsEachChangeOnce)
{
  add("One");
  acquire();
  take_signals();

  set_channels("One", "[(1, true, 'a'), (2, true, 'b')]");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'a'), (2, true, 'b')]")}));
  set_channels("One", "[(1, false, '')]");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, false, ''), (2, true, 'b')]")}));
  set_producers("{'One': [(2, true, 'c')]}");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, false, ''), (2, true, 'c')]")}));
}

TEST_F(DBusProducerManagerTest, TellsNothingWhenNothingChanges)
{
  add("One");
  acquire();
  set_channels("One", "[(1, true, 'a')]");
  take_signals();

  EXPECT_EQ(set_channels("One", "[(1, true, 'a')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(2, false, 'b')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(1, false, ''), (1, true, 'a')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(3, true, 'a')]"), NOT_SUPPORTED);
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerTest, SucceedsWithoutAnyChannel)
{
  acquire();
  add("One");

  EXPECT_EQ(saves([this] { EXPECT_EQ(set_channels("One", "[]"), DONE); }), 0U);
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
}

TEST_F(DBusProducerManagerTest, ChangesNothingWhenAChannelIsNotSupported)
{
  acquire();
  add("One");
  take_signals();

  EXPECT_EQ(saves([this] {
              EXPECT_EQ(set_channels("One", "[(1, true, 'x'), (3, true, 'y')]"), NOT_SUPPORTED);
              EXPECT_EQ(set_channels("One", "[(3, false, ''), (1, true, 'x')]"), NOT_SUPPORTED);
            }),
            0U);
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(content(), "# producers\n");
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerTest, LetsTheLastTupleOfAChannelWin)
{
  acquire();
  add("One");

  EXPECT_EQ(
      saves([this] { EXPECT_EQ(set_channels("One", "[(1, true, 'first'), (1, true, 'last')]"), DONE); }), 2U);
  EXPECT_EQ(channels("One"), "(<[(1, true, 'last'), (2, false, '')]>,)");
  EXPECT_EQ(set_channels("One", "[(1, true, 'again'), (1, false, 'gone')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, false, ''), (2, false, '')]>,)");
}

TEST_F(DBusProducerManagerTest, AnswersWhenEveryChangeIsOnDisk)
{
  const Texts two_saves_and_reply = {"open",  "fsync", "close",  "rename", "open",  "fsync", "close", "open",
                                     "fsync", "close", "rename", "open",   "fsync", "close", "reply"};
  acquire();
  add("One");

  for (const auto &set :
       {std::function([this] { return set_channels("One", "[(1, true, 'a'), (2, true, 'b')]"); }),
        std::function([this] { return set_producers("{'One': [(1, true, 'c'), (2, true, 'd')]}"); })}) {
    faults::keep_file_calls();
    EXPECT_EQ(set(), DONE);
    Texts names;
    for (const std::string &call : faults::take_file_calls()) {
      names.push_back(call.substr(0, call.find(' ')));
    }
    EXPECT_EQ(names, two_saves_and_reply);
  }
  EXPECT_EQ(content(), "[Producers.0.One]\nName=c\n\n[Producers.1.One]\nName=d\n");
}

TEST_F(DBusProducerManagerTest, AnswersWhenAChangeCannotBeWritten)
{
  acquire();
  add("One");
  faults::fail_next(faults::Call::FSYNC, 1);

  EXPECT_EQ(set_channels("One", "[(1, true, 'a')]"), DONE);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "could not write name to producerconfig: Failed to "
                                       "sync '" +
                                           dir() + "': Input/output error"}}));
  EXPECT_EQ(channels("One"), "(<[(1, true, 'a'), (2, false, '')]>,)");
}

TEST_F(DBusProducerManagerTest, TakesNoNegativeOrUnknownChannelForASupportedOne)
{
  acquire();
  add("One", {1, 2147483647, 2147483648U, 4294967295U});
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "left out 2 channels above 2147483647 of producer One"}}));

  for (const char *channel : {"-1", "0", "-2147483648", "-2147483647", "2147483646", "2"}) {
    EXPECT_EQ(set_channels("One", "[("s + channel + ", true, 'x')]"), NOT_SUPPORTED) << channel;
    EXPECT_EQ(set_producers("{'One': [("s + channel + ", true, 'x')]}"), NOT_SUPPORTED_ON_PRODUCER)
        << channel;
  }
  EXPECT_EQ(set_channels("One", "[(2147483647, true, 'x')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, false, ''), (2147483647, true, 'x')]>,)");
}

TEST_F(DBusProducerManagerTest, StoresTheLongestNameWhole)
{
  const std::string name = std::string(252, 'x') + "=[]\"";
  ASSERT_EQ(name.size(), PRODUCER_CONFIG_MAX_NAME_BYTES);
  acquire();
  add("One");

  EXPECT_EQ(set_channels("One", "[(1, true, '" + name + "')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, '" + name + "'), (2, false, '')]>,)");
  g_autofree gchar *configured = producer_config_get_name("One", 1);
  EXPECT_EQ(configured, name);
  EXPECT_EQ(set_producers("{'One': [(2, true, '" + name + "')]}"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, '" + name + "'), (2, true, '" + name + "')]>,)");
}

TEST_F(DBusProducerManagerTest, RefusesANameThatIsTooLong)
{
  const std::string characters = repeat("ü", PRODUCER_CONFIG_MAX_NAME_BYTES / 2) + "x";
  ASSERT_EQ(TOO_LONG.size(), PRODUCER_CONFIG_MAX_NAME_BYTES + 1);
  ASSERT_EQ(characters.size(), PRODUCER_CONFIG_MAX_NAME_BYTES + 1) << "what counts is bytes";
  acquire();
  add("One");
  add("Two");
  take_signals();

  EXPECT_EQ(saves([&] {
              for (const std::string &name : {TOO_LONG, characters}) {
                const std::string enable = "(1, true, '" + name + "')";
                EXPECT_EQ(set_channels("One", "[" + enable + "]"), NAME_TOO_LONG);
                EXPECT_EQ(set_channels("One", "[(2, true, 'x'), " + enable + "]"), NAME_TOO_LONG);
                EXPECT_EQ(set_channels("One", "[" + enable + ", (1, false, '')]"), NAME_TOO_LONG);
                EXPECT_EQ(set_producers("{'One': [(1, true, 'x')], 'Two': [" + enable + "]}"), NAME_TOO_LONG);
                EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Two': [(1, true, 'x')]}"), NAME_TOO_LONG);
              }
            }),
            0U);
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(channels("Two"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(content(), "# producers\n");
  EXPECT_EQ(take_signals(), Texts());
}

TEST_F(DBusProducerManagerTest, ReportsEverythingElseBeforeANameThatIsTooLong)
{
  const std::string enable = "(1, true, '" + TOO_LONG + "')";
  acquire();
  add("One");
  add("Two", {2});

  EXPECT_EQ(set_channels("One", "[" + enable + ", (3, false, '')]"), NOT_SUPPORTED);
  EXPECT_EQ(set_channels("One", "[(3, true, '" + TOO_LONG + "')]"), NOT_SUPPORTED);
  EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Nobody': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'Nobody': [" + enable + "]}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'One': [" + enable + "], 'Two': [(1, false, '')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [" + enable + "], 'One': []}"), NOT_SUPPORTED_ON_PRODUCER);
}

TEST_F(DBusProducerManagerTest, IgnoresTheNameInATupleThatDisablesHoweverLongItIs)
{
  acquire();
  add("One");
  set_channels("One", "[(1, true, 'x'), (2, true, 'x')]");

  EXPECT_EQ(set_channels("One", "[(1, false, '" + TOO_LONG + "')]"), DONE);
  EXPECT_EQ(set_producers("{'One': [(2, false, '" + TOO_LONG + "')]}"), DONE);
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(content(), "[Producers.0.One]\nName=\n\n[Producers.1.One]\nName=\n");
}

TEST_F(DBusProducerManagerTest, ShowsALongNameThatStandsInTheFile)
{
  producer_config_free();
  std::ofstream(file_) << "[Producers.0.One]\nName=" + TOO_LONG + "\n";
  ASSERT_TRUE(producer_config_setup(file_.c_str()));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "configuration name longer than 256 bytes in producers.conf: "
                                       "Producers.0.One"}}));
  acquire();
  add("One");
  EXPECT_EQ(channels("One"), "(<[(1, true, '" + TOO_LONG + "'), (2, false, '')]>,)");

  EXPECT_EQ(set_channels("One", "[(2, true, 'x')]"), DONE);
  EXPECT_EQ(set_channels("One", "[(1, true, '" + TOO_LONG + "')]"), NAME_TOO_LONG);
  EXPECT_EQ(channels("One"), "(<[(1, true, '" + TOO_LONG + "'), (2, true, 'x')]>,)");
  remove("One");
  add("One");
  EXPECT_EQ(channels("One"), "(<[(1, true, '" + TOO_LONG + "'), (2, true, 'x')]>,)");
}

TEST_F(DBusProducerManagerTest, TakesAnEmptyNameAsItIs)
{
  acquire();
  add("One");

  EXPECT_EQ(set_channels("One", "[(1, true, '')]"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, ''), (2, false, '')]>,)");
}

TEST_F(DBusProducerManagerTest, RefusesArgumentsOfAnotherType)
{
  acquire();
  add("One");

  for (const char *arguments : {"()", "(1,)", "([(uint32 1, true, 'x')],)", "([(1, true)],)",
                                "([(1, 'x', true)],)", "([(1, true, 'x')], 1)", "(<[(1, true, 'x')]>,)"}) {
    GVariant *parsed = g_variant_new_parsed(arguments);
    const std::string answer = tool_->call(method(path_of("One"), PRODUCER, "SetChannelsEnabled", parsed));
    EXPECT_TRUE(answer.starts_with("org.freedesktop.DBus.Error.InvalidArgs: Type of message, “")) << answer;
  }
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
}

/* SetProducersEnabled */

TEST_F(DBusProducerManagerTest, ChangesSeveralProducers)
{
  acquire();
  add("One");
  add("Two");

  EXPECT_EQ(saves([this] {
              EXPECT_EQ(set_producers("{'One': [(1, true, 'a'), (2, true, 'b')], 'Two': [(2, true, 'c')]}"),
                        DONE);
            }),
            3U);
  EXPECT_EQ(channels("One"), "(<[(1, true, 'a'), (2, true, 'b')]>,)");
  EXPECT_EQ(channels("Two"), "(<[(1, false, ''), (2, true, 'c')]>,)");
}

TEST_F(DBusProducerManagerTest, SucceedsWithoutAnyProducer)
{
  acquire();
  add("One");

  EXPECT_EQ(set_producers("{}"), DONE);
  EXPECT_EQ(set_producers("{'One': []}"), DONE);
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerTest, ChangesNothingForAnUnknownProducer)
{
  acquire();
  add("One");

  EXPECT_EQ(set_producers("{'One': [(1, true, 'a')], 'Two': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'': [(1, true, 'a')]}"), NO_PRODUCER);
  EXPECT_EQ(content(), "# producers\n");
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
}

TEST_F(DBusProducerManagerTest, ChangesNothingForAnUnsupportedChannel)
{
  acquire();
  add("One");
  add("Two", {3});

  EXPECT_EQ(set_producers("{'One': [(1, true, 'a')], 'Two': [(1, true, 'a')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [(1, true, 'a')], 'One': [(1, true, 'a')]}"), NOT_SUPPORTED_ON_PRODUCER);
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerTest, ReportsAnUnknownProducerBeforeAnUnsupportedChannel)
{
  acquire();
  add("One");

  EXPECT_EQ(set_producers("{'One': [(3, true, 'a')], 'Two': []}"), NO_PRODUCER);
  EXPECT_EQ(set_producers("{'Two': [], 'One': [(3, true, 'a')]}"), NO_PRODUCER);
}

TEST_F(DBusProducerManagerTest, AppliesTheSameProducerTwiceInOrder)
{
  acquire();
  add("One");
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa(ibs)}"));
  g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[(1, true, 'first')]"));
  g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[(1, true, 'last')]"));

  EXPECT_EQ(
      tool_->call(method(ROOT, MANAGER, "SetProducersEnabled", g_variant_new("(a{sa(ibs)})", &builder))),
      DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, 'last'), (2, false, '')]>,)");
}

TEST_F(DBusProducerManagerTest, KeepsWhatCouldBeAppliedWhenAProducerGoesMeanwhile)
{
  acquire();
  add("First");
  add("Passing");
  add("Last");
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(
      set_producers_call(
          "{'First': [(1, true, 'a')], 'Passing': [(1, true, 'b')], 'Last': [(1, true, 'c')]}"),
      sync);
  remove("Passing");
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
  EXPECT_EQ(channels("First"), "(<[(1, true, 'a'), (2, false, '')]>,)");
  EXPECT_EQ(channels("Last"), "(<[(1, true, 'c'), (2, false, '')]>,)");
  EXPECT_EQ(content(), "[Producers.0.First]\nName=a\n\n[Producers.0.Last]\nName=c\n");
}

TEST_F(DBusProducerManagerTest, GoesOnWithAProducerThatComesAgainAndSupportsTheChannel)
{
  acquire();
  add("One", {1, 2, 3});
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(
      set_producers_call("{'One': [(1, true, 'a'), (2, true, 'b'), (3, true, 'c'), (1, true, 'd')]}"), sync);
  remove("One");
  add("One", {1, 2});
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
  EXPECT_EQ(channels("One"), "(<[(1, true, 'a'), (2, true, 'b')]>,)");
  EXPECT_EQ(content(), "[Producers.0.One]\nName=a\n\n[Producers.1.One]\nName=b\n");
}

TEST_F(DBusProducerManagerTest, MissesAnEntryWithoutTuplesWhoseProducerGoes)
{
  acquire();
  add("One");
  add("Passing");
  faults::HeldSync sync;
  const Peer::Outcome outcome =
      start_and_hold(set_producers_call("{'One': [(1, true, 'a')], 'Passing': []}"), sync);
  remove("Passing");
  sync.release();

  EXPECT_EQ(wait_for(outcome), NOT_APPLIED);
}

/* Limits of calls */

TEST_F(DBusProducerManagerTest, TakesSoManyTuplesAndNoMore)
{
  ASSERT_EQ(DBUS_PRODUCER_MANAGER_MAX_TUPLES, 4096);
  if (std::filesystem::is_directory(MEMORY_DIR)) {
    producer_config_free();
    load(MEMORY_DIR + "/tessard-"s + std::to_string(getpid()) + ".conf");
  }
  acquire();
  add("One");
  add("Two");
  const auto tuples = [](gint32 count) {
    std::string text;
    for (gint32 i = 1; i <= count; i++) {
      text += (i > 1 ? ", (" : "(") + std::to_string(1 + i % 2) + ", true, '" + std::to_string(i) + "')";
    }
    return text;
  };

  EXPECT_EQ(saves([&] {
              EXPECT_EQ(set_channels("One", "[" + tuples(4097) + "]"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_channels("One", "[" + tuples(4096) + ", (3, true, 'x')]"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'Nobody': [" + tuples(4097) + "]}"), TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'One': [" + tuples(4000) + "], 'Two': [" + tuples(97) + "]}"),
                        TOO_MANY_TUPLES);
              EXPECT_EQ(set_producers("{'One': [" + tuples(4096) + "], 'Two': []}"), TOO_MANY_TUPLES);
            }),
            0U);
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(saves([&] { EXPECT_EQ(set_channels("One", "[" + tuples(4096) + "]"), DONE); }), 4096U);
  EXPECT_EQ(channels("One"), "(<[(1, true, '4096'), (2, true, '4095')]>,)");
  EXPECT_EQ(set_producers("{'One': [" + tuples(4000) + "], 'Two': [" + tuples(96) + "]}"), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, '4000'), (2, true, '3999')]>,)");
  EXPECT_EQ(channels("Two"), "(<[(1, true, '96'), (2, true, '95')]>,)");
  if (file_.starts_with(MEMORY_DIR)) {
    std::filesystem::remove(file_);
  }
}

TEST_F(DBusProducerManagerTest, CountsEntriesWithoutTuples)
{
  acquire();
  add("One");
  const auto call = [this](gsize entries) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa(ibs)}"));
    for (gsize i = 0; i < entries; i++) {
      g_variant_builder_add(&builder, "{s@a(ibs)}", "One", parse("a(ibs)", "[]"));
    }
    return tool_->call(method(ROOT, MANAGER, "SetProducersEnabled", g_variant_new("(a{sa(ibs)})", &builder)));
  };

  EXPECT_EQ(call(DBUS_PRODUCER_MANAGER_MAX_TUPLES), DONE);
  EXPECT_EQ(call(DBUS_PRODUCER_MANAGER_MAX_TUPLES + 1), TOO_MANY_TUPLES);
}

TEST_F(DBusProducerManagerTest, RefusesACallWhenTooManyWait)
{
  acquire();
  add("One");
  faults::HeldSync sync;
  const Peer::Outcome first = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  std::vector<Peer::Call> calls;
  calls.reserve(DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS);
  for (int i = 0; i < DBUS_PRODUCER_MANAGER_MAX_WAITING_CALLS; i++) {
    calls.push_back(i % 2 != 0 ? set_channels_call("One", "[]") : set_producers_call("{}"));
  }
  const std::vector<Peer::Outcome> waiting = start_behind(calls);

  EXPECT_EQ(set_channels("One", "[(2, true, 'y')]"), TOO_MANY_CALLS);
  EXPECT_EQ(set_producers("{'One': [(2, true, 'y')]}"), TOO_MANY_CALLS);
  sync.release();
  EXPECT_EQ(wait_for(first), DONE);
  for (const Peer::Outcome &outcome : waiting) {
    EXPECT_EQ(wait_for(outcome), DONE);
  }
  EXPECT_EQ(channels("One"), "(<[(1, true, 'x'), (2, false, '')]>,)");
  EXPECT_EQ(set_channels("One", "[(2, true, 'y')]"), DONE);
}

TEST_F(DBusProducerManagerTest, RefusesACallWhenTooMuchWaits)
{
  const std::string half(DBUS_PRODUCER_MANAGER_MAX_WAITING_BYTES / 2, 'x');
  const std::string disable = "[(1, false, '" + half + "')]";
  acquire();
  add("One");
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, false, '" + half + half + half + "')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind({set_channels_call("One", disable)});

  EXPECT_EQ(set_channels("One", disable), TOO_MANY_CALLS);
  const std::vector<Peer::Outcome> small = start_behind({set_channels_call("One", "[(2, true, 'x')]")});
  sync.release();
  EXPECT_EQ(wait_for(first), DONE) << "whatever its size";
  EXPECT_EQ(wait_for(waiting[0]), DONE);
  EXPECT_EQ(wait_for(small[0]), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, false, ''), (2, true, 'x')]>,)");
}

/* Calls beside each other, and beside the disk */

TEST_F(DBusProducerManagerTest, ServesOthersWhileTheDiskIsWaitedFor)
{
  acquire();
  AnalyticsProducer *producer = add("One");
  take_signals();
  faults::HeldSync sync;
  const Peer::Outcome outcome =
      start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);

  EXPECT_TRUE(analytics_producer_get_channel_enabled(producer, 1, nullptr)) << "in memory at once";
  EXPECT_FALSE(analytics_producer_get_channel_enabled(producer, 2, nullptr)) << "one after the other";
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)") << "on the bus when all is on disk";
  add("Two");
  EXPECT_EQ(take_signals().size(), 1U) << "the other producer's";
  EXPECT_FALSE(outcome->has_value());

  sync.release();
  EXPECT_EQ(wait_for(outcome), DONE);
  EXPECT_EQ(channels("One"), "(<[(1, true, 'x'), (2, true, 'y')]>,)");
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'x'), (2, true, 'y')]")}));
}

TEST_F(DBusProducerManagerTest, ShowsWhatIsChangedBeforeItAnswersAndTellsAfterwards)
{
  Texts events;
  acquire();
  AnalyticsProducer *producer = add("One");
  take_signals();
  const OnChange on_change(producer, [&events] {
    events.push_back("shown after " + std::to_string(faults::file_calls_size()) + " calls");
  });
  faults::keep_file_calls();
  EXPECT_EQ(set_channels("One", "[(1, true, 'x'), (2, true, 'y')]"), DONE);

  EXPECT_EQ(events, (Texts{"shown after 14 calls"})) << "two saves, and no reply yet";
  EXPECT_EQ(faults::take_file_calls().size(), 15U);
  EXPECT_EQ(take_signals().size(), 1U);
}

TEST_F(DBusProducerManagerTest, WorksOffCallsInTheOrderOfTheirArrival)
{
  acquire();
  add("One");
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, true, 'a'), (2, true, 'a')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_producers_call("{'One': [(1, true, 'b'), (2, true, 'b')]}"),
       set_channels_call("One", "[(3, true, 'x')]"), set_channels_call("One", "[(2, true, 'c')]"),
       set_producers_call("{'Late': [(1, true, 'd')]}"), set_producers_call("{'Nobody': []}")});
  for (const Peer::Outcome &outcome : waiting) {
    EXPECT_FALSE(outcome->has_value());
  }
  add("Late");
  take_signals();
  sync.release();

  EXPECT_EQ(wait_for(waiting.back()), NO_PRODUCER);
  EXPECT_EQ((Texts{wait_for(first), wait_for(waiting[0]), wait_for(waiting[1]), wait_for(waiting[2]),
                   wait_for(waiting[3])}),
            (Texts{DONE, DONE, NOT_SUPPORTED, DONE, DONE}))
      << "each is judged at its turn";
  EXPECT_EQ(take_signals(), (Texts{changed("One", "[(1, true, 'a'), (2, true, 'a')]"),
                                   changed("One", "[(1, true, 'b'), (2, true, 'b')]"),
                                   changed("One", "[(1, true, 'b'), (2, true, 'c')]"),
                                   changed("Late", "[(1, true, 'd'), (2, false, '')]")}));
}

/* Producers that go */

TEST_F(DBusProducerManagerTest, RefusesACallThatWaitsWhileItsProducerGoes)
{
  acquire();
  add("One");
  const Arrivals arrivals(service_->connection());
  const Peer::Outcome outcome = tool_->start(set_channels_call("One", "[(1, true, 'x')]"));
  ASSERT_TRUE(arrivals.wait_for(1));

  remove("One");
  ASSERT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); }));
  EXPECT_EQ(**outcome, gone(PRODUCER, path_of("One")));
  EXPECT_EQ(content(), "# producers\n");
}

TEST_F(DBusProducerManagerTest, EndsACallInTheMiddleWhenItsProducerGoes)
{
  acquire();
  const Observed observed(add("One"));
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

TEST_F(DBusProducerManagerTest, CompletesACallWhoseProducerGoesDuringItsLastSave)
{
  acquire();
  const Observed observed(add("One"));
  faults::HeldSync sync;
  const Peer::Outcome outcome = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  remove("One");
  sync.release();

  EXPECT_EQ(wait_for(outcome), DONE);
  EXPECT_FALSE(observed.alive());
}

TEST_F(DBusProducerManagerTest, RefusesACallInTheLineWhoseProducerGoes)
{
  acquire();
  add("One");
  const Observed observed(add("Passing"));
  faults::HeldSync sync;
  const Peer::Outcome first = start_and_hold(set_channels_call("One", "[(1, true, 'x')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_channels_call("Passing", "[(1, true, 'y')]"), set_channels_call("One", "[(2, true, 'z')]")});
  remove("Passing");
  add("Passing");
  sync.release();

  EXPECT_EQ(wait_for(first), DONE);
  EXPECT_EQ(wait_for(waiting[0]), gone(PRODUCER, path_of("Passing"))) << "the one that came again is another";
  EXPECT_EQ(wait_for(waiting[1]), DONE);
  EXPECT_FALSE(observed.alive());
  EXPECT_EQ(channels("Passing"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n\n[Producers.1.One]\nName=z\n");
}

TEST_F(DBusProducerManagerTest, RefusesCallsOfAProducerThatIsNoMore)
{
  acquire();
  add("One");
  g_clear_pointer(&producers_, analytics_producer_list_free);

  EXPECT_EQ(
      set_channels("One", "[(1, true, 'x')]"),
      "org.freedesktop.DBus.Error.UnknownMethod: Method SetChannelsEnabled is not implemented on interface "
      "com.quon.MetadataServer1.Producer");
}

TEST_F(DBusProducerManagerTest, LetsGoOfAProducerThatSomebodyStillHolds)
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

TEST_F(DBusProducerManagerTest, ShowsAProducerThatComesAgain)
{
  acquire();
  add("One");
  set_channels("One", "[(1, true, 'x')]");
  remove("One");
  add("One", {1});

  EXPECT_EQ(channels("One"), "(<[(1, true, 'x')]>,)");
  EXPECT_EQ(set_channels("One", "[(2, true, 'x')]"), NOT_SUPPORTED);
}

/* Life and failures */

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
  EXPECT_EQ(references(producer), 1U) << "the list's";
  EXPECT_EQ(references(service_->connection()), before);
  EXPECT_EQ(managed_objects(),
            "org.freedesktop.DBus.Error.UnknownMethod: Object does not exist at path “"s + ROOT + "”");
  EXPECT_EQ(set_channels("One", "[]"),
            "org.freedesktop.DBus.Error.UnknownMethod: Object does not exist at path “" + path_of("One") +
                "”");
  g_clear_pointer(&producers_, analytics_producer_list_free);
  EXPECT_FALSE(observed.alive());
}

TEST_F(DBusProducerManagerTest, RefusesACallThatWaitsAtTearDown)
{
  acquire();
  add("One");
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

TEST_F(DBusProducerManagerTest, RefusesCallsInTheLineAtTearDown)
{
  acquire();
  const Observed observed(add("One"));
  faults::HeldSync sync;
  const Peer::Outcome first =
      start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);
  const std::vector<Peer::Outcome> waiting = start_behind(
      {set_channels_call("One", "[(2, true, 'z')]"), set_producers_call("{'One': [(2, true, 'z')]}")});

  stop();
  EXPECT_FALSE(observed.alive()) << "without waiting for the disk";
  EXPECT_EQ(wait_for(first), gone(PRODUCER, path_of("One")));
  EXPECT_EQ(wait_for(waiting[0]), gone(PRODUCER, path_of("One")));
  EXPECT_EQ(wait_for(waiting[1]), gone(MANAGER, ROOT));
  sync.release();
  producer_config_free();
  EXPECT_EQ(content(), "[Producers.0.One]\nName=x\n");
  ASSERT_TRUE(producer_config_setup(file_.c_str()));
}

TEST_F(DBusProducerManagerTest, DropsCallsInTheLineWhenTheConnectionCloses)
{
  acquire();
  AnalyticsProducer *producer = add("One");
  faults::HeldSync sync;
  start_and_hold(set_channels_call("One", "[(1, true, 'x'), (2, true, 'y')]"), sync);
  start_behind(
      {set_channels_call("One", "[(2, true, 'z')]"), set_producers_call("{'One': [(2, true, 'z')]}")});
  const Observed connection(service_->connection());

  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
  EXPECT_EQ(references(producer), 1U) << "the list's";
  sync.release();
  service_.emplace();
  acquire();
  EXPECT_EQ(channels("One"), "(<[(1, true, 'x'), (2, false, '')]>,)");
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

TEST_F(DBusProducerManagerTest, KeepsItsObjectsWhenItIsMadeAgain)
{
  add("One");
  dbus_producer_manager_init(producers_);
  acquire();

  EXPECT_EQ(managed_objects(), "({" + managed("One", BOTH_DISABLED) + "},)");
}

TEST_F(DBusProducerManagerTest, LetsGoOfAConnectionThatCloses)
{
  acquire();
  add("One");
  const Observed connection(service_->connection());

  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));

  service_.emplace();
  add("Two");
  acquire();
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
  EXPECT_EQ(set_producers("{'One': [(1, true, 'x')], 'Two': [(2, true, 'y')]}"), DONE);
}

TEST_F(DBusProducerManagerTest, LeavesAClosedConnectionAlone)
{
  add("One");
  service_->close();
  const Observed connection(service_->connection());

  acquire();
  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
}

TEST_F(DBusProducerManagerTest, ShowsTheProducersWhenTheManagerCannotBeShown)
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

TEST_F(DBusProducerManagerTest, LeavesAMethodUnansweredThatCannotBeConnected)
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
  EXPECT_EQ(
      set_producers("{}"),
      "org.freedesktop.DBus.Error.UnknownMethod: Method SetProducersEnabled is not implemented on interface "
      "com.quon.MetadataServer1.ProducerManager");
  EXPECT_EQ(channels("One"), "(<"s + BOTH_DISABLED + ">,)");
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

/* SPDX-License-Identifier: MIT */
/* The fixture of the tests of the control service: a producer configuration and list, the service's
 * connection to a private bus, and a tool that calls it from there.
 */
#pragma once

#include "analyticsproducerlist.h"
#include "dbusproducermanager.h"
#include "producerconfig.h"

#include "faults.h"
#include "testbus.h"
#include "testhost.h"
#include "testproducers.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testproducermanager
{

constexpr const char *ROOT = "/com/quon/MetadataServer1/Producers";
constexpr const char *PRODUCER = "com.quon.MetadataServer1.Producer";
constexpr const char *MANAGER = "com.quon.MetadataServer1.ProducerManager";
constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";

constexpr const char *DONE = "()";
constexpr const char *NOT_SUPPORTED =
    "org.freedesktop.DBus.Error.Failed: Tried to enable/disable producer on non-supported channel";
constexpr const char *NO_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Producer with specified name does not exist";

constexpr const char *BOTH_DISABLED = "[(1, false, ''), (2, false, '')]";

using testproducers::Channels;
using testproducers::references;

inline std::string
path_of(const std::string &producer)
{
  return std::string(ROOT) + "/" + producer;
}

/* The error of a call for an object that is removed. */
inline std::string
gone(const std::string &interface, const std::string &object)
{
  return "org.freedesktop.DBus.Error.UnknownMethod: No such interface “" + interface +
         "” on object at path " + object;
}

/* A value of this type in GVariant's text format, floating. */
inline GVariant *
parse(const char *type, const std::string &text)
{
  return g_variant_new_parsed(("@" + std::string(type) + " " + text).c_str());
}

/* The signal of a change of a producer's channels. */
inline std::string
changed(const std::string &producer, const std::string &channels)
{
  return path_of(producer) +
         " org.freedesktop.DBus.Properties.PropertiesChanged ('com.quon.MetadataServer1.Producer', "
         "{'ChannelsEnabled': <" +
         channels + ">}, [])";
}

/* A producer in the reply of GetManagedObjects. */
inline std::string
managed(const std::string &producer, const std::string &channels)
{
  return "'" + path_of(producer) + "': {'com.quon.MetadataServer1.Producer': {'Name': <'" + producer +
         "'>, 'NiceName': <'nice " + producer + "'>, 'SampleFrameXML': <'<" + producer +
         "/>'>, 'ChannelsEnabled': <" + channels + ">}}";
}

/* Counts the calls that arrive at a connection. */
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

  /* Dispatches nothing. FALSE when the calls do not arrive within the bound. */
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

/* The service is not on the bus, and the list is empty. */
class Fixture : public testbus::Fixture
{
protected:
  void SetUp() override
  {
    testbus::Fixture::SetUp();
    load(path("producers.conf"));
    producers_ = analytics_producer_list_new();
    dbus_producer_manager_init(producers_);
    tool_.emplace();
    service_.emplace();
    tool_->listen(service_->name());
  }

  void TearDown() override
  {
    stop();
    service_.reset();
    tool_.reset();
    producer_config_free();
    testbus::Fixture::TearDown();
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

  /* Only the list holds the producer. */
  AnalyticsProducer *add(const std::string &name, const Channels &channels = {1, 2})
  {
    g_autoptr(AnalyticsProducer) producer = testproducers::make_producer(name, channels);

    EXPECT_TRUE(analytics_producer_list_add(producers_, producer));
    return producer;
  }

  void remove(const std::string &name)
  {
    analytics_producer_list_remove(producers_, name.c_str());
  }

  testbus::Peer::Call method(const std::string &object, const char *interface, const char *name,
                             GVariant *arguments = nullptr) const
  {
    return {service_->name(), object, interface, name, arguments};
  }

  testbus::Peer::Call set_channels_call(const std::string &producer, const std::string &channels) const
  {
    return method(path_of(producer), PRODUCER, "SetChannelsEnabled",
                  g_variant_new("(@a(ibs))", parse("a(ibs)", channels)));
  }

  std::string set_channels(const std::string &producer, const std::string &channels) const
  {
    return tool_->call(set_channels_call(producer, channels));
  }

  testbus::Peer::Call set_producers_call(const std::string &wanted) const
  {
    return method(ROOT, MANAGER, "SetProducersEnabled",
                  g_variant_new("(@a{sa(ibs)})", parse("a{sa(ibs)}", wanted)));
  }

  std::string set_producers(const std::string &wanted) const
  {
    return tool_->call(set_producers_call(wanted));
  }

  /* Starts a call, and returns when its first save waits for the disk. */
  testbus::Peer::Outcome start_and_hold(const testbus::Peer::Call &call, const faults::HeldSync &sync) const
  {
    testbus::Peer::Outcome outcome = tool_->start(call);

    EXPECT_TRUE(testhost::spin_until([&sync] { return sync.is_holding(); }));
    return outcome;
  }

  /* Starts calls, and returns when they are queued behind the current one. */
  std::vector<testbus::Peer::Outcome> start_behind(const std::vector<testbus::Peer::Call> &calls)
  {
    const Arrivals arrivals(service_->connection());
    std::vector<testbus::Peer::Outcome> outcomes;

    outcomes.reserve(calls.size());
    for (const testbus::Peer::Call &call : calls) {
      outcomes.push_back(tool_->start(call));
    }
    EXPECT_TRUE(arrivals.wait_for(calls.size()));
    testhost::dispatch_ready();
    return outcomes;
  }

  static std::string wait_for(const testbus::Peer::Outcome &outcome)
  {
    EXPECT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); }));
    return outcome->value_or("nothing");
  }

  std::string get(const std::string &producer, const char *property) const
  {
    return tool_->call(
        method(path_of(producer), PROPERTIES, "Get", g_variant_new("(ss)", PRODUCER, property)));
  }

  void expect_channels(const std::string &producer, const std::string &channels) const
  {
    EXPECT_EQ(get(producer, "ChannelsEnabled"), "(<" + channels + ">,)");
  }

  std::string managed_objects() const
  {
    return tool_->call(method(ROOT, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"));
  }

  /* All signals that were sent until now. */
  testhost::Texts take_signals()
  {
    managed_objects();
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
  std::optional<testbus::Peer> tool_;
  std::optional<testbus::Peer> service_;
  std::string file_;
};

/* The service is on the bus, with a producer "One" of the channels 1 and 2, which are disabled. */
class FixtureWithOne : public Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    acquire();
    one_ = add("One");
    take_signals();
  }

  AnalyticsProducer *one_ = nullptr; /* the list's */
};

} // namespace testproducermanager

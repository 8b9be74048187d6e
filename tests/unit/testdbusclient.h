/* SPDX-License-Identifier: MIT */
/* The client of the metadata receiver with its list, a receiver and a bus of its own. */
#pragma once

#include "dbusclient.h"

#include "logtext.h"
#include "producerconfig.h"
#include "ratelimitedlog.h"
#include "systembus.h"
#include "testbus.h"
#include "testconverter.h"
#include "testhost.h"
#include "testreceiver.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>

constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers/";
constexpr const char *NOT_FOUND = "tried to find a dbus object for producer which did not exist";
constexpr const char *REFUSED = "GDBus.Error:com.quon.Test.Error: No.";

inline testhost::SyslogLine
warning(const std::string &text)
{
  return {LOG_WARNING, text};
}

inline testhost::SyslogLine
left_out(const std::string &element, const std::string &reason)
{
  return warning("left out producer object " + (ROOT + element) + ": " + reason);
}

/* A line with the count of those that the rate limit suppressed before it. */
inline testhost::SyslogLine
with_count(const testhost::SyslogLine &line, guint count)
{
  return {line.priority, line.text + " (" + std::to_string(count) + " more since the last such line)"};
}

inline testreceiver::Object
with_sample_frame(const std::string &name, testbus::Answer answer)
{
  testreceiver::Object object = testreceiver::producer(name);

  object.sample_frame = std::move(answer);
  return object;
}

inline testreceiver::Object
with_stream(const std::string &name, testbus::Answer answer)
{
  testreceiver::Object object = testreceiver::producer(name);

  object.stream_fd = std::move(answer);
  return object;
}

/* A client's request for a stream. */
struct StreamClient {
  testhost::Texts calls; /* "on_fd NAME" and "free", in their order */
  gint fd = -2;
  std::thread::id thread;
  GCancellable *cancellable = g_cancellable_new();

  StreamClient() = default;
  StreamClient(const StreamClient &) = delete;
  StreamClient &operator=(const StreamClient &) = delete;

  ~StreamClient()
  {
    g_object_unref(cancellable);
    if (fd >= 0) {
      close(fd);
    }
  }

  bool connect(const char *producer, gint channel = 1)
  {
    return dbus_client_connect_producer(producer, "front door", channel, cancellable, on_fd, this, on_free) !=
           FALSE;
  }

  bool is_done() const
  {
    return !calls.empty() && calls.back() == "free";
  }

  void expect_end(const testhost::Texts &expected) const
  {
    EXPECT_TRUE(testhost::spin_until([this] { return is_done(); }));
    EXPECT_EQ(calls, expected);
  }

  static void on_fd(gint fd, const gchar *source_name, gpointer user_data)
  {
    auto *self = static_cast<StreamClient *>(user_data);

    self->fd = fd;
    self->thread = std::this_thread::get_id();
    self->calls.push_back(std::string("on_fd ") + source_name);
  }

  static void on_free(gpointer user_data)
  {
    static_cast<StreamClient *>(user_data)->calls.emplace_back("free");
  }
};

class DbusClientTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testbus::install();
    testconverter::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    std::ofstream(path("producers.conf")) << "# none\n";
    ASSERT_TRUE(producer_config_setup(path("producers.conf").c_str()));
    producers_ = analytics_producer_list_new();
    bus_.emplace();
    receiver_.emplace();
  }

  void TearDown() override
  {
    testconverter::set_behaviour(testconverter::Behaviour::CONVERT);
    dbus_client_teardown();
    receiver_.reset();
    close_bus();
    producer_config_free();
    Fixture::TearDown();
    testconverter::take_inputs();
    analytics_producer_list_free(producers_);
  }

  /* Closes the bus and waits until all references to the connection are gone. */
  void close_bus()
  {
    std::optional<testhost::Observed> connection;
    {
      g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
      if (shared != nullptr) {
        connection.emplace(shared);
      }
    }
    bus_.reset();
    EXPECT_TRUE(
        testhost::spin_until([&connection] { return !connection.has_value() || !connection->alive(); }));
  }

  /* Dispatches all signals that the receiver has sent: they arrive before the reply to another call. */
  static void receive_all_signals()
  {
    g_autoptr(GDBusConnection) shared = system_bus_get(nullptr, nullptr);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(shared, "com.quon.MetadataReceiver1", "/", "com.quon.Other1", "Anything",
                                    nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);

    EXPECT_STREQ(error != nullptr ? error->message : "", REFUSED);
    testhost::dispatch_ready();
  }

  void start()
  {
    dbus_client_init(producers_);
  }

  /* The names of the listed producers, sorted. */
  testhost::Texts listed() const
  {
    testhost::Texts names;

    analytics_producer_list_foreach(
        producers_,
        [](AnalyticsProducer *producer, gpointer user_data) {
          g_autofree gchar *name = nullptr;
          g_object_get(producer, "name", &name, nullptr);
          static_cast<testhost::Texts *>(user_data)->emplace_back(name);
        },
        &names);
    std::sort(names.begin(), names.end());
    return names;
  }

  /* Adds a producer, starts, and waits until it is listed. */
  void start_with(const std::string &name, const testreceiver::Object &object)
  {
    receiver_->add(name, object);
    start();
    expect_listed({name});
  }

  void start_with(const std::string &name)
  {
    start_with(name, testreceiver::producer(name));
  }

  /* The same with the producer "Faces" and its answer to requests for its stream. */
  void start_with_stream(testbus::Answer answer)
  {
    start_with("Faces", with_stream("Faces", std::move(answer)));
  }

  /* Waits until @count calls wait for a reply. */
  void wait_until_held(gsize count)
  {
    ASSERT_TRUE(testhost::spin_until([&] { return receiver_->held() == count; }));
  }

  void expect_xml(const char *name, const char *expected) const
  {
    g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(producers_, name);
    g_autofree gchar *xml = nullptr;

    g_object_get(producer, "sample-frame-xml", &xml, nullptr);
    EXPECT_STREQ(xml, expected);
  }

  void expect_listed(const testhost::Texts &names) const
  {
    EXPECT_TRUE(testhost::spin_until([&] { return listed() == names; })) << testing::PrintToString(listed());
  }

  static void expect_lines(const testhost::SyslogLines &lines)
  {
    EXPECT_TRUE(testhost::spin_until([&] { return testhost::syslog_size() >= lines.size(); }));
    EXPECT_EQ(testhost::take_syslog(), lines);
  }

  /* Adds one more producer. When it is listed, everything before it has been handled. */
  void expect_listed_after_another(const testhost::Texts &names)
  {
    testhost::Texts all = names;

    receiver_->add("Zebras");
    all.emplace_back("Zebras");
    expect_listed(all);
  }

  AnalyticsProducerList *producers_ = nullptr;
  std::optional<testbus::Bus> bus_;
  std::optional<testreceiver::Receiver> receiver_;
};

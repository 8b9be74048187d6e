/* SPDX-License-Identifier: MIT */
/* The server with a socket in the test's own folder, its clients and its factories. */
#pragma once

#include "server.h"

#include "eventsourcefactory.h"
#include "ratelimitedlog.h"
#include "testclient.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <syslog.h>
#include <vector>

constexpr gint64 SHORT_US = 50 * G_TIME_SPAN_MILLISECOND;
constexpr gint64 BACKOFF_US = SERVER_ACCEPT_BACKOFF_MS * G_TIME_SPAN_MILLISECOND;

/* How many requests are handled at once. */
constexpr int HANDLED = 2;

constexpr const char *NO_METADATA = "FAIL\nBad request, no metadata can be produced.";
constexpr const char *NOT_CREATED = "FAIL\nCould not create metadata, Internal server error.";
constexpr const char *NOT_PRODUCED = "FAIL\nCould not produce metadata, Internal server error.";

/* Blocks the threads that enter until the test opens it. */
class Gate
{
public:
  void enter()
  {
    std::unique_lock guard(lock_);
    entered_++;
    opened_.wait(guard, [this] { return open_ || passes_ > 0; });
    passes_ -= open_ ? 0 : 1;
  }

  void let_one_in()
  {
    std::lock_guard guard(lock_);
    passes_++;
    opened_.notify_one();
  }

  void open()
  {
    std::lock_guard guard(lock_);
    open_ = true;
    opened_.notify_all();
  }

  int entered()
  {
    std::lock_guard guard(lock_);
    return entered_;
  }

private:
  std::mutex lock_;
  std::condition_variable opened_;
  bool open_ = false;
  int passes_ = 0;
  int entered_ = 0;
};

class ServerTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
  }

  void SetUp() override
  {
    Fixture::SetUp();
    server_ = TESSARD_SERVER(g_object_new(server_get_type(), "run-dir", dir().c_str(), nullptr));
    testelements::set_event_source_behaviour(testelements::Behaviour::ONE_BUFFER);
  }

  void TearDown() override
  {
    const testhost::Observed observed(server_);
    if (server_ != nullptr) {
      server_stop(server_);
      g_clear_object(&server_);
    }
    EXPECT_FALSE(observed.alive());
    testelements::take_filters();
    testelements::take_sent_events();
    rate_limited_log_flush();
    EXPECT_EQ(take_syslog_but_shortages(), testhost::SyslogLines());
    Fixture::TearDown();
  }

  void add_factory(CreateSource create_source)
  {
    g_autoptr(TestFactory) factory = test_factory_new(std::move(create_source));

    server_register_source_factory(server_, SOURCE_FACTORY(factory));
  }

  /* Adds a factory whose calls enter the gate and make no source. */
  void add_gated_factory(Gate &gate)
  {
    add_factory([&gate](GHashTable *, GError **) {
      gate.enter();
      return nullptr;
    });
  }

  /* Adds a factory that makes a source, which @observed then shows. */
  void add_observed_factory(std::optional<testhost::Observed> *observed)
  {
    add_factory([observed](GHashTable *, GError **) {
      GstElement *source = testelements::make_source(testelements::Behaviour::ONE_BUFFER);
      observed->emplace(source);
      return source;
    });
  }

  void add_event_factory()
  {
    g_autoptr(EventSourceFactory) factory = event_source_factory_new();

    server_register_source_factory(server_, SOURCE_FACTORY(factory));
  }

  void start_with_events()
  {
    add_event_factory();
    ASSERT_TRUE(server_start(server_));
  }

  std::string socket_path() const
  {
    return path("metadata");
  }

  bool socket_exists() const
  {
    return g_file_test(socket_path().c_str(), G_FILE_TEST_EXISTS);
  }

  Client connect() const
  {
    return Client::connect_to(socket_path());
  }

  /* A client that has sent @bytes, which the server has read. */
  Client connect_and_send(const std::string &bytes) const
  {
    Client client = connect();

    EXPECT_TRUE(client.send(bytes));
    testhost::dispatch_ready();
    return client;
  }

  /* A client that has its reply and the first document. */
  Client connect_streaming() const
  {
    Client client = connect();

    EXPECT_TRUE(client.send("OPEN\nevent=1\n\n"));
    EXPECT_EQ(client.wait_for_reply(), "OK");
    EXPECT_TRUE(testhost::spin_until(
        [&client] { return client.received().find(testelements::DOCUMENT_TEXT) != std::string::npos; }));
    return client;
  }

  /* Clients that have sent nothing or, every second one, the beginning of a request. */
  std::vector<Client> connect_unfinished(int count, const std::string &beginning = "OPEN\n") const
  {
    std::vector<Client> clients;

    for (int i = 0; i < count; i++) {
      clients.push_back(connect_and_send(i % 2 == 0 ? "" : beginning));
    }
    return clients;
  }

  /* Clients whose requests occupy the threads of the pool while the gate of their factory is closed. */
  std::vector<Client> enter(Gate &gate, int count = HANDLED) const
  {
    std::vector<Client> clients;

    for (int i = 0; i < count; i++) {
      clients.push_back(connect());
      EXPECT_TRUE(clients.back().send("OPEN\n\n"));
      EXPECT_TRUE(testhost::spin_until([&] { return gate.entered() == i + 1; }));
    }
    return clients;
  }

  /* The reply to a request whose connection the server ends. */
  std::string ask(const std::string &request) const
  {
    Client client = connect();

    EXPECT_TRUE(client.send(request));
    const std::string reply = client.wait_for_reply();
    EXPECT_TRUE(client.wait_for_end());
    EXPECT_EQ(client.received().size(), reply.size() + 1);
    return reply;
  }

  /* Expects that the server accepts and handles a request. */
  void expect_serving() const
  {
    EXPECT_EQ(ask("OPEN\n\n"), NO_METADATA);
  }

  static void expect_no_metadata(std::vector<Client> *clients)
  {
    for (Client &client : *clients) {
      EXPECT_EQ(client.wait_for_reply(), NO_METADATA);
      EXPECT_TRUE(client.wait_for_end());
    }
  }

  static bool is_shortage_warning(const testhost::SyslogLine &line)
  {
    return line.priority == LOG_WARNING &&
           line.text.starts_with("Too few free file descriptors, refused a metadata request.");
  }

  /* The log's lines without the warnings about a shortage, which are rate-limited over all tests. */
  static testhost::SyslogLines take_syslog_but_shortages()
  {
    testhost::SyslogLines lines = testhost::take_syslog();

    std::erase_if(lines, is_shortage_warning);
    return lines;
  }

  Server *server_ = nullptr;
};

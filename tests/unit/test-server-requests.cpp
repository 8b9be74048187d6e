/* SPDX-License-Identifier: MIT */
#include "testserver.h"

#include "clientrecord.h"
#include "faults.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gio/gio.h>
#include <unistd.h>

using testelements::Behaviour;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

/* More bytes than one read returns, and fewer than a socket holds. */
constexpr gsize MORE_BYTES = 20'000;

struct Exchange {
  const char *name;
  std::string request;
  std::string reply;
};

std::ostream &
operator<<(std::ostream &stream, const Exchange &exchange)
{
  return stream << exchange.name;
}

class ServerReplyTest : public ServerTest, public testing::WithParamInterface<Exchange>
{
};

/* A factory's error. */
struct Failure {
  const char *name;
  void (*fail)(GError **error);
  const char *reply;
  SyslogLines lines;
};

std::ostream &
operator<<(std::ostream &stream, const Failure &failure)
{
  return stream << failure.name;
}

const std::vector<Failure> FAILURES = {
    {"FactoryError",
     [](GError **error) { source_factory_fail(error, source_factory_error_quark(), "No head to turn"); },
     "FAIL\nUnable to create source: No head to turn.",
     {{LOG_WARNING, "No head to turn"}}},
    /* The server logs the shortage. */
    {"TooFewDescriptors",
     [](GError **error) {
       g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "None left");
     },
     NOT_CREATED,
     {}},
};

class ServerFailureTest : public ServerTest, public testing::WithParamInterface<Failure>
{
};

} // namespace

/* Replies. */

TEST_P(ServerReplyTest, IsFollowedByNulAndTheEnd)
{
  start_with_events();

  EXPECT_EQ(ask(GetParam().request), GetParam().reply);
  testhost::take_syslog();
}

/* The bytes behind a request are not read. */
TEST_P(ServerReplyTest, IsFollowedByTheEndWhenMoreBytesFollowTheRequest)
{
  start_with_events();

  EXPECT_EQ(ask(GetParam().request + std::string(MORE_BYTES, 'x')), GetParam().reply);
  testhost::take_syslog();
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ServerReplyTest,
    testing::Values(Exchange{"UnknownRequest", "CLOSE\n", "FAIL\nUnknown: request: CLOSE\n (6)"},
                    Exchange{"UnknownRequestWithCarriageReturn", "OPEN\r\nevent=1\n\n",
                             "FAIL\nUnknown: request: OPEN\r\n (6)"},
                    Exchange{"HeaderLine", "OPEN\nevent\n", "FAIL\nUnable to parse header line: event."},
                    Exchange{"EmptyHeaderLine", "OPEN\n\r\n", "FAIL\nUnable to parse header line: ."},
                    Exchange{"NoParameters", "OPEN\n\n", NO_METADATA},
                    Exchange{"NoMetadata", "OPEN\nevent=0\n\n", NO_METADATA},
                    /* docs/compatibility.md, "two full stops". */
                    Exchange{"SourceError", "OPEN\nevent=yes\n\n",
                             "FAIL\nUnable to create source: Invalid value of 'event' parameter: 'yes'.."}),
    [](const auto &exchange) { return std::string(exchange.param.name); });

TEST_F(ServerTest, RepliesWhenTheRequestEndsEarly)
{
  ASSERT_TRUE(server_start(server_));

  for (const auto &[request, reply] :
       {std::pair(""s, "FAIL\nCould not read request from client socket: "s),
        std::pair("OPEN\na=b\n"s, "FAIL\nCould not read request header from socket: "s)}) {
    Client client = connect();
    ASSERT_TRUE(client.send(request));
    client.half_close();
    EXPECT_EQ(client.wait_for_reply(), reply);
    EXPECT_TRUE(client.wait_for_end());
  }
}

TEST_F(ServerTest, ReleasesClientsThatHangUpBeforeTheReply)
{
  start_with_events();

  for (const char *request : {"", "OPEN\n", "CLOSE\n", "OPEN\n\n", "OPEN\nevent\n\n"}) {
    Client client = connect();
    ASSERT_TRUE(client.send(request));
    client.hang_up();
  }
  expect_serving();
}

TEST_F(ServerTest, RefusesARequestThatIsTooLong)
{
  ASSERT_TRUE(server_start(server_));
  Client client = connect();

  ASSERT_TRUE(client.send("OPEN\na=" + std::string(SERVER_MAX_REQUEST_BYTES + MORE_BYTES, 'x')));
  EXPECT_EQ(client.wait_for_reply(), "FAIL\nCould not read request header from socket: Request longer than " +
                                         std::to_string(SERVER_MAX_REQUEST_BYTES) + " bytes");
  EXPECT_TRUE(client.wait_for_end());
}

/* The server closes while the client sends, at a different moment in each round. */
TEST_F(ServerTest, RefusesAClientThatSendsWithoutEnd)
{
  constexpr int ROUNDS = 100;
  ASSERT_TRUE(server_start(server_));

  for (int i = 0; i < ROUNDS; i++) {
    Client client = connect();
    while (client.send("OPEN\nwrong\n")) {
      testhost::dispatch_ready();
    }
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nUnable to parse header line: wrong.");
    EXPECT_TRUE(client.wait_for_end());
  }
}

TEST_F(ServerTest, AcceptsTheLongestRequest)
{
  std::atomic<gsize> length = 0;
  add_factory([&](GHashTable *params, GError **) {
    length = strlen(static_cast<gchar *>(g_hash_table_lookup(params, "a")));
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\na=" + std::string(SERVER_MAX_REQUEST_BYTES - strlen("OPEN\na=\n\n"), 'x') + "\n\n"),
            NO_METADATA);
  EXPECT_EQ(length, SERVER_MAX_REQUEST_BYTES - strlen("OPEN\na=\n\n"));
}

TEST_F(ServerTest, TimesOutASlowRequest)
{
  constexpr unsigned DIVISOR = 100;
  const std::string milliseconds = std::to_string(SERVER_REQUEST_TIMEOUT_MS / DIVISOR);
  ASSERT_TRUE(server_start(server_));
  faults::divide_request_time(DIVISOR);
  Client silent = connect();
  Client slow = connect();
  ASSERT_TRUE(slow.send("OPEN\nevent"));

  EXPECT_EQ(silent.wait_for_reply(),
            "FAIL\nCould not read request from client socket: Request not complete within " + milliseconds +
                " ms");
  EXPECT_EQ(slow.wait_for_reply(),
            "FAIL\nCould not read request header from socket: Request not complete within " + milliseconds +
                " ms");
  faults::divide_request_time(1);
  expect_serving();
}

TEST_F(ServerTest, RepliesWhenTheEncodingCannotBeSet)
{
  ASSERT_TRUE(server_start(server_));
  faults::fail_next(faults::Call::IO_CHANNEL_SET_ENCODING);

  EXPECT_EQ(ask("OPEN\n\nSYNC\n"), "FAIL\nInternal error: Could not set encoding.");
}

TEST_F(ServerTest, RepliesWhenThereIsNoManager)
{
  GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
  const testhost::Observed observed(source);
  add_factory([&](GHashTable *, GError **) { return source; });
  ASSERT_TRUE(server_start(server_));
  faults::fail_next(faults::Call::CONNECTION_MANAGER_NEW);

  EXPECT_EQ(ask("OPEN\n\nSYNC\n"), NOT_CREATED);
  EXPECT_FALSE(observed.alive());
}

TEST_F(ServerTest, RepliesWhenThePipelineCannotBePrepared)
{
  start_with_events();
  const testelements::WithoutFactory without("gdppay");

  EXPECT_EQ(ask("OPEN\nevent=1\n\nSYNC\n"), NOT_PRODUCED);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_ERR, "Could not create gdppay."}}));
}

TEST_F(ServerTest, RepliesWhenASourceDoesNotStart)
{
  start_with_events();
  testelements::set_event_source_behaviour(Behaviour::START_STATE_FAILS);

  EXPECT_EQ(ask("OPEN\nevent=1\n\nSYNC\n"), NOT_PRODUCED);
}

/* The reply cannot be written, and the descriptor is closed, when the reply's channel is released. */
TEST_F(ServerTest, ReleasesAClientThatHangsUpDuringPrepare)
{
  start_with_events();
  for (const Behaviour behaviour : {Behaviour::SILENT, Behaviour::ONE_BUFFER, Behaviour::START_STATE_FAILS}) {
    testelements::set_event_source_behaviour(behaviour);
    testelements::take_filters();
    Client client = connect();
    ASSERT_TRUE(client.send("OPEN\nevent=1\nevent_topic=x\n\n"));
    ASSERT_TRUE(testhost::spin_until([] { return !testelements::take_filters().empty(); }));
    client.hang_up();
  }
  testelements::set_event_source_behaviour(Behaviour::ONE_BUFFER);
  connect_streaming();
}

TEST_F(ServerTest, RepliesOkAndStreams)
{
  start_with_events();
  Client client = connect_streaming();

  EXPECT_EQ(client.received().substr(0, 3), "OK\0"s);
  EXPECT_FALSE(client.ended());
}

TEST_F(ServerTest, RecordsItsClients)
{
  start_with_events();
  {
    Client client = connect_streaming();
    ClientTotals totals = {};
    g_autoptr(GPtrArray) clients = client_record_list(&totals);
    ASSERT_EQ(clients->len, 1U);
    const auto *shown = static_cast<ClientSnapshot *>(g_ptr_array_index(clients, 0));
    EXPECT_EQ(shown->pid, getpid());
    EXPECT_EQ(shown->uid, getuid());
    EXPECT_TRUE(shown->is_streaming);
    EXPECT_STREQ(static_cast<const gchar *>(g_hash_table_lookup(shown->request, "event")), "1");
    EXPECT_EQ(shown->documents, 1U);
    EXPECT_EQ(shown->bytes, strlen(testelements::DOCUMENT_TEXT));
  }
  EXPECT_TRUE(testhost::spin_until([] {
    ClientTotals totals = {};
    g_autoptr(GPtrArray) clients = client_record_list(&totals);
    return clients->len == 0;
  }));
}

TEST_F(ServerTest, RecordsNoRefusedClient)
{
  start_with_events();
  ClientTotals totals = {};

  EXPECT_EQ(ask("OPEN\n\n"), NO_METADATA);
  EXPECT_EQ(ask("OPEN\nevent=9\n\n"),
            "FAIL\nUnable to create source: Invalid value of 'event' parameter: '9'..");
  testhost::take_syslog();
  g_autoptr(GPtrArray) clients = client_record_list(&totals);
  EXPECT_EQ(clients->len, 0U);
}

TEST_F(ServerTest, ReadsASyncLineSentWithTheRequestAsPartOfTheStream)
{
  start_with_events();
  Client client = connect();

  ASSERT_TRUE(client.send("OPEN\nevent=1\n\nSYNC\n"));
  EXPECT_EQ(client.wait_for_reply(), "OK");
  /* The line is read before or after the start. */
  EXPECT_TRUE(testhost::spin_until(
      [] { return testhost::glib_messages_size() + testelements::sent_events_size() > 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions().size() + testelements::take_sent_events().size(), 1U);
}

/* The hook runs when the client has its "OK" and the stream has not started. */
TEST_F(ServerTest, KeepsASyncLineSentBetweenReplyAndStart)
{
  start_with_events();
  Client client = connect();
  std::atomic<bool> hooked = false;
  faults::after_next_flush([&] {
    EXPECT_EQ(client.received(), "OK\0"s);
    EXPECT_EQ(client.send_some("SYNC\n"), 5U);
    const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
    while (client.unread() > 0 && g_get_monotonic_time() < end_us) {
      g_thread_yield();
    }
    EXPECT_EQ(client.unread(), 0U);
    hooked = true;
  });

  ASSERT_TRUE(client.send("OPEN\nevent=1\n\n"));
  ASSERT_TRUE(testhost::spin_until([&] { return hooked.load(); }));
  EXPECT_TRUE(testhost::spin_until([] { return testelements::sent_events_size() > 0; }));
  EXPECT_EQ(testelements::take_sent_events().size(), 1U);
}

TEST_F(ServerTest, LeavesTheConnectionOfAStreamToItsManager)
{
  start_with_events();
  {
    Client client = connect_streaming();
    Client another = connect_streaming();
    client.hang_up();
    ASSERT_TRUE(another.send("SYNC\n"));
    EXPECT_TRUE(testhost::spin_until([] { return testelements::sent_events_size() > 0; }));
  }
  expect_serving();
}

/* Factories. */

TEST_F(ServerTest, CallsTheFactoriesInOrderWithTheSameParameters)
{
  std::vector<std::string> called;
  for (const char *name : {"first", "second", "third"}) {
    add_factory([&called, name](GHashTable *params, GError **error) {
      EXPECT_EQ(*error, nullptr);
      called.push_back(name + "="s + static_cast<gchar *>(g_hash_table_lookup(params, "key")));
      return nullptr;
    });
  }
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\nkey=value\n\n"), NO_METADATA);
  EXPECT_EQ(called, (Texts{"first=value", "second=value", "third=value"}));
}

TEST_P(ServerFailureTest, StopsTheFactoriesAndReleasesTheSources)
{
  std::optional<testhost::Observed> observed;
  std::atomic<bool> third_called = false;
  add_observed_factory(&observed);
  add_factory([](GHashTable *, GError **error) {
    GetParam().fail(error);
    return nullptr;
  });
  add_factory([&](GHashTable *, GError **) {
    third_called = true;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\n\nSYNC\n"), GetParam().reply);
  EXPECT_EQ(take_syslog_but_shortages(), GetParam().lines);
  EXPECT_FALSE(third_called);
  EXPECT_FALSE(observed->alive());
}

INSTANTIATE_TEST_SUITE_P(Failures, ServerFailureTest, testing::ValuesIn(FAILURES),
                         [](const auto &failure) { return std::string(failure.param.name); });

TEST_F(ServerTest, ReleasesASourceThatComesWithAnError)
{
  std::optional<testhost::Observed> observed;
  add_factory([&](GHashTable *, GError **error) {
    GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
    observed.emplace(source);
    g_set_error_literal(error, source_factory_error_quark(), 0, "Both");
    return source;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nUnable to create source: Both.");
  EXPECT_FALSE(observed->alive());
}

TEST_F(ServerTest, PutsTheSourcesOfAllFactoriesIntoOnePipelineInOrder)
{
  std::array<GstElement *, 2> sources = {};
  for (GstElement *&source : sources) {
    add_factory([&source](GHashTable *, GError **) {
      source = testelements::make_source(Behaviour::ONE_BUFFER);
      return source;
    });
  }
  ASSERT_TRUE(server_start(server_));
  Client client = connect_streaming();

  GstObject *pipeline = GST_OBJECT_PARENT(sources[0]);
  ASSERT_EQ(GST_OBJECT_PARENT(sources[1]), pipeline);
  /* A bin prepends each child. */
  EXPECT_EQ(GST_BIN_CHILDREN(pipeline)->data, sources[1]);
  EXPECT_EQ(GST_BIN_CHILDREN(pipeline)->next->data, sources[0]);
}

/* Hang-ups. */

TEST_F(ServerTest, CallsNoFactoryForAClientThatHungUpWhileItWaited)
{
  Gate gate;
  std::atomic<int> called = 0;
  add_factory([&](GHashTable *params, GError **) {
    called++;
    if (g_hash_table_size(params) == 0) {
      gate.enter();
    }
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> handled = enter(gate);
  for (int i = 0; i < 20; i++) {
    Client gone = connect_and_send("OPEN\na=b\n\n");
  }
  Client waiting = connect();
  ASSERT_TRUE(waiting.send("OPEN\na=b\n\n"));
  waiting.half_close();
  testhost::dispatch_ready();

  gate.open();
  expect_no_metadata(&handled);
  EXPECT_EQ(waiting.wait_for_reply(), NO_METADATA);
  EXPECT_EQ(called, HANDLED + 1);
}

/* The factory waits until its cancellable is cancelled. */
TEST_F(ServerTest, CancelsAFactoryWhenTheClientHangsUp)
{
  std::atomic<int> waiting = 0;
  std::atomic<int> cancelled = 0;
  std::atomic<bool> next_called = false;
  add_factory([&](GHashTable *params, GError **) {
    if (g_hash_table_size(params) > 0) {
      waiting++;
      cancelled += testhost::wait_until_cancelled() ? 1 : 0;
    }
    return nullptr;
  });
  add_factory([&](GHashTable *params, GError **) {
    next_called = next_called || g_hash_table_size(params) > 0;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (int i = 0; i < HANDLED; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\na=b\n\n"));
  }
  ASSERT_TRUE(testhost::spin_until([&] { return waiting == HANDLED; }));
  clients[0].half_close();
  ASSERT_EQ(clients[1].send_some("SYNC\n"), 5U);
  EXPECT_FALSE(testhost::spin_until([&] { return cancelled > 0; }, SHORT_US));

  for (int i = 0; i < HANDLED; i++) {
    clients[i].hang_up();
    EXPECT_TRUE(testhost::spin_until([&] { return cancelled == i + 1; })) << i;
  }
  expect_serving();
  EXPECT_FALSE(next_called);
}

/* A pipeline would log the missing element. */
TEST_F(ServerTest, MakesNoPipelineForAClientThatHangsUpDuringAFactory)
{
  const testelements::WithoutFactory without("gdppay");
  std::atomic<bool> waiting = false;
  std::atomic<bool> cancelled = false;
  std::optional<testhost::Observed> observed;
  add_factory([&](GHashTable *, GError **) {
    GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
    observed.emplace(source);
    waiting = true;
    cancelled = testhost::wait_until_cancelled();
    return source;
  });
  ASSERT_TRUE(server_start(server_));
  Client client = connect();
  ASSERT_TRUE(client.send("OPEN\n\n"));
  ASSERT_TRUE(testhost::spin_until([&] { return waiting.load(); }));
  client.hang_up();

  EXPECT_TRUE(testhost::spin_until([&] { return cancelled.load(); }));
  EXPECT_TRUE(testhost::spin_until([&] { return !observed->alive(); }));
}

TEST_F(ServerTest, PopsTheCancellableAfterTheFactories)
{
  std::atomic<bool> hooked = false;
  start_with_events();
  faults::after_next_flush([&] {
    EXPECT_EQ(g_cancellable_get_current(), nullptr);
    hooked = true;
  });

  Client client = connect();
  ASSERT_TRUE(client.send("OPEN\nevent=1\n\n"));
  EXPECT_EQ(client.wait_for_reply(), "OK");
  EXPECT_TRUE(hooked);
}

/* Many clients. */

TEST_F(ServerTest, ServesManyClientsThatComeAndGo)
{
  constexpr int ROUNDS = 10;
  constexpr int CLIENTS = 20;
  start_with_events();

  for (int round = 0; round < ROUNDS; round++) {
    std::vector<Client> clients;
    for (int i = 0; i < CLIENTS; i++) {
      clients.push_back(connect_and_send(i % 4 == 3 ? "OPEN\n\n" : "OPEN\nevent=1\n\n"));
    }
    for (int i = 0; i < CLIENTS; i++) {
      if (i % 4 != 2) {
        EXPECT_EQ(clients[i].wait_for_reply(), i % 4 == 3 ? NO_METADATA : "OK");
      }
      clients[i].hang_up();
    }
  }
}

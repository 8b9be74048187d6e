/* SPDX-License-Identifier: MIT */
#include "testserver.h"

#include "faults.h"
#include "testsockets.h"

#include <atomic>
#include <fcntl.h>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>

using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

class ServerPropertyTest : public ServerTest
{
protected:
  void set_run_dir(const std::string &run_dir)
  {
    g_object_set(server_, "run-dir", run_dir.c_str(), nullptr);
  }

  std::string run_dir() const
  {
    g_autofree gchar *run_dir = nullptr;
    g_object_get(server_, "run-dir", &run_dir, nullptr);
    return run_dir;
  }
};

class ServerStartTest : public ServerPropertyTest
{
protected:
  /* Expects that the start fails with @lines and leaves nothing. */
  void expect_start_failure(const SyslogLines &lines)
  {
    EXPECT_FALSE(server_start(server_));
    EXPECT_EQ(testhost::take_syslog(), lines);
    EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
  }
};

/* systemd has passed a listening socket for the server's path. */
class ServerActivationTest : public ServerTest
{
protected:
  void SetUp() override
  {
    ServerTest::SetUp();
    passed_.emplace(std::vector{testsockets::listen_high(socket_path())});
  }

  void TearDown() override
  {
    server_stop(server_);
    passed_.reset();
    ServerTest::TearDown();
  }

private:
  std::optional<testsockets::PassedDescriptors> passed_;
};

} // namespace

/* The object. */

TEST_F(ServerTest, HasOneProperty)
{
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(G_OBJECT_GET_CLASS(server_), &count);

  EXPECT_STREQ(g_type_name(server_get_type()), "Server");
  EXPECT_EQ(g_type_parent(server_get_type()), static_cast<GType>(G_TYPE_OBJECT));
  ASSERT_EQ(count, 1U);
  ASSERT_TRUE(G_IS_PARAM_SPEC_STRING(properties[0]));
  EXPECT_STREQ(properties[0]->name, "run-dir");
  EXPECT_STREQ(g_param_spec_get_nick(properties[0]), "Run directory");
  EXPECT_STREQ(g_param_spec_get_blurb(properties[0]), "Run directory");
  EXPECT_EQ(properties[0]->flags & ~G_PARAM_STATIC_STRINGS, static_cast<int>(G_PARAM_READWRITE));
  EXPECT_STREQ(G_PARAM_SPEC_STRING(properties[0])->default_value, ".");
}

TEST_F(ServerTest, WarnsAboutUnknownProperties)
{
  testhost::expect_unknown_property_warnings(server_, "run-dir");
}

TEST_F(ServerTest, RunsInTheCurrentDirectoryByDefault)
{
  g_autoptr(Server) fresh = TESSARD_SERVER(g_object_new(server_get_type(), nullptr));
  g_autofree gchar *run_dir = nullptr;

  g_object_get(fresh, "run-dir", &run_dir, nullptr);
  EXPECT_STREQ(run_dir, ".");
}

TEST_F(ServerPropertyTest, IgnoresANullRunDirectory)
{
  g_object_set(server_, "run-dir", nullptr, nullptr);
  EXPECT_EQ(run_dir(), dir());
}

TEST_F(ServerPropertyTest, KeepsItsRunDirectoryWhileRunning)
{
  ASSERT_TRUE(server_start(server_));
  set_run_dir("/elsewhere");
  EXPECT_EQ(run_dir(), dir());
  EXPECT_TRUE(socket_exists());

  server_stop(server_);
  set_run_dir("/elsewhere");
  EXPECT_EQ(run_dir(), "/elsewhere");
}

TEST_F(ServerTest, KeepsAReferenceToEachFactory)
{
  TestFactory *factory = test_factory_new([](GHashTable *, GError **) { return nullptr; });
  const testhost::Observed observed(factory);

  server_register_source_factory(server_, SOURCE_FACTORY(factory));
  g_object_unref(factory);
  EXPECT_TRUE(observed.alive());
  g_clear_object(&server_);
  EXPECT_FALSE(observed.alive());
}

TEST_F(ServerTest, RefusesToRegisterNull)
{
  server_register_source_factory(server_, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"factory != NULL"}));
}

TEST_F(ServerTest, RefusesToRegisterWhileRunning)
{
  ASSERT_TRUE(server_start(server_));

  add_event_factory();
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"priv->running == FALSE"}));
  EXPECT_EQ(ask("OPEN\nevent=1\n\n"), NO_METADATA);

  server_stop(server_);
  start_with_events();
  connect_streaming();
}

/* Start. */

TEST_F(ServerTest, StartsOnce)
{
  EXPECT_TRUE(server_start(server_));
  EXPECT_FALSE(server_start(server_));
  EXPECT_EQ(testhost::take_syslog(), SyslogLines());
  expect_serving();
}

TEST_F(ServerTest, ReplacesALeftoverSocket)
{
  close(testsockets::listen_at(socket_path()));

  ASSERT_TRUE(server_start(server_));
  expect_serving();
}

TEST_F(ServerStartTest, FailsWhenTheRunDirectoryDoesNotExist)
{
  set_run_dir(path("missing"));

  expect_start_failure({{LOG_ERR, "Failed to bind metadata server socket: No such file or directory"}});
}

TEST_F(ServerStartTest, FailsWithoutThreads)
{
  faults::fail_next(faults::Call::THREAD_POOL_NEW);

  expect_start_failure({{LOG_ERR, "Could not create thread pool for metadata server: 'No more threads'."}});
  EXPECT_TRUE(server_start(server_));
}

/* Stop. */

TEST_F(ServerTest, StopDoesNothingWhenStopped)
{
  server_stop(server_);
  ASSERT_TRUE(server_start(server_));
  server_stop(server_);
  server_stop(server_);
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
}

TEST_F(ServerTest, HoldsAReferenceToItselfAndASocketWhileRunning)
{
  ASSERT_TRUE(server_start(server_));
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 2U);
  ASSERT_TRUE(socket_exists());

  server_stop(server_);
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
  EXPECT_FALSE(socket_exists());
}

TEST_F(ServerTest, StartsAgainAfterStop)
{
  add_event_factory();
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(server_start(server_));
    connect_streaming();
    server_stop(server_);
  }
}

TEST_F(ServerTest, StopLeavesStreamingClients)
{
  start_with_events();
  Client client = connect_streaming();

  server_stop(server_);
  ASSERT_TRUE(client.send("SYNC\n"));
  EXPECT_TRUE(testhost::spin_until([] { return testelements::sent_events_size() > 0; }));
  EXPECT_FALSE(client.ended());
}

TEST_F(ServerTest, StopWaitsForTheRequestsBeingHandledAndDropsTheOthers)
{
  constexpr int CLIENTS = 5;
  Gate gate;
  add_gated_factory(gate);
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (int i = 0; i < CLIENTS; i++) {
    clients.push_back(connect_and_send("OPEN\n\n"));
    ASSERT_TRUE(testhost::spin_until([&] { return gate.entered() == std::min(i + 1, HANDLED); }));
  }

  /* The gate opens when the stop waits for the requests being handled. */
  std::atomic<bool> waited_for = false;
  std::thread opener([&gate, &waited_for, stopping = gettid()] {
    waited_for = testhost::wait_until_asleep(stopping);
    gate.open();
  });
  server_stop(server_);
  EXPECT_TRUE(waited_for);
  for (int i = 0; i < CLIENTS; i++) {
    EXPECT_TRUE(clients[i].ended()) << i;
    EXPECT_EQ(clients[i].received(), i < HANDLED ? "FAIL\nBad request, no metadata can be produced.\0"s : ""s)
        << i;
  }
  EXPECT_EQ(gate.entered(), HANDLED);
  opener.join();
}

TEST_F(ServerTest, StopDropsUnfinishedRequests)
{
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (const char *bytes : {"", "OPEN\n", "OPEN\na=b"}) {
    clients.push_back(connect_and_send(bytes));
  }

  server_stop(server_);
  for (Client &client : clients) {
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(client.received(), "");
  }
  ASSERT_TRUE(server_start(server_));
  expect_serving();
}

TEST_F(ServerTest, LogsAWatchThatCannotBeRemoved)
{
  ASSERT_TRUE(server_start(server_));
  ASSERT_TRUE(g_source_remove_by_user_data(server_));

  server_stop(server_);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not remove metadata server's I/O watch."}}));
  EXPECT_EQ(testhost::take_glib_messages().size(), 1U);
}

TEST_F(ServerTest, LogsASocketThatCannotBeClosed)
{
  const int fd = testsockets::lowest_free_descriptor();
  ASSERT_TRUE(server_start(server_));
  ASSERT_EQ(close(fd), 0);

  server_stop(server_);
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{{LOG_WARNING, "Could not shut down metadata server's io channel: Bad file descriptor"}}));
  EXPECT_EQ(testhost::take_glib_messages(), (Texts{"GLib: Invalid file descriptor."}));
}

TEST_F(ServerTest, LogsASocketFileThatCannotBeRemoved)
{
  ASSERT_TRUE(server_start(server_));
  ASSERT_EQ(unlink(socket_path().c_str()), 0);
  ASSERT_EQ(mkdir(socket_path().c_str(), 0700), 0);

  server_stop(server_);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not remove metadata server socket file."}}));
}

TEST_F(ServerTest, StopAcceptsAMissingSocketFile)
{
  ASSERT_TRUE(server_start(server_));
  ASSERT_EQ(unlink(socket_path().c_str()), 0);

  server_stop(server_);
}

/* Socket activation. */

TEST_F(ServerActivationTest, UsesThePassedSocketAndRemovesItAtStop)
{
  start_with_events();
  connect_streaming();

  server_stop(server_);
  EXPECT_FALSE(socket_exists());
  EXPECT_FALSE(testsockets::is_open(SD_LISTEN_FDS_START));
}

/* poll() also reports a hang-up for a listening socket that was shut down. */
TEST_F(ServerActivationTest, BacksOffAfterEachErrorOfTheListeningSocket)
{
  ASSERT_TRUE(server_start(server_));
  const gint64 begin_us = g_get_monotonic_time();

  ASSERT_EQ(shutdown(SD_LISTEN_FDS_START, SHUT_RDWR), 0);
  EXPECT_TRUE(testhost::spin_until([] { return testhost::syslog_size() >= 3; }));
  EXPECT_LE(static_cast<gint64>(testhost::syslog_size()),
            1 + (g_get_monotonic_time() - begin_us) / BACKOFF_US);
  server_stop(server_);
  for (const SyslogLine &line : testhost::take_syslog()) {
    EXPECT_EQ(line, (SyslogLine{LOG_ERR,
                                "Error on metadata socket, not able to process metadata client requests."}));
  }
}

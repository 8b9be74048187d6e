#include "server.h"

#include "clientplaces.h"
#include "descriptorreserve.h"
#include "eventsourcefactory.h"
#include "faults.h"
#include "ratelimitedlog.h"
#include "testclient.h"
#include "testelements.h"
#include "testfactory.h"
#include "testhost.h"
#include "testsockets.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <gio/gio.h>
#include <mutex>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>

using testelements::Behaviour;
using testhost::FreeDescriptors;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;
using testsockets::is_open;
using testsockets::listen_at;
using testsockets::listen_high;
using testsockets::lowest_free_descriptor;

using namespace std::string_literals;

namespace
{

constexpr gint64 SHORT_US = 50 * G_TIME_SPAN_MILLISECOND;
constexpr gint64 BACKOFF_US = SERVER_ACCEPT_BACKOFF_MS * G_TIME_SPAN_MILLISECOND;

/* How many requests are handled at once. */
constexpr int HANDLED = 2;

/* What a client sends without being asked; more than one read takes, and less than a socket holds. */
constexpr gsize MORE_BYTES = 20'000;

constexpr const char *NOT_CREATED = "FAIL\nCould not create metadata, Internal server error.";

constexpr gint64 WARNING_INTERVAL_US = SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND;

/* The longest path that is bound as a whole. */
constexpr gsize MAX_PATH_LENGTH = 106;

/* Doors at which the requests wait until a test lets them in. */
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

SyslogLines take_syslog_but_shortages();

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
    testelements::set_event_source_behaviour(Behaviour::ONE_BUFFER);
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
    EXPECT_EQ(take_syslog_but_shortages(), SyslogLines());
    Fixture::TearDown();
  }

  void add_factory(CreateSource create_source)
  {
    g_autoptr(TestFactory) factory = test_factory_new(std::move(create_source));

    server_register_source_factory(server_, SOURCE_FACTORY(factory));
  }

  void add_event_factory()
  {
    g_autoptr(EventSourceFactory) factory = event_source_factory_new();

    server_register_source_factory(server_, SOURCE_FACTORY(factory));
  }

  std::string socket_path() const
  {
    return path("metadata");
  }

  Client connect() const
  {
    return Client::connect_to(socket_path());
  }

  /* The reply to a request whose connection it ends. */
  std::string ask(const std::string &request) const
  {
    Client client = connect();

    EXPECT_TRUE(client.send(request));
    const std::string reply = client.wait_for_reply();
    EXPECT_TRUE(client.wait_for_end());
    EXPECT_EQ(client.received().size(), reply.size() + 1);
    return reply;
  }

  /* Clients whose requests take threads of the pool, as long as the gate of their factory is closed. */
  std::vector<Client> enter(Gate &gate, int count) const
  {
    std::vector<Client> clients;

    for (int i = 0; i < count; i++) {
      clients.push_back(connect());
      EXPECT_TRUE(clients.back().send("OPEN\n\n"));
      EXPECT_TRUE(testhost::spin_until([&] { return gate.entered() == i + 1; }));
    }
    return clients;
  }

  /* The next client is closed without a reply. */
  void expect_dropped() const
  {
    Client dropped = connect();

    EXPECT_TRUE(dropped.wait_for_end());
    EXPECT_EQ(dropped.received(), "");
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_WARNING, "Too many unprocessed metadata requests, dropping one."}}));
  }

  void start_with_events()
  {
    add_event_factory();
    ASSERT_TRUE(server_start(server_));
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

  void expect_start_failure(const SyslogLines &lines)
  {
    EXPECT_FALSE(server_start(server_));
    EXPECT_EQ(testhost::take_syslog(), lines);
    /* What failed has left nothing: the next start fails in the same way, or succeeds. */
    EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
  }

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

  bool socket_exists() const
  {
    return g_file_test(socket_path().c_str(), G_FILE_TEST_EXISTS);
  }

  Server *server_ = nullptr;
};

/* Lets the process open no descriptor above the highest one, as long as this object lives. */
class NoMoreDescriptors
{
public:
  NoMoreDescriptors()
  {
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    limit = saved_;
    /* Gaps below the limit are filled. */
    const int highest = *testhost::open_descriptors().rbegin();
    for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0;
         fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) {
      if (fd > highest) {
        close(fd);
        break;
      }
      fillers_.push_back(fd);
    }
    limit.rlim_cur = highest + 1;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }

  ~NoMoreDescriptors()
  {
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0);
    for (const int fd : fillers_) {
      close(fd);
    }
  }

  NoMoreDescriptors(const NoMoreDescriptors &) = delete;
  NoMoreDescriptors &operator=(const NoMoreDescriptors &) = delete;

private:
  rlimit saved_ = {};
  std::vector<int> fillers_;
};

bool
can_reserve(guint count)
{
  g_autoptr(DescriptorReservation) reservation = descriptor_reservation_new(count, nullptr);

  return reservation != nullptr;
}

bool
can_have_place()
{
  g_autoptr(ClientPlace) place = client_place_new(getuid());

  return place != nullptr;
}

bool
is_shortage_warning(const SyslogLine &line)
{
  return line.priority == LOG_WARNING &&
         line.text.starts_with("Too few free file descriptors, refused a metadata request.");
}

/* Takes the log's lines and gives those that do not warn of a shortage: one that comes too soon after another
 * one has no line of its own. */
SyslogLines
take_syslog_but_shortages()
{
  SyslogLines lines = testhost::take_syslog();

  std::erase_if(lines, is_shortage_warning);
  return lines;
}

const SyslogLine OUT_OF_DESCRIPTORS = {
    LOG_ERR, "Could not accept new request on metadata server socket: Too many open files"};

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

struct AcceptFailure {
  const char *name;
  int error_number;
  unsigned calls; /* each time that the watch is there */
};

std::ostream &
operator<<(std::ostream &stream, const AcceptFailure &failure)
{
  return stream << failure.name;
}

class ServerAcceptTest : public ServerTest, public testing::WithParamInterface<AcceptFailure>
{
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

TEST_F(ServerTest, WarnsOfUnknownProperties)
{
  GObjectClass *object_class = G_OBJECT_GET_CLASS(server_);
  GParamSpec *pspec = g_object_class_find_property(object_class, "run-dir");
  g_auto(GValue) value = G_VALUE_INIT;

  g_value_init(&value, G_TYPE_STRING);
  object_class->set_property(G_OBJECT(server_), 99, &value, pspec);
  object_class->get_property(G_OBJECT(server_), 99, &value, pspec);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 2U);
  for (const std::string &message : messages) {
    EXPECT_TRUE(
        message.ends_with("invalid property id 99 for \"run-dir\" of type 'GParamString' in 'Server'"))
        << message;
  }
}

TEST_F(ServerTest, RunsInTheCurrentFolderByDefault)
{
  g_autoptr(Server) fresh = TESSARD_SERVER(g_object_new(server_get_type(), nullptr));
  g_autofree gchar *run_dir = nullptr;

  g_object_get(fresh, "run-dir", &run_dir, nullptr);
  EXPECT_STREQ(run_dir, ".");
}

TEST_F(ServerTest, KeepsItsRunDirectoryAgainstNull)
{
  g_object_set(server_, "run-dir", nullptr, nullptr);
  EXPECT_EQ(run_dir(), dir());
}

TEST_F(ServerTest, KeepsItsRunDirectoryWhileRunning)
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

TEST_F(ServerTest, RefusesToRegisterNothing)
{
  server_register_source_factory(server_, nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"factory != NULL"}));
}

TEST_F(ServerTest, RefusesToRegisterWhileRunning)
{
  ASSERT_TRUE(server_start(server_));

  add_event_factory();
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"priv->running == FALSE"}));
  EXPECT_EQ(ask("OPEN\nevent=1\n\n"), "FAIL\nBad request, no metadata can be produced.");

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
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

TEST_F(ServerTest, ReplacesASocketThatWasLeft)
{
  close(listen_at(socket_path()));

  ASSERT_TRUE(server_start(server_));
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

TEST_F(ServerTest, FailsInAFolderThatDoesNotExist)
{
  set_run_dir(path("missing"));

  expect_start_failure({{LOG_ERR, "Failed to bind metadata server socket: No such file or directory"}});
}

TEST_F(ServerTest, FailsWithoutThreads)
{
  faults::fail_next(faults::Call::THREAD_POOL_NEW);

  expect_start_failure({{LOG_ERR, "Could not create thread pool for metadata server: 'No more threads'."}});
  EXPECT_TRUE(server_start(server_));
}

TEST_F(ServerTest, TakesTheLongestPath)
{
  const std::string longest = path(std::string(MAX_PATH_LENGTH - path("/metadata").size(), 'x'));
  ASSERT_EQ((longest + "/metadata").size(), MAX_PATH_LENGTH);
  ASSERT_EQ(mkdir(longest.c_str(), 0700), 0);
  set_run_dir(longest);

  ASSERT_TRUE(server_start(server_));
  EXPECT_TRUE(g_file_test((longest + "/metadata").c_str(), G_FILE_TEST_EXISTS));
}

/* Replies. */

TEST_P(ServerReplyTest, IsFollowedByNulAndTheEnd)
{
  start_with_events();

  EXPECT_EQ(ask(GetParam().request), GetParam().reply);
  testhost::take_syslog();
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ServerReplyTest,
    testing::Values(Exchange{"UnknownRequest", "CLOSE\n", "FAIL\nUnknown: request: CLOSE\n (6)"},
                    Exchange{"UnknownRequestWithCarriageReturn", "OPEN\r\nevent=1\n\n",
                             "FAIL\nUnknown: request: OPEN\r\n (6)"},
                    Exchange{"HeaderLine", "OPEN\nevent\n", "FAIL\nUnable to parse header line: event."},
                    Exchange{"EmptyHeaderLine", "OPEN\n\r\n", "FAIL\nUnable to parse header line: ."},
                    Exchange{"NoParameters", "OPEN\n\n", "FAIL\nBad request, no metadata can be produced."},
                    Exchange{"NoMetadata", "OPEN\nevent=0\n\n",
                             "FAIL\nBad request, no metadata can be produced."},
                    /* docs/compatibility.md, "two full stops". */
                    Exchange{"SourceError", "OPEN\nevent=yes\n\n",
                             "FAIL\nUnable to create source: Invalid value of 'event' parameter: 'yes'.."}),
    [](const auto &exchange) { return std::string(exchange.param.name); });

/* What is behind a request is not read, and may be more than one read takes. */
TEST_P(ServerReplyTest, IsFollowedByTheEndAlsoWhenTheClientHasSentMore)
{
  start_with_events();

  EXPECT_EQ(ask(GetParam().request + std::string(MORE_BYTES, 'x')), GetParam().reply);
  testhost::take_syslog();
}

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

/* The reply reaches nobody. */
TEST_F(ServerTest, ForgetsClientsThatLeaveBeforeTheReply)
{
  start_with_events();

  for (const char *request : {"", "OPEN\n", "CLOSE\n", "OPEN\n\n", "OPEN\nevent\n\n"}) {
    Client client = connect();
    ASSERT_TRUE(client.send(request));
    client.hang_up();
  }
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
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

/* The server closes while the client is sending, at another moment each time. */
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

TEST_F(ServerTest, TakesTheLongestRequest)
{
  std::atomic<gsize> length = 0;
  add_factory([&](GHashTable *params, GError **) {
    length = strlen(static_cast<gchar *>(g_hash_table_lookup(params, "a")));
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\na=" + std::string(SERVER_MAX_REQUEST_BYTES - strlen("OPEN\na=\n\n"), 'x') + "\n\n"),
            "FAIL\nBad request, no metadata can be produced.");
  EXPECT_EQ(length, SERVER_MAX_REQUEST_BYTES - strlen("OPEN\na=\n\n"));
}

TEST_F(ServerTest, GivesUpOnARequestThatTakesTooLong)
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
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
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

  EXPECT_EQ(ask("OPEN\n\nSYNC\n"), "FAIL\nCould not create metadata, Internal server error.");
  EXPECT_FALSE(observed.alive());
}

TEST_F(ServerTest, RepliesWhenThePipelineCannotBePrepared)
{
  start_with_events();
  const testelements::WithoutFactory without("gdppay");

  EXPECT_EQ(ask("OPEN\nevent=1\n\nSYNC\n"), "FAIL\nCould not produce metadata, Internal server error.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_ERR, "Could not create gdppay."}}));
}

TEST_F(ServerTest, RepliesWhenASourceDoesNotStart)
{
  start_with_events();
  testelements::set_event_source_behaviour(Behaviour::START_STATE_FAILS);

  EXPECT_EQ(ask("OPEN\nevent=1\n\nSYNC\n"), "FAIL\nCould not produce metadata, Internal server error.");
}

/* The failure text finds no reader, and the descriptor is closed, when the reply's channel is released. */
TEST_F(ServerTest, ForgetsAClientThatLeavesWhileItsPipelineIsPrepared)
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

TEST_F(ServerTest, ServesASyncLineSentWithTheRequestAsPartOfTheStream)
{
  start_with_events();
  Client client = connect();

  ASSERT_TRUE(client.send("OPEN\nevent=1\n\nSYNC\n"));
  EXPECT_EQ(client.wait_for_reply(), "OK");
  /* It is read before the start, or behind it. */
  EXPECT_TRUE(testhost::spin_until(
      [] { return testhost::glib_messages_size() + testelements::sent_events_size() > 0; }));
  EXPECT_EQ(testhost::take_failed_preconditions().size() + testelements::take_sent_events().size(), 1U);
}

/* The hook is where the client has its "OK" and the stream is not started yet. */
TEST_F(ServerTest, LosesNoSyncLineThatAnswersTheReply)
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
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

/* Factories. */

TEST_F(ServerTest, AsksTheFactoriesInOrderWithTheSameParameters)
{
  std::vector<std::string> asked;
  for (const char *name : {"first", "second", "third"}) {
    add_factory([&asked, name](GHashTable *params, GError **error) {
      EXPECT_EQ(*error, nullptr);
      asked.push_back(name + "="s + static_cast<gchar *>(g_hash_table_lookup(params, "key")));
      return nullptr;
    });
  }
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\nkey=value\n\n"), "FAIL\nBad request, no metadata can be produced.");
  EXPECT_EQ(asked, (Texts{"first=value", "second=value", "third=value"}));
}

TEST_F(ServerTest, StopsAtTheFirstErrorAndReleasesWhatThereIs)
{
  std::optional<testhost::Observed> observed;
  std::atomic<bool> third_asked = false;
  add_factory([&](GHashTable *, GError **) {
    GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
    observed.emplace(source);
    return source;
  });
  add_factory([](GHashTable *, GError **error) {
    source_factory_fail(error, source_factory_error_quark(), "No head to turn");
    return nullptr;
  });
  add_factory([&](GHashTable *, GError **) {
    third_asked = true;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nUnable to create source: No head to turn.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, "No head to turn"}}));
  EXPECT_FALSE(third_asked);
  EXPECT_FALSE(observed->alive());
}

TEST_F(ServerTest, TakesAnErrorForAFailureWhateverComesWithIt)
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
  /* A bin puts what is added before what is there. */
  EXPECT_EQ(GST_BIN_CHILDREN(pipeline)->data, sources[1]);
  EXPECT_EQ(GST_BIN_CHILDREN(pipeline)->next->data, sources[0]);
}

/* The pool. */

TEST_F(ServerTest, HandlesTwoRequestsAtOnceAndKeepsALimitedNumberWaiting)
{
  constexpr int WAITING = SERVER_MAX_WAITING_REQUESTS + 1;
  Gate gate;
  add_factory([&gate](GHashTable *, GError **) {
    gate.enter();
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;

  for (int i = 0; i < HANDLED + WAITING; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\n\n"));
    testhost::dispatch_ready();
    ASSERT_TRUE(testhost::spin_until([&] { return gate.entered() == std::min(i + 1, HANDLED); }));
  }
  EXPECT_EQ(testhost::syslog_size(), 0U);
  for (int i = 0; i < 2; i++) {
    Client refused = connect();
    ASSERT_TRUE(refused.send("OPEN\n\n"));
    EXPECT_TRUE(refused.wait_for_end());
    EXPECT_EQ(refused.received(), "");
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_WARNING, "Too many unprocessed metadata requests, dropping one."}}));
  }
  EXPECT_EQ(gate.entered(), HANDLED);

  gate.open();
  for (Client &client : clients) {
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
    EXPECT_TRUE(client.wait_for_end());
  }
}

/* Those who have sent nothing or a part count like those who have sent all. */
TEST_F(ServerTest, CountsWhoeverWaitsInOneBound)
{
  constexpr int WAITING = SERVER_MAX_WAITING_REQUESTS + 1;
  constexpr int UNFINISHED = 10;
  Gate gate;
  add_factory([&gate](GHashTable *, GError **) {
    gate.enter();
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients = enter(gate, HANDLED);
  std::vector<Client> unfinished;
  for (int i = 0; i < UNFINISHED; i++) {
    unfinished.push_back(connect());
    ASSERT_TRUE(unfinished.back().send(i % 2 == 0 ? "" : "OPEN\n"));
    testhost::dispatch_ready();
  }
  for (int i = 0; i < WAITING - UNFINISHED; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\n\n"));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(testhost::syslog_size(), 0U);
  expect_dropped();

  /* One that leaves makes room for one. */
  unfinished.pop_back();
  testhost::dispatch_ready();
  clients.push_back(connect());
  testhost::dispatch_ready();
  expect_dropped();

  ASSERT_TRUE(clients.back().send("OPEN\n\n"));
  gate.open();
  for (Client &client : clients) {
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
}

TEST_F(ServerTest, GivesAUserAShareOfThoseWhoHaveNotSentTheirRequest)
{
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> unfinished;
  for (int i = 0; i < SERVER_MAX_UNFINISHED_REQUESTS; i++) {
    unfinished.push_back(connect());
    ASSERT_TRUE(unfinished.back().send(i % 2 == 0 ? "" : "OPEN\n"));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(testhost::syslog_size(), 0U);
  expect_dropped();

  /* One that has sent its request, or has left, is none of them any more. */
  ASSERT_TRUE(unfinished[1].send("\n"));
  EXPECT_EQ(unfinished[1].wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
  Client another = connect();
  testhost::dispatch_ready();
  expect_dropped();
  unfinished[0].hang_up();
  testhost::dispatch_ready();
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

TEST_F(ServerTest, ServesOthersWhileManyClientsHaveNotSentTheirRequests)
{
  start_with_events();
  std::vector<Client> unfinished;
  for (int i = 0; i < SERVER_MAX_UNFINISHED_REQUESTS - 1; i++) {
    unfinished.push_back(connect());
    ASSERT_TRUE(unfinished.back().send(i % 2 == 0 ? "" : "OPEN\nevent"));
    testhost::dispatch_ready();
  }

  connect_streaming();
  for (gsize i = 1; i < unfinished.size(); i += 2) {
    ASSERT_TRUE(unfinished[i].send("=0\n\n"));
    EXPECT_EQ(unfinished[i].wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
}

/* Not in the order in which they connected. Of the two threads one is kept, so that the other one has all. */
TEST_F(ServerTest, HandlesRequestsInTheOrderInWhichTheyBecameWhole)
{
  constexpr int CLIENTS = 8;
  Gate gate;
  std::mutex lock;
  Texts order;
  Texts expected;
  add_factory([&](GHashTable *params, GError **) {
    const auto *number = static_cast<gchar *>(g_hash_table_lookup(params, "number"));
    if (number == nullptr) {
      gate.enter();
      return nullptr;
    }
    std::lock_guard guard(lock);
    order.emplace_back(number);
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> handled = enter(gate, HANDLED);
  std::vector<Client> clients;
  for (int i = 0; i < CLIENTS; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\n"));
    testhost::dispatch_ready();
  }
  for (int i = CLIENTS - 1; i >= 0; i--) {
    expected.push_back(std::to_string(i));
    ASSERT_TRUE(clients[i].send("number=" + expected.back() + "\n\n"));
    testhost::dispatch_ready();
  }

  gate.let_one_in();
  for (Client &client : clients) {
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
  EXPECT_EQ(order, expected);
  gate.open();
  for (Client &client : handled) {
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
}

/* Hang-ups. */

TEST_F(ServerTest, AsksNoFactoryForAClientThatHasHungUpByItsTurn)
{
  Gate gate;
  std::atomic<int> asked = 0;
  add_factory([&](GHashTable *params, GError **) {
    asked++;
    if (g_hash_table_size(params) == 0) {
      gate.enter();
    }
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> handled = enter(gate, HANDLED);
  for (int i = 0; i < 20; i++) {
    Client gone = connect();
    ASSERT_TRUE(gone.send("OPEN\na=b\n\n"));
    testhost::dispatch_ready();
  }
  Client waiting = connect();
  ASSERT_TRUE(waiting.send("OPEN\na=b\n\n"));
  waiting.half_close();
  testhost::dispatch_ready();

  gate.open();
  for (Client &client : handled) {
    EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
  EXPECT_EQ(waiting.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  EXPECT_EQ(asked, HANDLED + 1);
}

/* A factory that waits for something of the platform, and is set free by the cancellable alone. */
TEST_F(ServerTest, EndsAFactorysWaitWhenTheClientHangsUp)
{
  std::atomic<int> waiting = 0;
  std::atomic<int> cancelled = 0;
  std::atomic<bool> asked_behind = false;
  add_factory([&](GHashTable *params, GError **) {
    if (g_hash_table_size(params) > 0) {
      waiting++;
      cancelled += testhost::wait_until_cancelled() ? 1 : 0;
    }
    return nullptr;
  });
  add_factory([&](GHashTable *params, GError **) {
    asked_behind = asked_behind || g_hash_table_size(params) > 0;
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
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
  EXPECT_FALSE(asked_behind);
}

/* Making one would log what is missing. */
TEST_F(ServerTest, MakesNoPipelineForAClientThatHungUpMeanwhile)
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

TEST_F(ServerTest, LeavesNoCancellableBehindTheFactories)
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

/* The places of those that stream. */

/* All but one of the places are taken by others. */
TEST_F(ServerTest, RefusesAClientWithoutAPlaceAndTakesOneForEachThatStreams)
{
  std::vector<ClientPlace *> others;
  for (gsize i = 0; i < CLIENT_PLACES - CLIENT_PLACES_KEPT - 1; i++) {
    others.push_back(client_place_new(getuid()));
    ASSERT_NE(others.back(), nullptr);
  }
  start_with_events();
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(ask("OPEN\nevent=0\n\n"), "FAIL\nBad request, no metadata can be produced.");
    ASSERT_TRUE(testhost::spin_until([] { return can_have_place(); }));
    Client client = connect_streaming();
    for (int k = 0; k < 3; k++) {
      EXPECT_EQ(ask("OPEN\nevent=1\n\nSYNC\n"), NOT_CREATED);
      EXPECT_FALSE(can_have_place());
    }
    client.hang_up();
    ASSERT_TRUE(testhost::spin_until([] { return can_have_place(); }));
  }
  const testelements::WithoutFactory without("gdppay");
  EXPECT_EQ(ask("OPEN\nevent=1\n\n"), "FAIL\nCould not produce metadata, Internal server error.");
  EXPECT_TRUE(testhost::spin_until([] { return can_have_place(); }));

  const SyslogLines lines = testhost::take_syslog();
  EXPECT_EQ(lines.front(),
            (SyslogLine{LOG_WARNING, "Too many metadata clients, refused a metadata request."}));
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const SyslogLine &line) { return line.priority == LOG_WARNING; }),
            1);
  EXPECT_EQ(lines.back(), (SyslogLine{LOG_ERR, "Could not create gdppay."}));
  rate_limited_log_flush();
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Too many metadata clients, refused a metadata request. "
                                       "(7 more since the last such line)"}}));
  for (ClientPlace *place : others) {
    client_place_free(place);
  }
}

TEST_F(ServerTest, LogsARequestThatCannotBePushed)
{
  ASSERT_TRUE(server_start(server_));
  faults::fail_next(faults::Call::THREAD_POOL_PUSH);
  Client client = connect();

  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_TRUE(client.wait_for_end());
  EXPECT_EQ(client.received(), "");
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not push metadata client request: No more threads."}}));
}

TEST_F(ServerTest, LogsAnAcceptedSocketThatIsNotClosedWell)
{
  ASSERT_TRUE(server_start(server_));
  faults::fail_next(faults::Call::THREAD_POOL_PUSH);
  Client client = connect();
  faults::fail_close_of(lowest_free_descriptor());

  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_TRUE(client.wait_for_end());
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not push metadata client request: No more threads."},
                         {LOG_ERR, "Could not close accepted metadata server socket: Input/output error"}}));
}

/* The reserve of descriptors. */

/* As the factories say it; every kind of shortage is the server's to tell. */
TEST_F(ServerTest, TellsAFactorysShortageInItsOwnWords)
{
  std::optional<testhost::Observed> observed;
  std::atomic<bool> third_asked = false;
  add_factory([&](GHashTable *, GError **) {
    GstElement *source = testelements::make_source(Behaviour::ONE_BUFFER);
    observed.emplace(source);
    return source;
  });
  add_factory([](GHashTable *, GError **error) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "None left");
    return nullptr;
  });
  add_factory([&](GHashTable *, GError **) {
    third_asked = true;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  EXPECT_EQ(ask("OPEN\n\nSYNC\n"), NOT_CREATED);
  EXPECT_EQ(take_syslog_but_shortages(), SyslogLines());
  EXPECT_FALSE(third_asked);
  EXPECT_FALSE(observed->alive());
}

/* Every number of descriptors up to those that a pipeline needs beside its connection, and the last one
 * serves. */
TEST_F(ServerTest, AsksNoFactoryUnlessAPipelinesDescriptorsAreFree)
{
  constexpr guint ENOUGH = DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 1;
  std::atomic<unsigned> asked = 0;
  add_factory([&](GHashTable *, GError **) {
    asked++;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  for (guint count = 0; count <= ENOUGH; count++) {
    Client client = connect();
    ASSERT_TRUE(client.send("OPEN\n\nSYNC\n"));
    const FreeDescriptors free(count);
    EXPECT_EQ(client.wait_for_reply(),
              count < ENOUGH ? NOT_CREATED : "FAIL\nBad request, no metadata can be produced.");
    EXPECT_TRUE(client.wait_for_end()) << count;
    EXPECT_EQ(take_syslog_but_shortages(), SyslogLines(count == 0 ? 1 : 0, OUT_OF_DESCRIPTORS)) << count;
  }
  EXPECT_EQ(asked, 1U);
}

TEST_F(ServerTest, StreamsWithNoMoreThanAPipelinesDescriptors)
{
  start_with_events();
  connect_streaming().hang_up();
  Client client = connect();
  ASSERT_TRUE(client.send("OPEN\nevent=1\n\n"));
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 1);

  EXPECT_EQ(client.wait_for_reply(), "OK");
  EXPECT_TRUE(client.wait_for_bytes(sizeof "OK" + strlen(testelements::DOCUMENT_TEXT)));
  EXPECT_TRUE(can_reserve(0));
}

/* While the factories are asked the pipeline's descriptors are nobody else's, and afterwards they are. */
TEST_F(ServerTest, ReservesAPipelinesDescriptorsWhileItIsMade)
{
  constexpr guint MORE = 5;
  Gate gate;
  add_factory([&gate](GHashTable *, GError **) {
    gate.enter();
    return testelements::make_source(Behaviour::ONE_BUFFER);
  });
  ASSERT_TRUE(server_start(server_));
  Client client = connect();
  ASSERT_TRUE(client.send("OPEN\n\n"));
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 1 + MORE);
  ASSERT_TRUE(testhost::spin_until([&gate] { return gate.entered() == 1; }));

  EXPECT_TRUE(can_reserve(MORE));
  EXPECT_FALSE(can_reserve(MORE + 1));
  gate.open();
  EXPECT_EQ(client.wait_for_reply(), "OK");
  EXPECT_TRUE(can_reserve(MORE + SERVER_PIPELINE_DESCRIPTORS / 2));
  client.hang_up();
  EXPECT_TRUE(testhost::spin_until([] { return can_reserve(MORE + SERVER_PIPELINE_DESCRIPTORS + 1); }));
}

TEST_F(ServerTest, GivesTheReservationBackHoweverARequestFails)
{
  start_with_events();
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 8);

  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
    EXPECT_TRUE(testhost::spin_until([] { return can_reserve(SERVER_PIPELINE_DESCRIPTORS + 4); }));
    const testelements::WithoutFactory without("gdppay");
    EXPECT_EQ(ask("OPEN\nevent=1\n\n"), "FAIL\nCould not produce metadata, Internal server error.");
    EXPECT_TRUE(testhost::spin_until([] { return can_reserve(SERVER_PIPELINE_DESCRIPTORS + 4); }));
  }
  for (const SyslogLine &line : testhost::take_syslog()) {
    EXPECT_EQ(line, (SyslogLine{LOG_ERR, "Could not create gdppay."}));
  }
}

/* Both request threads are busy, and those who wait send nothing: neither is waited for. */
TEST_F(ServerTest, RefusesAConnectionThatTouchesTheReserveAtOnce)
{
  constexpr int WAITING = 3;
  Gate gate;
  add_factory([&gate](GHashTable *, GError **) {
    gate.enter();
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> handled;
  for (int i = 0; i < HANDLED; i++) {
    handled.push_back(connect());
    ASSERT_TRUE(handled.back().send("OPEN\n\n"));
    ASSERT_TRUE(testhost::spin_until([&] { return gate.entered() == i + 1; }));
  }
  std::vector<Client> clients;
  for (int i = 0; i < 2 * WAITING; i++) {
    clients.push_back(connect());
  }
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + HANDLED * SERVER_PIPELINE_DESCRIPTORS + WAITING);

  for (int i = WAITING; i < 2 * WAITING; i++) {
    EXPECT_EQ(clients[i].wait_for_reply(), NOT_CREATED);
    EXPECT_TRUE(clients[i].wait_for_end());
  }
  EXPECT_EQ(take_syslog_but_shortages(), SyslogLines());
  EXPECT_TRUE(can_reserve(0));
  EXPECT_FALSE(can_reserve(1));
  gate.open();
  for (int i = 0; i < WAITING; i++) {
    ASSERT_TRUE(clients[i].send("OPEN\n\n"));
    EXPECT_EQ(clients[i].wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
  }
}

/* The lines of one shortage, which is as long as the test wants. */
TEST_F(ServerTest, WarnsOfAShortageAtMostOnceAnInterval)
{
  ASSERT_TRUE(server_start(server_));
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE - 1);
  std::vector<gint64> times_us;
  guint64 refused = 0;

  while (times_us.size() < 3) {
    Client client = connect();
    ASSERT_EQ(client.wait_for_reply(), NOT_CREATED);
    refused++;
    const SyslogLines lines = testhost::take_syslog();
    ASSERT_TRUE(std::all_of(lines.begin(), lines.end(), is_shortage_warning)) << lines.front();
    times_us.insert(times_us.end(), lines.size(), g_get_monotonic_time());
  }
  EXPECT_GE(times_us[2] - times_us[1], WARNING_INTERVAL_US - SHORT_US);
  EXPECT_GT(refused, times_us.size());
}

/* The accept watch. */

TEST_F(ServerTest, RefusesAConnectionThatIsOutOfDescriptors)
{
  ASSERT_TRUE(server_start(server_));
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  {
    const NoMoreDescriptors none;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    g_strlcpy(address.sun_path, socket_path().c_str(), sizeof address.sun_path);
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    Client client(fd);

    EXPECT_EQ(client.wait_for_reply(), NOT_CREATED);
    EXPECT_TRUE(client.wait_for_end());
    EXPECT_FALSE(testhost::spin_until([] { return testhost::syslog_size() > 2; }, SHORT_US));
    EXPECT_EQ(take_syslog_but_shortages(), (SyslogLines{OUT_OF_DESCRIPTORS}));
  }
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

TEST_F(ServerTest, GoesOnBehindManyConnectionsWithoutDescriptors)
{
  constexpr int CONNECTIONS = 8;
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (int i = 0; i < CONNECTIONS; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\n\n"));
  }
  {
    const NoMoreDescriptors none;
    for (Client &client : clients) {
      EXPECT_EQ(client.wait_for_reply(), NOT_CREATED);
      EXPECT_TRUE(client.wait_for_end());
    }
  }
  EXPECT_EQ(take_syslog_but_shortages(), SyslogLines(CONNECTIONS, OUT_OF_DESCRIPTORS));
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

/* The accept watch, and its back-off. */

TEST_P(ServerAcceptTest, BacksOffAndServesTheConnectionOnceItCanBeAccepted)
{
  const auto &[name, error_number, calls] = GetParam();
  const SyslogLine line = {LOG_ERR, "Could not accept new request on metadata server socket: "s +
                                        g_strerror(error_number)};
  ASSERT_TRUE(server_start(server_));
  Client client = connect();
  {
    const gint64 begin_us = g_get_monotonic_time();
    const faults::Accepts failing(error_number);
    EXPECT_TRUE(testhost::spin_until([&] { return failing.count() >= 3 * calls; }));

    const gint64 wake_ups = failing.count() / calls;
    EXPECT_LE(wake_ups, 1 + (g_get_monotonic_time() - begin_us) / BACKOFF_US);
    EXPECT_EQ(failing.count() % calls, 0U);
    EXPECT_EQ(testhost::take_syslog(), SyslogLines(wake_ups, line));
  }
  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_EQ(client.wait_for_reply(), "FAIL\nBad request, no metadata can be produced.");
}

/* Of descriptors there may be none, so that a connection is dropped, which is tried. */
INSTANTIATE_TEST_SUITE_P(Errors, ServerAcceptTest,
                         testing::Values(AcceptFailure{"NoMemory", ENOMEM, 1},
                                         AcceptFailure{"NoBuffers", ENOBUFS, 1},
                                         AcceptFailure{"NotPermitted", EPERM, 1},
                                         AcceptFailure{"NoDescriptorInTheProcess", EMFILE, 2},
                                         AcceptFailure{"NoDescriptorInTheSystem", ENFILE, 2}),
                         [](const auto &failure) { return std::string(failure.param.name); });

/* Another thread has opened what was free for a moment, before the server could. */
TEST_F(ServerTest, BacksOffWithoutASpareDescriptorAndTakesAnotherOneLater)
{
  ASSERT_TRUE(server_start(server_));
  Client refused = connect();
  {
    const NoMoreDescriptors none;
    faults::fail_next(faults::Call::OPEN);
    EXPECT_EQ(refused.wait_for_reply(), NOT_CREATED);
    EXPECT_TRUE(refused.wait_for_end());
    const int taken = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(taken, 0);
    EXPECT_EQ(take_syslog_but_shortages(), (SyslogLines{OUT_OF_DESCRIPTORS}));
    refused.hang_up();
    Client waiting = connect();

    const gint64 begin_us = g_get_monotonic_time();
    const faults::Accepts failing(0);
    EXPECT_TRUE(testhost::spin_until([] { return testhost::syslog_size() >= 3; }));
    EXPECT_LE(failing.count(), 2 + (g_get_monotonic_time() - begin_us) / BACKOFF_US);
    EXPECT_EQ(take_syslog_but_shortages(), SyslogLines(3, OUT_OF_DESCRIPTORS));
    EXPECT_FALSE(waiting.ended());

    close(taken);
    EXPECT_EQ(waiting.wait_for_reply(), NOT_CREATED);
    EXPECT_TRUE(waiting.wait_for_end());
  }
  take_syslog_but_shortages();

  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
  Client refused_again = connect();
  const NoMoreDescriptors none;
  const faults::Accepts accepts(0);
  EXPECT_EQ(refused_again.wait_for_reply(), NOT_CREATED);
  EXPECT_TRUE(refused_again.wait_for_end());
  EXPECT_EQ(accepts.count(), 2U);
  EXPECT_EQ(take_syslog_but_shortages(), (SyslogLines{OUT_OF_DESCRIPTORS}));
}

TEST_F(ServerTest, StopsAndStartsAgainWhileItBacksOff)
{
  ASSERT_TRUE(server_start(server_));
  Client client = connect();
  {
    const faults::Accepts failing(ENOMEM);
    ASSERT_TRUE(testhost::spin_until([&] { return failing.count() > 0; }));
    server_stop(server_);
    EXPECT_TRUE(client.was_reset());
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_ERR, "Could not accept new request on metadata server socket: "
                                     "Cannot allocate memory"}}));
  }
  ASSERT_TRUE(server_start(server_));
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
}

/* The descriptor 0 is one like any other. */
TEST_F(ServerTest, ServesAConnectionThatIsStandardInput)
{
  start_with_events();
  const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GT(saved, STDIN_FILENO);
  for (const auto &[request, reply] :
       {std::pair("OPEN\n\n", "FAIL\nBad request, no metadata can be produced."),
        std::pair("OPEN\nevent=1\n\n", "OK")}) {
    Client client = connect();
    ASSERT_EQ(close(STDIN_FILENO), 0);
    testhost::dispatch_ready();
    ASSERT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);

    ASSERT_TRUE(client.send(request));
    EXPECT_EQ(client.wait_for_reply(), reply);
    client.half_close();
    EXPECT_TRUE(client.wait_for_end());
    EXPECT_TRUE(testhost::spin_until([] { return fcntl(STDIN_FILENO, F_GETFD) < 0; }));
    ASSERT_EQ(dup2(saved, STDIN_FILENO), STDIN_FILENO);
  }
  close(saved);
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

TEST_F(ServerTest, HoldsAReferenceToItselfWhileRunning)
{
  ASSERT_TRUE(server_start(server_));
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 2U);
  server_stop(server_);
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
}

TEST_F(ServerTest, StopRemovesTheSocket)
{
  ASSERT_TRUE(server_start(server_));
  ASSERT_TRUE(socket_exists());
  server_stop(server_);
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
  add_factory([&gate](GHashTable *, GError **) {
    gate.enter();
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (int i = 0; i < CLIENTS; i++) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send("OPEN\n\n"));
    testhost::dispatch_ready();
    ASSERT_TRUE(testhost::spin_until([&] { return gate.entered() == std::min(i + 1, HANDLED); }));
  }

  /* The requests being handled go on only once the stop waits for them. */
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

TEST_F(ServerTest, StopDropsThoseWhoHaveNotSentTheirRequest)
{
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;
  for (const char *bytes : {"", "OPEN\n", "OPEN\na=b"}) {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back().send(bytes));
    testhost::dispatch_ready();
  }

  server_stop(server_);
  for (Client &client : clients) {
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(client.received(), "");
  }
  ASSERT_TRUE(server_start(server_));
  EXPECT_EQ(ask("OPEN\n\n"), "FAIL\nBad request, no metadata can be produced.");
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
  const int fd = lowest_free_descriptor();
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

TEST_F(ServerTest, StopForgivesASocketFileThatIsGone)
{
  ASSERT_TRUE(server_start(server_));
  ASSERT_EQ(unlink(socket_path().c_str()), 0);

  server_stop(server_);
}

/* Socket activation. */

class ServerActivationTest : public ServerTest
{
protected:
  void pass_on(const std::vector<int> &fds)
  {
    passed_.emplace(fds);
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

TEST_F(ServerActivationTest, UsesTheSocketThatWasPassedOn)
{
  add_event_factory();
  const int fd = listen_high(socket_path());
  ASSERT_EQ(chmod(socket_path().c_str(), 0600), 0);
  struct stat before = {};
  struct stat after = {};
  ASSERT_EQ(stat(socket_path().c_str(), &before), 0);
  pass_on({fd});

  ASSERT_TRUE(server_start(server_));
  ASSERT_EQ(stat(socket_path().c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode, before.st_mode);
  connect_streaming();
}

TEST_F(ServerActivationTest, RemovesTheSocketThatWasPassedOnAtStop)
{
  pass_on({listen_high(socket_path())});

  ASSERT_TRUE(server_start(server_));
  server_stop(server_);
  EXPECT_FALSE(socket_exists());
  EXPECT_FALSE(is_open(SD_LISTEN_FDS_START));
}

/* The first is closed once for each that matches; only the first of these succeeds. */
TEST_F(ServerActivationTest, RefusesTwoSocketsForItsPath)
{
  const int fd = listen_high(socket_path());
  pass_on({fd, fcntl(fd, F_DUPFD_CLOEXEC, 100)});

  EXPECT_FALSE(server_start(server_));
  const SyslogLines lines = testhost::take_syslog();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].priority, LOG_ERR);
  EXPECT_TRUE(
      lines[0].text.starts_with("More than one file descriptor received for '" + socket_path() + "': "))
      << lines[0].text;
  EXPECT_EQ(lines[1], (SyslogLine{LOG_ERR, "Could not close metadata server socket: Bad file descriptor"}));
  EXPECT_FALSE(is_open(SD_LISTEN_FDS_START));
  EXPECT_TRUE(is_open(SD_LISTEN_FDS_START + 1));
  EXPECT_TRUE(socket_exists());
  EXPECT_EQ(G_OBJECT(server_)->ref_count, 1U);
}

/* A listening socket that was shut down is not only readable. */
TEST_F(ServerActivationTest, LogsAnErrorOfTheListeningSocketNowAndThenAndStays)
{
  pass_on({listen_high(socket_path())});
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

/* Many clients at once, and none of them leaves anything. */
TEST_F(ServerTest, ServesManyClientsThatComeAndGo)
{
  constexpr int ROUNDS = 10;
  constexpr int CLIENTS = 20;
  start_with_events();

  for (int round = 0; round < ROUNDS; round++) {
    std::vector<Client> clients;
    for (int i = 0; i < CLIENTS; i++) {
      clients.push_back(connect());
      ASSERT_TRUE(clients.back().send(i % 4 == 3 ? "OPEN\n\n" : "OPEN\nevent=1\n\n"));
      testhost::dispatch_ready();
    }
    for (int i = 0; i < CLIENTS; i++) {
      if (i % 4 != 2) {
        EXPECT_EQ(clients[i].wait_for_reply(),
                  i % 4 == 3 ? "FAIL\nBad request, no metadata can be produced." : "OK");
      }
      clients[i].hang_up();
    }
  }
}

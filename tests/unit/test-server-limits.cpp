/* SPDX-License-Identifier: MIT */
#include "testserver.h"

#include "clientplaces.h"
#include "descriptorreserve.h"
#include "faults.h"
#include "testsockets.h"

#include <atomic>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using testelements::Behaviour;
using testhost::FreeDescriptors;
using testhost::SyslogLine;
using testhost::SyslogLines;
using testhost::Texts;

using namespace std::string_literals;

namespace
{

constexpr gint64 WARNING_INTERVAL_US = SERVER_SHORTAGE_WARNING_INTERVAL_MS * G_TIME_SPAN_MILLISECOND;

/* How many requests wait while all threads of the pool are busy. */
constexpr int WAITING = SERVER_MAX_WAITING_REQUESTS + 1;

class ServerLimitTest : public ServerTest
{
protected:
  /* Expects that the server closes the next client's connection without a reply. */
  void expect_dropped(const std::string &request = "") const
  {
    Client dropped = connect();

    EXPECT_TRUE(dropped.send(request));
    EXPECT_TRUE(dropped.wait_for_end());
    EXPECT_EQ(dropped.received(), "");
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_WARNING, "Too many unprocessed metadata requests, dropping one."}}));
    const Texts told = testhost::take_debug_lines();
    EXPECT_EQ(told.empty() ? "nothing" : told.back(), "process " + std::to_string(getpid()) + " of user " +
                                                          std::to_string(getuid()) +
                                                          ": connection closed: too many requests wait");
  }

  static void expect_refused(Client *client)
  {
    EXPECT_EQ(client->wait_for_reply(), NOT_CREATED);
    EXPECT_TRUE(client->wait_for_end());
  }
};

/* Leaves the process no descriptor to open while this object lives. */
class NoMoreDescriptors
{
public:
  NoMoreDescriptors()
  {
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    limit = saved_;
    /* Fill the gaps below the limit. */
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

const SyslogLine OUT_OF_DESCRIPTORS = {
    LOG_ERR, "Could not accept new request on metadata server socket: Too many open files"};

struct AcceptFailure {
  const char *name;
  int error_number;
  unsigned calls; /* of accept4() in each dispatch of the watch */
};

std::ostream &
operator<<(std::ostream &stream, const AcceptFailure &failure)
{
  return stream << failure.name;
}

class ServerAcceptTest : public ServerLimitTest, public testing::WithParamInterface<AcceptFailure>
{
};

} // namespace

/* Requests that wait. */

TEST_F(ServerLimitTest, HandlesTwoRequestsAtOnceAndLimitsTheWaitingOnes)
{
  Gate gate;
  add_gated_factory(gate);
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients;

  for (int i = 0; i < HANDLED + WAITING; i++) {
    clients.push_back(connect_and_send("OPEN\n\n"));
    ASSERT_TRUE(testhost::spin_until([&] { return gate.entered() == std::min(i + 1, HANDLED); }));
  }
  EXPECT_EQ(testhost::syslog_size(), 0U);
  expect_dropped("OPEN\n\n");
  expect_dropped("OPEN\n\n");
  EXPECT_EQ(gate.entered(), HANDLED);

  gate.open();
  expect_no_metadata(&clients);
}

TEST_F(ServerLimitTest, CountsUnfinishedRequestsAsWaiting)
{
  constexpr int UNFINISHED = 10;
  Gate gate;
  add_gated_factory(gate);
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> clients = enter(gate);
  std::vector<Client> unfinished = connect_unfinished(UNFINISHED);
  for (int i = 0; i < WAITING - UNFINISHED; i++) {
    clients.push_back(connect_and_send("OPEN\n\n"));
  }
  EXPECT_EQ(testhost::syslog_size(), 0U);
  expect_dropped();

  /* A hang-up makes room for one request. */
  unfinished.pop_back();
  testhost::dispatch_ready();
  clients.push_back(connect_and_send(""));
  expect_dropped();

  ASSERT_TRUE(clients.back().send("OPEN\n\n"));
  gate.open();
  expect_no_metadata(&clients);
}

TEST_F(ServerLimitTest, LimitsTheUnfinishedRequestsOfAUser)
{
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> unfinished = connect_unfinished(SERVER_MAX_UNFINISHED_REQUESTS);
  EXPECT_EQ(testhost::syslog_size(), 0U);
  expect_dropped();

  /* A complete request and a hang-up each make room for one. */
  ASSERT_TRUE(unfinished[1].send("\n"));
  EXPECT_EQ(unfinished[1].wait_for_reply(), NO_METADATA);
  expect_serving();
  const Client another = connect_and_send("");
  expect_dropped();
  unfinished[0].hang_up();
  testhost::dispatch_ready();
  expect_serving();
}

TEST_F(ServerTest, ServesOthersWhileManyRequestsAreUnfinished)
{
  start_with_events();
  std::vector<Client> unfinished = connect_unfinished(SERVER_MAX_UNFINISHED_REQUESTS - 1, "OPEN\nevent");

  connect_streaming();
  for (gsize i = 1; i < unfinished.size(); i += 2) {
    ASSERT_TRUE(unfinished[i].send("=0\n\n"));
    EXPECT_EQ(unfinished[i].wait_for_reply(), NO_METADATA);
  }
}

/* One of the two threads stays blocked, so that the other one handles all requests. */
TEST_F(ServerTest, HandlesRequestsInTheOrderOfTheirCompletion)
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
  std::vector<Client> handled = enter(gate);
  std::vector<Client> clients;
  for (int i = 0; i < CLIENTS; i++) {
    clients.push_back(connect_and_send("OPEN\n"));
  }
  for (int i = CLIENTS - 1; i >= 0; i--) {
    expected.push_back(std::to_string(i));
    ASSERT_TRUE(clients[i].send("number=" + expected.back() + "\n\n"));
    testhost::dispatch_ready();
  }

  gate.let_one_in();
  expect_no_metadata(&clients);
  EXPECT_EQ(order, expected);
  gate.open();
  expect_no_metadata(&handled);
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

TEST_F(ServerTest, LogsAFailureToCloseAnAcceptedSocket)
{
  ASSERT_TRUE(server_start(server_));
  faults::fail_next(faults::Call::THREAD_POOL_PUSH);
  Client client = connect();
  faults::fail_close_of(testsockets::lowest_free_descriptor());

  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_TRUE(client.wait_for_end());
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Could not push metadata client request: No more threads."},
                         {LOG_ERR, "Could not close accepted metadata server socket: Input/output error"}}));
}

/* The places of streams. */

/* All places but one are taken. */
TEST_F(ServerTest, HoldsAPlaceForEachStreamAndRefusesAClientWithoutOne)
{
  std::vector<ClientPlace *> others;
  for (gsize i = 0; i < CLIENT_PLACES - CLIENT_PLACES_KEPT - 1; i++) {
    others.push_back(client_place_new(getuid()));
    ASSERT_NE(others.back(), nullptr);
  }
  start_with_events();
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(ask("OPEN\nevent=0\n\n"), NO_METADATA);
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
  EXPECT_EQ(ask("OPEN\nevent=1\n\n"), NOT_PRODUCED);
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

/* The reserve of descriptors. */

/* Tries each number of free descriptors up to the first one that is enough. */
TEST_F(ServerTest, CallsNoFactoryUnlessAPipelinesDescriptorsAreFree)
{
  constexpr guint ENOUGH = DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 1;
  std::atomic<unsigned> called = 0;
  add_factory([&](GHashTable *, GError **) {
    called++;
    return nullptr;
  });
  ASSERT_TRUE(server_start(server_));

  for (guint count = 0; count <= ENOUGH; count++) {
    Client client = connect();
    ASSERT_TRUE(client.send("OPEN\n\nSYNC\n"));
    const FreeDescriptors free(count);
    EXPECT_EQ(client.wait_for_reply(), count < ENOUGH ? NOT_CREATED : NO_METADATA);
    EXPECT_TRUE(client.wait_for_end()) << count;
    EXPECT_EQ(take_syslog_but_shortages(), SyslogLines(count == 0 ? 1 : 0, OUT_OF_DESCRIPTORS)) << count;
  }
  EXPECT_EQ(called, 1U);
}

TEST_F(ServerTest, StreamsWithAPipelinesDescriptorsAndNoMore)
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

TEST_F(ServerTest, ReleasesTheReservationOfEachFailedRequest)
{
  start_with_events();
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + SERVER_PIPELINE_DESCRIPTORS + 8);

  for (int i = 0; i < 8; i++) {
    expect_serving();
    EXPECT_TRUE(testhost::spin_until([] { return can_reserve(SERVER_PIPELINE_DESCRIPTORS + 4); }));
    const testelements::WithoutFactory without("gdppay");
    EXPECT_EQ(ask("OPEN\nevent=1\n\n"), NOT_PRODUCED);
    EXPECT_TRUE(testhost::spin_until([] { return can_reserve(SERVER_PIPELINE_DESCRIPTORS + 4); }));
  }
  for (const SyslogLine &line : testhost::take_syslog()) {
    EXPECT_EQ(line, (SyslogLine{LOG_ERR, "Could not create gdppay."}));
  }
}

/* Both request threads are busy, and the waiting clients send nothing. The server waits for neither. */
TEST_F(ServerLimitTest, RefusesAConnectionAtOnceWhenOnlyTheReserveIsLeft)
{
  constexpr int ACCEPTED = 3;
  Gate gate;
  add_gated_factory(gate);
  ASSERT_TRUE(server_start(server_));
  std::vector<Client> handled = enter(gate);
  std::vector<Client> clients;
  for (int i = 0; i < 2 * ACCEPTED; i++) {
    clients.push_back(connect());
  }
  const FreeDescriptors free(DESCRIPTOR_RESERVE_SIZE + HANDLED * SERVER_PIPELINE_DESCRIPTORS + ACCEPTED);

  for (int i = ACCEPTED; i < 2 * ACCEPTED; i++) {
    expect_refused(&clients[i]);
  }
  EXPECT_EQ(take_syslog_but_shortages(), SyslogLines());
  EXPECT_TRUE(can_reserve(0));
  EXPECT_FALSE(can_reserve(1));
  gate.open();
  for (int i = 0; i < ACCEPTED; i++) {
    ASSERT_TRUE(clients[i].send("OPEN\n\n"));
    EXPECT_EQ(clients[i].wait_for_reply(), NO_METADATA);
  }
}

TEST_F(ServerTest, WarnsAboutAShortageAtMostOncePerInterval)
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

/* The accept watch and its back-off. */

TEST_F(ServerLimitTest, RefusesAConnectionWithoutADescriptor)
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

    expect_refused(&client);
    EXPECT_FALSE(testhost::spin_until([] { return testhost::syslog_size() > 2; }, SHORT_US));
    EXPECT_EQ(take_syslog_but_shortages(), (SyslogLines{OUT_OF_DESCRIPTORS}));
  }
  expect_serving();
}

TEST_F(ServerLimitTest, RecoversAfterManyConnectionsWithoutDescriptors)
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
      expect_refused(&client);
    }
  }
  EXPECT_EQ(take_syslog_but_shortages(), SyslogLines(CONNECTIONS, OUT_OF_DESCRIPTORS));
  expect_serving();
}

TEST_P(ServerAcceptTest, BacksOffAndServesTheConnectionLater)
{
  const auto &[name, error_number, calls] = GetParam();
  const SyslogLine line = {LOG_ERR, "Could not accept new request on metadata server socket: "s +
                                        g_strerror(error_number)};
  ASSERT_TRUE(server_start(server_));
  Client client = connect();
  {
    const gint64 begin_us = g_get_monotonic_time();
    const faults::Accepts failing(error_number);
    EXPECT_TRUE(testhost::spin_until([&, calls = calls] { return failing.count() >= 3 * calls; }));

    const gint64 wake_ups = failing.count() / calls;
    EXPECT_LE(wake_ups, 1 + (g_get_monotonic_time() - begin_us) / BACKOFF_US);
    EXPECT_EQ(failing.count() % calls, 0U);
    EXPECT_EQ(testhost::take_syslog(), SyslogLines(wake_ups, line));
  }
  ASSERT_TRUE(client.send("OPEN\n\n"));
  EXPECT_EQ(client.wait_for_reply(), NO_METADATA);
}

/* Without descriptors the server calls accept4() again to refuse the connection. */
INSTANTIATE_TEST_SUITE_P(Errors, ServerAcceptTest,
                         testing::Values(AcceptFailure{"NoMemory", ENOMEM, 1},
                                         AcceptFailure{"NoBuffers", ENOBUFS, 1},
                                         AcceptFailure{"NotPermitted", EPERM, 1},
                                         AcceptFailure{"NoDescriptorInTheProcess", EMFILE, 2},
                                         AcceptFailure{"NoDescriptorInTheSystem", ENFILE, 2}),
                         [](const auto &failure) { return std::string(failure.param.name); });

/* Another thread opens a descriptor before the server opens its spare one again. */
TEST_F(ServerLimitTest, BacksOffWithoutASpareDescriptorAndOpensAnotherOneLater)
{
  ASSERT_TRUE(server_start(server_));
  Client refused = connect();
  {
    const NoMoreDescriptors none;
    faults::fail_next(faults::Call::OPEN);
    expect_refused(&refused);
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
    expect_refused(&waiting);
  }
  take_syslog_but_shortages();

  expect_serving();
  Client refused_again = connect();
  const NoMoreDescriptors none;
  const faults::Accepts accepts(0);
  expect_refused(&refused_again);
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
  expect_serving();
}

TEST_F(ServerTest, ServesAConnectionWithDescriptorZero)
{
  start_with_events();
  const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GT(saved, STDIN_FILENO);
  for (const auto &[request, reply] :
       {std::pair("OPEN\n\n", NO_METADATA), std::pair("OPEN\nevent=1\n\n", "OK")}) {
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

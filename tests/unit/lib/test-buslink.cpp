/* SPDX-License-Identifier: MIT */
#include "buslink.h"

#include "fakereceiver.h"
#include "testlibrary.h"
#include "timers.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using testlibrary::describe;
using testlibrary::failure;
using testlibrary::FakeReceiver;
using testlibrary::on_worker;
using Lengths = std::vector<guint>;

namespace
{

const std::string SYSTEM_BUS;

const std::string ABSENT =
    "vanished: " + failure(TESSARD_ERROR_NO_RECEIVER,
                           "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner.");
const std::string CLOSED = "vanished: " + failure(TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.");
const std::string NO_BUS =
    "vanished: " + failure(TESSARD_ERROR_NO_BUS,
                           "Could not connect to the bus: Could not connect: No such file or directory.");
const std::string NO_REPLY =
    "vanished: " + failure(TESSARD_ERROR_NO_BUS, "Could not connect to the bus: No reply in time.");

class Client : public BusLink::Client
{
public:
  explicit Client(testlibrary::Told *told) : told_(told)
  {
  }

  virtual ~Client() = default;

  void bus_connected(GDBusConnection *connection) override
  {
    EXPECT_FALSE(g_dbus_connection_get_exit_on_close(connection));
    told_->add("connected");
  }

  void receiver_appeared(GDBusConnection *connection, const gchar *owner) override
  {
    EXPECT_TRUE(g_dbus_is_unique_name(owner));
    EXPECT_STRNE(owner, g_dbus_connection_get_unique_name(connection));
    told_->add("appeared");
  }

  void receiver_vanished(const GError *reason) override
  {
    told_->add("vanished: " + describe(reason));
  }

private:
  testlibrary::Told *told_;
};

/* Accepts connections, and never sends anything. */
class SilentSocket
{
public:
  explicit SilentSocket(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 4), 0);
  }

  ~SilentSocket()
  {
    close(fd_);
  }

  SilentSocket(const SilentSocket &) = delete;
  SilentSocket &operator=(const SilentSocket &) = delete;

private:
  int fd_;
};

class BusLinkTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    timers::take_begun();
  }

  void TearDown() override
  {
    link_.reset();
    told_.expect({});
    receiver_.reset();
    EXPECT_EQ(timers::count_set(), 0U);
    BusFixture::TearDown();
  }

  void connect(const std::string &address)
  {
    link_.emplace<std::string, BusLink::Client *>(address, &client_);
  }

  std::optional<FakeReceiver> receiver_;
  testlibrary::Told told_;
  Client client_{&told_};
  testlibrary::OnWorker<BusLink> link_;
};

} // namespace

TEST(RetryDelayTest, DoublesUpToItsLimit)
{
  RetryDelay delay;
  guint expected = TESSARD_FIRST_RETRY_MS;

  for (; expected < TESSARD_LAST_RETRY_MS; expected *= 2) {
    EXPECT_EQ(delay.next(), expected);
  }
  EXPECT_EQ(delay.next(), guint{TESSARD_LAST_RETRY_MS});
  EXPECT_EQ(delay.next(), guint{TESSARD_LAST_RETRY_MS});
  delay.reset();
  EXPECT_EQ(delay.next(), guint{TESSARD_FIRST_RETRY_MS});
}

TEST_F(BusLinkTest, TellsThatTheReceiverIsThere)
{
  receiver_.emplace();
  connect(SYSTEM_BUS);
  told_.expect({"connected", "appeared"});
  EXPECT_EQ(timers::count_set(), 0U);
}

TEST_F(BusLinkTest, TellsThatTheReceiverIsNotThere)
{
  connect(SYSTEM_BUS);
  told_.expect({"connected", ABSENT});
}

TEST_F(BusLinkTest, FollowsTheReceiver)
{
  connect(SYSTEM_BUS);
  told_.expect({"connected", ABSENT});
  receiver_.emplace();
  told_.expect({"appeared"});
  receiver_->come_back_at_once();
  told_.expect({ABSENT, "appeared"});
  receiver_->leave();
  told_.expect({ABSENT});
  receiver_->come_back();
  told_.expect({"appeared"});
}

TEST_F(BusLinkTest, ConnectsToAnotherBusByItsAddress)
{
  connect(g_getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  told_.expect({"connected", ABSENT});
}

TEST_F(BusLinkTest, AddressThatIsNoneFails)
{
  connect("nonsense");
  told_.expect({"vanished: " + failure(TESSARD_ERROR_NO_BUS,
                                       "Could not connect to the bus: Address element “nonsense” does not "
                                       "contain a colon (:).")});
}

TEST_F(BusLinkTest, TriesAgainAfterLongerAndLongerTimes)
{
  Lengths expected = {TESSARD_CONNECT_MS, TESSARD_FIRST_RETRY_MS};

  bus_.reset();
  connect(SYSTEM_BUS);
  told_.expect({NO_BUS});
  EXPECT_EQ(timers::take_begun(), expected);
  while (expected[1] < TESSARD_LAST_RETRY_MS) {
    EXPECT_TRUE(timers::fire(expected[1]));
    told_.expect({NO_BUS});
    expected[1] = std::min<guint>(expected[1] * 2, TESSARD_LAST_RETRY_MS);
    EXPECT_EQ(timers::take_begun(), expected);
  }
  EXPECT_EQ(timers::count_set(), 1U);
}

TEST_F(BusLinkTest, ConnectsAgainToABusThatRestarts)
{
  receiver_.emplace();
  connect(SYSTEM_BUS);
  told_.expect({"connected", "appeared"});
  for (guint round = 0; round < 2; round++) {
    timers::take_begun();
    bus_.reset();
    told_.expect({CLOSED});
    receiver_.reset();
    EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
    told_.expect({NO_BUS});
    EXPECT_EQ(timers::take_begun(),
              (Lengths{TESSARD_FIRST_RETRY_MS, TESSARD_CONNECT_MS, 2 * TESSARD_FIRST_RETRY_MS}));
    bus_.emplace();
    receiver_.emplace();
    EXPECT_TRUE(timers::fire(2 * TESSARD_FIRST_RETRY_MS));
    told_.expect({"connected", "appeared"});
  }
}

TEST_F(BusLinkTest, GivesUpABusThatDoesNotReply)
{
  const SilentSocket silent(path("silent"));

  connect("unix:path=" + path("silent"));
  EXPECT_TRUE(timers::fire(TESSARD_CONNECT_MS));
  told_.expect({NO_REPLY});
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  EXPECT_TRUE(timers::fire(TESSARD_CONNECT_MS));
  told_.expect({NO_REPLY});
  EXPECT_EQ(timers::take_begun(), (Lengths{TESSARD_CONNECT_MS, TESSARD_FIRST_RETRY_MS, TESSARD_CONNECT_MS,
                                           2 * TESSARD_FIRST_RETRY_MS}));
  link_.reset();
}

TEST_F(BusLinkTest, EndsWhileItConnects)
{
  const SilentSocket silent(path("silent"));

  connect("unix:path=" + path("silent"));
  link_.reset();
}

/* The connection is there, but the worker has not yet been told. */
TEST_F(BusLinkTest, EndsBeforeItTakesTheConnection)
{
  const testbus::Peer peer;
  const gsize before = peer.count_names();

  on_worker([&] {
    const BusLink link(SYSTEM_BUS, &client_);
    const gint64 end_us = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;
    while (peer.count_names() == before && g_get_monotonic_time() < end_us) {
    }
    EXPECT_EQ(peer.count_names(), before + 1);
  });
  EXPECT_TRUE(testhost::spin_until([&] { return peer.count_names() == before; }));
}

TEST_F(BusLinkTest, LeavesTheBusAtItsEnd)
{
  const testbus::Peer peer;
  const gsize before = peer.count_names();

  connect(SYSTEM_BUS);
  told_.expect({"connected", ABSENT});
  EXPECT_EQ(peer.count_names(), before + 1);
  link_.reset();
  EXPECT_TRUE(testhost::spin_until([&] { return peer.count_names() == before; }));
}

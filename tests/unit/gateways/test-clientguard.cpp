/* SPDX-License-Identifier: MIT */
#include "clientguard.h"

#include "rtsplimits.h"
#include "testclient.h"
#include "testclock.h"
#include "testhost.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

const std::string OPTIONS = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
const std::string BEGIN = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nA: ";
const std::string END = "\r\n\r\n";

constexpr gint64 IDLE_MS = RTSP_IDLE_SECONDS * 1000;

class RtspPeer : public Client
{
public:
  using Client::Client;

  /* Sends a request and waits for its reply. */
  bool is_served()
  {
    const gsize before = received().size();
    return send(OPTIONS) && waits_for_reply(before);
  }

  bool waits_for_reply(gsize received_before)
  {
    return testhost::spin_until(
               [&] { return ended() || received().find(END, received_before) != std::string::npos; }) &&
           !ended();
  }
};

/* The engine runs in the main context. */
class ClientGuardTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    testclock::reset();
    server_ = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server_, "127.0.0.1");
    gst_rtsp_server_set_service(server_, "0");
    g_autoptr(GstRTSPThreadPool) threads = gst_rtsp_server_get_thread_pool(server_);
    gst_rtsp_thread_pool_set_max_threads(threads, 0);
    sessions_ = gst_rtsp_server_get_session_pool(server_);
    listener_ = gst_rtsp_server_attach(server_, nullptr);
    g_signal_connect(server_, "client-connected", G_CALLBACK(on_connected), this);
    guard_ = std::make_unique<rtsp::ClientGuard>(server_);
  }

  void TearDown() override
  {
    EXPECT_TRUE(testhost::spin_until([&] { return count_clients() == 0; }));
    guard_.reset();
    g_source_remove(listener_);
    g_object_unref(sessions_);
    g_object_unref(server_);
    testclock::reset();
    testhost::Fixture::TearDown();
  }

  static void on_connected(GstRTSPServer *server, GstRTSPClient *client, gpointer user_data)
  {
    auto *self = static_cast<ClientGuardTest *>(user_data);
    self->last_client_ = client;
    self->connected_++;
  }

  /* A connection that the server has accepted. */
  RtspPeer connect()
  {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<guint16>(gst_rtsp_server_get_bound_port(server_)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const guint before = connected_;
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << g_strerror(errno);
    EXPECT_TRUE(testhost::spin_until([&] { return connected_ > before; }));
    return RtspPeer(fd);
  }

  gsize count_clients()
  {
    GList *clients = gst_rtsp_server_client_filter(server_, nullptr, nullptr);
    const gsize count = g_list_length(clients);
    g_list_free_full(clients, g_object_unref);
    return count;
  }

  /* Runs the main context until the guard has checked all connections. */
  void wait_for_check()
  {
    guint ticks = 0;
    const guint timer = g_timeout_add(
        RTSP_CHECK_MS,
        [](gpointer count) -> gboolean {
          ++*static_cast<guint *>(count);
          return G_SOURCE_CONTINUE;
        },
        &ticks);
    EXPECT_TRUE(testhost::spin_until([&] { return ticks >= 2; }));
    g_source_remove(timer);
  }

  /* Begins a session on the connection that was made last. */
  GstRTSPSession *begin_session()
  {
    GstRTSPSession *session = gst_rtsp_session_pool_create(sessions_);
    g_signal_emit_by_name(last_client_, "new-session", session);
    g_object_unref(session);
    return session;
  }

  GstRTSPServer *server_ = nullptr;
  GstRTSPSessionPool *sessions_ = nullptr;
  GstRTSPClient *last_client_ = nullptr;
  guint connected_ = 0;
  guint listener_ = 0;
  std::unique_ptr<rtsp::ClientGuard> guard_;
};

} // namespace

TEST_F(ClientGuardTest, ServesClients)
{
  RtspPeer peer = connect();
  EXPECT_TRUE(peer.is_served());
  EXPECT_TRUE(peer.is_served());
}

TEST_F(ClientGuardTest, ClosesAnIdleConnection)
{
  testclock::stop();
  RtspPeer peer = connect();
  EXPECT_TRUE(peer.is_served());
  testclock::advance_ms(IDLE_MS);
  wait_for_check();
  EXPECT_TRUE(peer.is_served());

  testclock::advance_ms(1);
  EXPECT_TRUE(peer.wait_for_end());
}

TEST_F(ClientGuardTest, KeepsAConnectionWithASession)
{
  testclock::stop();
  RtspPeer peer = connect();
  EXPECT_TRUE(peer.is_served());
  GstRTSPSession *session = begin_session();
  testclock::advance_ms(2 * IDLE_MS);
  wait_for_check();
  EXPECT_TRUE(peer.is_served());

  gst_rtsp_session_pool_remove(sessions_, session);
  testclock::advance_ms(IDLE_MS);
  wait_for_check();
  EXPECT_TRUE(peer.is_served());
  testclock::advance_ms(1);
  EXPECT_TRUE(peer.wait_for_end());
}

TEST_F(ClientGuardTest, RemovesTheSessionsOfAConnectionThatCloses)
{
  {
    RtspPeer peer = connect();
    EXPECT_TRUE(peer.is_served());
    begin_session();
    begin_session();
    EXPECT_EQ(gst_rtsp_session_pool_get_n_sessions(sessions_), 2U);
  }
  EXPECT_TRUE(testhost::spin_until([&] { return gst_rtsp_session_pool_get_n_sessions(sessions_) == 0; }));
}

TEST_F(ClientGuardTest, ClosesConnectionsThatAreTooMany)
{
  std::vector<RtspPeer> peers;
  for (int i = 0; i < RTSP_CONNECTIONS_MAX; i++) {
    peers.push_back(connect());
  }
  EXPECT_TRUE(connect().wait_for_end());
  EXPECT_TRUE(peers.front().is_served());
  EXPECT_TRUE(peers.back().is_served());

  peers.pop_back();
  EXPECT_TRUE(testhost::spin_until([&] { return count_clients() < RTSP_CONNECTIONS_MAX; }));
  peers.push_back(connect());
  EXPECT_TRUE(peers.back().is_served());
}

TEST_F(ClientGuardTest, BoundsAnUnfinishedRequest)
{
  RtspPeer peer = connect();
  EXPECT_TRUE(peer.is_served());
  const gsize before = peer.received().size();
  EXPECT_TRUE(peer.send(BEGIN + std::string(RTSP_UNFINISHED_BYTES_MAX - BEGIN.size(), 'a')));
  wait_for_check();
  EXPECT_TRUE(peer.send(END));
  EXPECT_TRUE(peer.waits_for_reply(before));

  EXPECT_TRUE(peer.send(BEGIN + std::string(RTSP_UNFINISHED_BYTES_MAX + 1 - BEGIN.size(), 'a')));
  EXPECT_TRUE(peer.wait_for_end());
}

TEST_F(ClientGuardTest, BoundsAFirstRequest)
{
  RtspPeer peer = connect();
  EXPECT_TRUE(peer.send(std::string(RTSP_UNFINISHED_BYTES_MAX + 1, '\n')));
  EXPECT_TRUE(peer.wait_for_end());
}

TEST_F(ClientGuardTest, CountsFromTheLastRequest)
{
  RtspPeer peer = connect();
  const std::string request = BEGIN + std::string(RTSP_UNFINISHED_BYTES_MAX / 2, 'a') + END;
  for (int i = 0; i < 6; i++) {
    const gsize before = peer.received().size();
    EXPECT_TRUE(peer.send(request));
    EXPECT_TRUE(peer.waits_for_reply(before));
    wait_for_check();
  }
  EXPECT_TRUE(peer.is_served());
}

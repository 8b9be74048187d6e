/* SPDX-License-Identifier: MIT */
#include "testexternalsocket.h"

#include "logtext.h"

#include <array>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>

using testhost::SyslogLines;
using testhost::Texts;
using teststream::Carrier;
using teststream::message;
using teststream::Mode;
using teststream::Producer;

namespace
{

/* GLib's own message when it makes an error of EBADF. */
const Texts BAD_DESCRIPTOR = {"GLib: Invalid file descriptor."};

const SyslogLines CLOSE_FAILURE = {
    {LOG_ERR, "Failed to close channel: Bad file descriptor: Bad file descriptor"}};

/* The other end of the descriptor under test, closed with this object. */
class Peer
{
public:
  Peer() = default;

  ~Peer()
  {
    if (fd >= 0) {
      close(fd);
    }
  }

  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  int fd = -1;
};

int
open_pair(int type, Peer *peer)
{
  std::array<int, 2> ends = {-1, -1};

  EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
  peer->fd = ends[1];
  return ends[0];
}

/* A listening socket with an address that the kernel chooses. */
int
open_listening_socket(sockaddr_un *address, socklen_t *size)
{
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

  *address = {AF_UNIX, {}};
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(address), sizeof address->sun_family), 0);
  EXPECT_EQ(listen(fd, 1), 0);
  *size = sizeof *address;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(address), size), 0);
  return fd;
}

struct Descriptor {
  const char *name;
  int (*open)(Peer *peer);
};

/* A descriptor that cannot be a stream, and the reason in the warning. */
struct Refused : Descriptor {
  std::string reason;
};

constexpr const char *NOT_READABLE = "it is not open for reading";
constexpr const char *A_DEVICE = "it is a device";
constexpr const char *OF_NO_KIND = "it is neither a pipe nor a socket nor a file";

const std::vector<Refused> REFUSED = {
    {{"NullDevice", [](Peer *) { return open("/dev/null", O_RDONLY | O_CLOEXEC); }}, A_DEVICE},
    {{"ZeroDevice", [](Peer *) { return open("/dev/zero", O_RDWR | O_CLOEXEC); }}, A_DEVICE},
    {{"Terminal", [](Peer *) { return open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC); }}, A_DEVICE},
    {{"PathOfFolder", [](Peer *) { return open("/", O_PATH | O_CLOEXEC); }}, NOT_READABLE},
    {{"PathOfFile", [](Peer *) { return open("/proc/self/exe", O_PATH | O_CLOEXEC); }}, NOT_READABLE},
    {{"PathOfDevice", [](Peer *) { return open("/dev/zero", O_PATH | O_CLOEXEC); }}, NOT_READABLE},
    {{"WriteOnlyDevice", [](Peer *) { return open("/dev/null", O_WRONLY | O_CLOEXEC); }}, NOT_READABLE},
    {{"WriteOnlyFile",
      [](Peer *peer) {
        peer->fd = open_empty_file();
        return teststream::reopen(peer->fd, O_WRONLY);
      }},
     NOT_READABLE},
    {{"WriteEndOfPipe",
      [](Peer *peer) {
        std::array<int, 2> ends = {-1, -1};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        peer->fd = ends[0];
        return ends[1];
      }},
     NOT_READABLE},
    {{"EventCounter", [](Peer *) { return eventfd(G_MAXUINT32, EFD_SEMAPHORE | EFD_CLOEXEC); }}, OF_NO_KIND},
    {{"Timer",
      [](Peer *) {
        const itimerspec always = {{0, 1}, {0, 1}};
        const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        EXPECT_EQ(timerfd_settime(fd, 0, &always, nullptr), 0);
        return fd;
      }},
     OF_NO_KIND},
    {{"Signals",
      [](Peer *) {
        sigset_t none;
        sigemptyset(&none);
        return signalfd(-1, &none, SFD_CLOEXEC);
      }},
     OF_NO_KIND},
    {{"Epoll", [](Peer *) { return epoll_create1(EPOLL_CLOEXEC); }}, OF_NO_KIND},
    {{"Inotify", [](Peer *) { return inotify_init1(IN_CLOEXEC); }}, OF_NO_KIND},
    {{"ClosedDescriptor",
      [](Peer *) {
        const int fd = open_empty_file();
        close(fd);
        return fd;
      }},
     "Bad file descriptor"},
};

/* A descriptor that is readable but no producer's stream, its events and its lines in the log. */
struct Odd : Descriptor {
  Texts events;
  SyslogLines lines;
};

const std::vector<Odd> ODD = {
    {{"Folder", [](Peer *) { return open("/", O_RDONLY | O_CLOEXEC); }},
     ENDED,
     failure("length", "Is a directory")},
    {{"EmptyFile", [](Peer *) { return open_empty_file(); }}, ENDED, {}},
    {{"SparseFile", [](Peer *) { return open_empty_file(100 * 1000); }}, ENDED, {}},
    {{"KernelsText", [](Peer *) { return open("/proc/sys/kernel/ostype", O_RDONLY | O_CLOEXEC); }},
     ENDED,
     failure("data", "Message too long")},
    {{"KernelsMemory", [](Peer *) { return open("/proc/self/mem", O_RDONLY | O_CLOEXEC); }},
     ENDED,
     failure("length", "Input/output error")},
    {{"KernelsNamespace", [](Peer *) { return open("/proc/self/ns/uts", O_RDONLY | O_CLOEXEC); }},
     ENDED,
     failure("length", "Invalid argument")},
    {{"ListeningSocket",
      [](Peer *) {
        sockaddr_un address;
        socklen_t size = 0;
        return open_listening_socket(&address, &size);
      }},
     NOTHING,
     {}},
    {{"ListeningSocketWithAPeer",
      [](Peer *peer) {
        sockaddr_un address;
        socklen_t size = 0;
        const int fd = open_listening_socket(&address, &size);
        peer->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(peer->fd, reinterpret_cast<sockaddr *>(&address), size), 0);
        return fd;
      }},
     ENDED,
     failure("length", "Invalid argument")},
    {{"UnconnectedSocket", [](Peer *) { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }}, ENDED, {}},
    {{"UnboundDatagramSocket", [](Peer *) { return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); }},
     NOTHING,
     {}},
    {{"SocketWithAnEmptyDatagram",
      [](Peer *peer) {
        const int fd = open_pair(SOCK_DGRAM, peer);
        EXPECT_EQ(send(peer->fd, nullptr, 0, 0), 0);
        return fd;
      }},
     ENDED,
     {}},
    {{"SocketWithAnUrgentByte",
      [](Peer *peer) {
        const int fd = open_pair(SOCK_STREAM, peer);
        EXPECT_EQ(send(peer->fd, "x", 1, MSG_OOB), 1);
        return fd;
      }},
     NOTHING,
     {}},
    {{"SocketWithAnError",
      [](Peer *peer) {
        const int fd = open_pair(SOCK_STREAM, peer);
        /* A peer that closes with unread data resets the connection. */
        EXPECT_EQ(write(fd, "unread", 6), 6);
        close(std::exchange(peer->fd, -1));
        return fd;
      }},
     ENDED,
     failure("length", "Connection reset by peer")},
    {{"SocketShutDown",
      [](Peer *peer) {
        const int fd = open_pair(SOCK_STREAM, peer);
        EXPECT_EQ(shutdown(fd, SHUT_RD), 0);
        return fd;
      }},
     ENDED,
     {}},
};

class RefusedTest : public ExternalSourceSocketTest, public testing::WithParamInterface<Refused>
{
};

class OddTest : public ExternalSourceSocketTest, public testing::WithParamInterface<Odd>
{
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Descriptors, RefusedTest, testing::ValuesIn(REFUSED),
                         [](const auto &refused) { return refused.param.name; });

TEST_P(RefusedTest, IsClosedWithOneWarning)
{
  Peer peer;
  const int fd = GetParam().open(&peer);
  ASSERT_GE(fd, 0);
  Reader reader(fd);

  EXPECT_EQ(reader.socket, nullptr);
  EXPECT_EQ(reader.events, (Texts{"released"}));
  EXPECT_LT(fcntl(fd, F_GETFD), 0);
  EXPECT_EQ(
      testhost::take_syslog(),
      (SyslogLines{{LOG_WARNING, R"(closed the stream of producer "camera 1": )" + GetParam().reason}}));
  expect_idle();
}

TEST_F(ExternalSourceSocketTest, RefusesABlockDevice)
{
  const int fd = open("/dev/loop0", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    GTEST_SKIP() << "no block device that may be opened";
  }
  Reader reader(fd);

  EXPECT_EQ(reader.socket, nullptr);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, R"(closed the stream of producer "camera 1": it is a device)"}}));
}

TEST_F(ExternalSourceSocketTest, LogsTheNameOfARefusedStreamOnOneShortLine)
{
  const std::string long_name(LOG_TEXT_MAX_BYTES + 3, 'x');
  for (const auto &[name, logged] : {std::pair(long_name, long_name.substr(3) + "... (3 bytes left out)"),
                                     std::pair(std::string("two\nlines"), std::string("two\\x0alines"))}) {
    Reader reader(open("/dev/null", O_RDONLY | O_CLOEXEC), name.c_str());

    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, R"(closed the stream of producer ")" +
                                                                      logged + R"(": it is a device)"}}));
  }
}

TEST_F(ExternalSourceSocketTest, NeedsNoReleaseFunctionForARefusedStream)
{
  const Account client;

  EXPECT_EQ(external_source_socket_new(
                open("/dev/null", O_RDONLY | O_CLOEXEC), NAME, client.account,
                [](auto *, guint8 *, gsize, gpointer) {}, [](auto *, gpointer) {}, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(testhost::take_syslog().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Descriptors, OddTest, testing::ValuesIn(ODD),
                         [](const auto &odd) { return odd.param.name; });

TEST_P(OddTest, EndsOrLeavesTheMainLoopIdle)
{
  Peer peer;
  const int fd = GetParam().open(&peer);
  ASSERT_GE(fd, 0);
  Reader reader(fd);

  EXPECT_EQ(reader.take_events(), GetParam().events);
  EXPECT_EQ(testhost::take_syslog(), GetParam().lines);
  expect_idle();
}

TEST_F(ExternalSourceSocketTest, ReadsAFifoThatIsAlsoOpenForWriting)
{
  const Texts payloads = {"1", std::string(200 * 1000, 'x'), "", "2"};
  std::string bytes;
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  const int fd = teststream::reopen(producer.consumer_fd, O_RDWR);
  const int shared_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  close(producer.consumer_fd);
  Reader reader(fd);

  for (const std::string &payload : payloads) {
    bytes += message(payload);
  }
  for (gsize sent = 0; sent < bytes.size();) {
    sent += producer.send_some(bytes.data() + sent, bytes.size() - sent);
    testhost::dispatch_ready();
  }
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), frames({payloads[0], payloads[1], payloads[3]}));
  EXPECT_EQ(fcntl(shared_fd, F_GETFL) & O_NONBLOCK, 0);
  close(shared_fd);
  expect_idle();
}

TEST_F(ExternalSourceSocketTest, EndsWithoutDescriptorsForAFifoThatIsAlsoOpenForWriting)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  const int fd = teststream::reopen(producer.consumer_fd, O_RDWR);
  close(producer.consumer_fd);
  Reader reader(fd);
  testhost::FreeDescriptors free_descriptors(1);

  producer.send(message("1"));
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), failure("length", "Too many open files"));
}

TEST_F(ExternalSourceSocketTest, EndsWhenItsDescriptorBecomesInvalid)
{
  Stream stream(Carrier::PIPE, Mode::BLOCKING);

  close(stream.consumer_fd);
  EXPECT_EQ(stream.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), CLOSE_FAILURE);
  EXPECT_EQ(testhost::take_glib_messages(), BAD_DESCRIPTOR);
  expect_idle();
}

TEST_F(ExternalSourceSocketTest, LogsAFailureToClose)
{
  Stream stream(Carrier::PIPE, Mode::BLOCKING);

  close(stream.consumer_fd);
  external_source_socket_close(stream.socket, FALSE);
  EXPECT_EQ(stream.take_events(), (Texts{"released"}));
  EXPECT_EQ(testhost::take_syslog(), CLOSE_FAILURE);
  EXPECT_EQ(testhost::take_glib_messages(), BAD_DESCRIPTOR);
}

#include "externalsourcesocket.h"

#include "faults.h"
#include "logtext.h"
#include "testhost.h"
#include "teststream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <future>
#include <memory>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using testhost::Observed;
using testhost::SyslogLines;
using testhost::Texts;
using teststream::Carrier;
using teststream::Mode;
using teststream::Producer;

using namespace std::string_literals;

namespace
{

constexpr const char *NAME = "camera 1";
constexpr gint64 STALL_US = 2 * G_TIME_SPAN_SECOND;

/* What GLib says of its own accord when it makes an error of EBADF. */
const Texts BAD_DESCRIPTOR = {"GLib: Invalid file descriptor."};

/* What a client holds. */
class Account
{
public:
  Account() : account(message_account_new())
  {
  }

  ~Account()
  {
    hold(0);
    message_account_unref(account);
  }

  Account(const Account &) = delete;
  Account &operator=(const Account &) = delete;

  /* Has so much in its queue. Any thread. */
  void hold(gsize bytes) const
  {
    message_account_set_queued(account, bytes);
  }

  /* Lets no message begin, and lets them begin again. Any thread. */
  void pause() const
  {
    hold(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  }

  void resume() const
  {
    hold(0);
  }

  MessageAccount *account;
};

/* A socket with all that it tells. What happens is kept in order: frames, "closed" and "released". */
class Reader
{
public:
  explicit Reader(int fd, const char *name = NAME)
      : socket(external_source_socket_new(fd, name, client.account, on_data, on_close, this, on_release)),
        observed(socket)
  {
  }

  ~Reader()
  {
    if (socket != nullptr) {
      external_source_socket_close(socket, FALSE);
    }
    g_clear_object(&socket);
    EXPECT_TRUE(testhost::spin_until([this] { return released.load(); }));
    EXPECT_FALSE(observed.alive());
  }

  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  static void on_data(ExternalSourceSocket *socket, guint8 *frame, gsize size, gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);
    g_autofree guint8 *taken = frame;

    EXPECT_EQ(socket, self->socket);
    EXPECT_FALSE(self->released);
    self->events.emplace_back(reinterpret_cast<const char *>(taken), size);
    if (self->during_data) {
      self->during_data();
    }
  }

  static void on_close(ExternalSourceSocket *socket, gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);

    EXPECT_EQ(socket, self->socket);
    EXPECT_FALSE(self->released);
    self->events.emplace_back("closed");
    external_source_socket_close(socket, TRUE);
  }

  static void on_release(gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);

    EXPECT_FALSE(self->released);
    self->events.emplace_back("released");
    self->released = true;
  }

  /* What happened until nothing more happens. */
  Texts take_events()
  {
    testhost::dispatch_ready();
    return std::exchange(events, {});
  }

  Texts events;
  std::function<void()> during_data;
  std::atomic<bool> released = false;
  Account client;
  ExternalSourceSocket *socket;
  Observed observed;
};

const SyslogLines NO_MEMORY = {
    {LOG_ERR,
     "Could not read request data from client socket: Cannot allocate memory: Cannot allocate memory"}};

const Texts NOTHING;
const Texts ENDED = {"closed", "released"};

Texts
frames(const Texts &payloads, const Texts &more = NOTHING)
{
  Texts result;

  for (const std::string &payload : payloads) {
    result.push_back(teststream::frame(NAME, payload));
  }
  result.insert(result.end(), more.begin(), more.end());
  return result;
}

class ExternalSourceSocketTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    faults::after_empty_reads(nullptr);
    Fixture::TearDown();
    EXPECT_EQ(message_account_get_total(), 0U);
  }
};

class AnyStreamTest : public ExternalSourceSocketTest,
                      public testing::WithParamInterface<std::tuple<Carrier, Mode>>
{
protected:
  static Producer make_producer()
  {
    return Producer(std::get<0>(GetParam()), std::get<1>(GetParam()));
  }
};

class PiecesTest : public ExternalSourceSocketTest, public testing::WithParamInterface<Carrier>
{
protected:
  static constexpr const char *LONG = "0123456789";
};

std::string
carrier_name(Carrier carrier)
{
  switch (carrier) {
  case Carrier::PIPE:
    return "Pipe";
  case Carrier::FIFO:
    return "Fifo";
  default:
    return "Socket";
  }
}

/* Sends @pieces one by one, each where a read has found nothing. */
void
send_while_reading(const Producer &producer, Texts pieces)
{
  auto left = std::make_shared<Texts>(std::move(pieces));

  faults::after_empty_reads([&producer, left] {
    if (!left->empty()) {
      producer.send(left->front());
      left->erase(left->begin());
    }
  });
}

/* Pauses the socket, which is between two messages or goes on to the end of one, while @bytes come. */
void
send_in_a_pause(const Producer &producer, const Reader &reader, const std::string &bytes)
{
  reader.client.pause();
  producer.send(bytes);
  testhost::dispatch_ready();
  reader.client.resume();
}

/* Expects that pieces are dropped, as they are where a non-blocking stream has not been paused. */
void
expect_pieces_to_be_dropped(const Producer &producer, Reader *reader)
{
  producer.send(teststream::message("dropped").substr(0, 7));
  EXPECT_EQ(reader->take_events(), NOTHING);
  producer.send(teststream::message("next"));
  EXPECT_EQ(reader->take_events(), frames({"next"}));
}

constexpr guint WHILE_MS = 100;

/* How often the default main context polls within a while that has nothing else to do. */
unsigned
count_polls()
{
  static unsigned polls;
  GPollFunc poll_func = g_main_context_get_poll_func(nullptr);
  bool over = false;
  auto end = [](gpointer user_data) { *static_cast<bool *>(user_data) = true; };

  polls = 0;
  g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout) {
    polls++;
    return g_poll(fds, count, timeout);
  });
  g_timeout_add_once(WHILE_MS, end, &over);
  while (!over) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_main_context_set_poll_func(nullptr, poll_func);
  return polls;
}

/* Expects that the main loop has nothing to do, and does nothing. */
void
expect_rest()
{
  const gint64 used_before = testhost::processor_time_us();

  EXPECT_LE(count_polls(), 3U);
  EXPECT_LT(testhost::processor_time_us() - used_before, WHILE_MS * 1000 / 2);
}

/* The other end of what is read, for as long as the test needs it. */
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

int
open_empty_file(off_t size = 0)
{
  const int fd = memfd_create("file", MFD_CLOEXEC);

  EXPECT_EQ(ftruncate(fd, size), 0);
  return fd;
}

/* With an address that the kernel chooses. */
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

/* One that cannot be a stream, and what the warning says of it. */
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

/* One that can be read, though it is no producer's stream, and what comes of it. */
struct Odd : Descriptor {
  Texts events;
  SyslogLines lines;
};

SyslogLines
failure(const std::string &what, const std::string &text)
{
  return {{LOG_ERR, "Could not read request " + what + " from client socket: " + text + ": " + text}};
}

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
        /* A peer that goes without having read what it was sent resets the connection. */
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

std::string
length_only(guint32 length)
{
  return std::string(reinterpret_cast<const char *>(&length), sizeof length);
}

} // namespace

TEST_F(ExternalSourceSocketTest, HasOneReadOnlyProperty)
{
  auto *object_class = G_OBJECT_CLASS(g_type_class_ref(external_source_socket_get_type()));
  guint count = 0;
  g_autofree GParamSpec **properties = g_object_class_list_properties(object_class, &count);
  GParamSpec *name = g_object_class_find_property(object_class, "source-name");

  EXPECT_STREQ(g_type_name(external_source_socket_get_type()), "ExternalSourceSocket");
  ASSERT_EQ(count, 1U);
  ASSERT_TRUE(G_IS_PARAM_SPEC_STRING(name));
  EXPECT_STREQ(g_param_spec_get_nick(name), "Name of source");
  EXPECT_STREQ(g_param_spec_get_blurb(name), "Name of source connected to this socket");
  EXPECT_EQ(name->flags, G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  EXPECT_EQ(G_PARAM_SPEC_STRING(name)->default_value, nullptr);
  g_type_class_unref(object_class);
}

TEST_F(ExternalSourceSocketTest, GivesItsName)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);
  g_autofree gchar *name = nullptr;

  g_object_get(reader.socket, "source-name", &name, nullptr);
  EXPECT_STREQ(name, NAME);
}

TEST_F(ExternalSourceSocketTest, HasNoNameByDefault)
{
  auto *socket = G_OBJECT(g_object_new(external_source_socket_get_type(), nullptr));
  g_auto(GValue) name = G_VALUE_INIT;

  g_value_init(&name, G_TYPE_STRING);
  g_value_set_static_string(&name, "something");
  g_object_get_property(socket, "source-name", &name);
  EXPECT_EQ(g_value_get_string(&name), nullptr);
  g_object_unref(socket);
}

TEST_F(ExternalSourceSocketTest, WarnsOfUnknownProperties)
{
  auto *socket = G_OBJECT(g_object_new(external_source_socket_get_type(), nullptr));
  GObjectClass *object_class = G_OBJECT_GET_CLASS(socket);
  GValue value = G_VALUE_INIT;

  object_class->get_property(socket, 99, &value, g_object_class_find_property(object_class, "source-name"));
  g_object_unref(socket);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(messages[0].ends_with(
      "invalid property id 99 for \"source-name\" of type 'GParamString' in 'ExternalSourceSocket'"))
      << messages[0];
}

TEST_F(ExternalSourceSocketTest, TakesNothingOverWhenAnArgumentIsWrong)
{
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const auto on_release = [](gpointer) { ADD_FAILURE() << "released"; };

  const auto on_data = Reader::on_data;
  const auto on_close = Reader::on_close;
  const Account client;

  EXPECT_EQ(external_source_socket_new(fd, nullptr, client.account, on_data, on_close, this, on_release),
            nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, nullptr, on_data, on_close, this, on_release), nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, nullptr, on_close, this, on_release),
            nullptr);
  EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, on_data, nullptr, this, on_release),
            nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"source_name != NULL", "account != NULL", "on_data != NULL", "on_close != NULL"}));
  EXPECT_EQ(close(fd), 0);
}

TEST_F(ExternalSourceSocketTest, ReleasesTheUserDataOfANegativeDescriptor)
{
  for (const int fd : {-1, G_MININT}) {
    const Account client;
    int released = 0;

    EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, Reader::on_data, Reader::on_close,
                                         &released, [](gpointer count) { ++*static_cast<int *>(count); }),
              nullptr);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(external_source_socket_new(fd, NAME, client.account, Reader::on_data, Reader::on_close, nullptr,
                                         nullptr),
              nullptr);
    EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"consumer_fd > -1", "consumer_fd > -1"}));
  }
}

TEST_F(ExternalSourceSocketTest, ChecksForASocket)
{
  external_source_socket_close(nullptr, TRUE);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"self != NULL"}));
}

TEST_F(ExternalSourceSocketTest, NeedsNoReleaseFunction)
{
  const Account client;
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  auto *socket = external_source_socket_new(
      producer.consumer_fd, NAME, client.account, [](auto *, guint8 *, gsize, gpointer) {},
      [](auto *, gpointer) {}, nullptr, nullptr);
  Observed observed(socket);

  external_source_socket_close(socket, FALSE);
  g_object_unref(socket);
  EXPECT_FALSE(observed.alive());
}

INSTANTIATE_TEST_SUITE_P(Streams, AnyStreamTest,
                         testing::Combine(testing::Values(Carrier::PIPE, Carrier::FIFO, Carrier::SOCKET),
                                          testing::Values(Mode::BLOCKING, Mode::NON_BLOCKING)),
                         [](const auto &stream) {
                           return carrier_name(std::get<0>(stream.param)) +
                                  (std::get<1>(stream.param) == Mode::BLOCKING ? "Blocking" : "NonBlocking");
                         });

TEST_P(AnyStreamTest, DeliversAMessageAsOneFrameWithoutTerminator)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message(R"({"Id":1},{"Id":2})"));
  EXPECT_EQ(reader.take_events(), (Texts{R"({"Source":"camera 1","Data":{"Item":[{"Id":1},{"Id":2}]}})"}));
}

TEST_P(AnyStreamTest, DeliversThePayloadAsItIs)
{
  Producer producer = make_producer();
  const std::string payload = "\0\xff]}}%s\n"s;
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message(payload));
  EXPECT_EQ(reader.take_events(), frames({payload}));
}

TEST_P(AnyStreamTest, DoesNotEscapeTheName)
{
  Producer producer = make_producer();
  const std::string name = R"(a"b\%s%n)" + std::string(100 * 1000, 'x');
  Reader reader(producer.consumer_fd, name.c_str());

  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), (Texts{teststream::frame(name, "1")}));
}

TEST_P(AnyStreamTest, SkipsAMessageWithoutPayload)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message(""));
  EXPECT_EQ(reader.take_events(), NOTHING);
  producer.send(teststream::message("") + teststream::message("1") + teststream::message(""));
  EXPECT_EQ(reader.take_events(), frames({"1"}));
}

TEST_P(AnyStreamTest, ReadsOneMessageAtATime)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);
  Texts payloads;

  for (int i = 0; i < 100; i++) {
    payloads.push_back(std::to_string(i));
    producer.send(teststream::message(payloads.back()));
  }
  gsize before = 0;
  while (g_main_context_iteration(nullptr, FALSE)) {
    EXPECT_LE(reader.events.size(), before + 1);
    before = reader.events.size();
  }
  EXPECT_EQ(reader.take_events(), frames(payloads));
}

TEST_P(AnyStreamTest, ReadsABigMessageInFewReads)
{
  Producer producer = make_producer();
  const std::string payload(100 * 1000, 'x');
  Reader reader(producer.consumer_fd);
  fcntl(producer.consumer_fd, F_SETPIPE_SZ, 1024 * 1024);
  producer.send(teststream::message(payload));

  const unsigned before = faults::read_call_count();
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_GT(faults::read_call_count() - before, 0U);
  EXPECT_LT(faults::read_call_count() - before, 16U);
  EXPECT_EQ(reader.take_events(), frames({payload}));
}

TEST_P(AnyStreamTest, ClosesOnceWhenTheProducerHangsUp)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.hang_up();
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_LT(fcntl(producer.consumer_fd, F_GETFD), 0);
  external_source_socket_close(reader.socket, TRUE);
  EXPECT_EQ(reader.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, DeliversWhatCameBeforeTheHangUp)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message("1") + teststream::message("2") + teststream::message("3"));
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), frames({"1", "2", "3"}, ENDED));
}

TEST_P(AnyStreamTest, DropsALengthThatTheProducerLeavesUnfinished)
{
  for (gsize size = 1; size < sizeof(guint32); size++) {
    Producer producer = make_producer();
    Reader reader(producer.consumer_fd);

    producer.send(teststream::message("1").substr(0, size));
    producer.hang_up();
    EXPECT_EQ(reader.take_events(), ENDED) << size;
  }
}

TEST_P(AnyStreamTest, DropsAPayloadThatTheProducerLeavesUnfinished)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message("12") + teststream::message("34").substr(0, 5));
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), frames({"12"}, ENDED));
}

TEST_P(AnyStreamTest, EndsAtALengthOverTheBound)
{
  for (const guint32 length : {EXTERNAL_SOURCE_MAX_PAYLOAD + 1U, G_MAXUINT32}) {
    Producer producer = make_producer();
    Reader reader(producer.consumer_fd);

    producer.send(length_only(length) + "payload");
    EXPECT_EQ(reader.take_events(), ENDED);
    EXPECT_EQ(testhost::take_syslog(),
              (SyslogLines{{LOG_ERR, "Could not read request data from client socket: Message too long: "
                                     "Message too long"}}));
  }
}

TEST_P(AnyStreamTest, TakesALengthAtTheBound)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(length_only(EXTERNAL_SOURCE_MAX_PAYLOAD) + "payload");
  EXPECT_EQ(reader.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, EndsWithoutMemoryForTheFrame)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  faults::fail_next(faults::Call::TRY_MALLOC0);
  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), NO_MEMORY);
}

TEST_P(AnyStreamTest, ClosesWithoutNotification)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message("1"));
  external_source_socket_close(reader.socket, FALSE);
  EXPECT_EQ(reader.events, (Texts{"released"}));
  EXPECT_LT(fcntl(producer.consumer_fd, F_GETFD), 0);
  EXPECT_EQ(reader.take_events(), (Texts{"released"}));
}

TEST_P(AnyStreamTest, ClosesWithNotification)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  external_source_socket_close(reader.socket, TRUE);
  EXPECT_EQ(reader.take_events(), ENDED);
}

TEST_P(AnyStreamTest, MayBeClosedWhileItDelivers)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  reader.during_data = [&] {
    external_source_socket_close(reader.socket, FALSE);
    EXPECT_FALSE(reader.released);
  };
  producer.send(teststream::message("1") + teststream::message("2"));
  EXPECT_EQ(reader.take_events(), frames({"1"}, {"released"}));
}

TEST_P(AnyStreamTest, LivesWithoutItsMakersReference)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);
  ExternalSourceSocket *socket = reader.socket;

  g_object_unref(socket);
  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), frames({"1"}));
  EXPECT_TRUE(reader.observed.alive());
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_FALSE(reader.observed.alive());
  reader.socket = nullptr;
}

TEST_P(AnyStreamTest, ClosesADescriptorThatItCannotSetUp)
{
  Producer producer = make_producer();
  faults::fail_next(faults::Call::IO_CHANNEL_SET_ENCODING);
  Reader reader(producer.consumer_fd);

  EXPECT_EQ(reader.socket, nullptr);
  EXPECT_EQ(reader.events, (Texts{"released"}));
  EXPECT_LT(fcntl(producer.consumer_fd, F_GETFD), 0);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Failed to set encoding on channel: No such encoding"}}));
}

TEST_P(AnyStreamTest, ClosesADescriptorThatItCannotWatch)
{
  Producer producer = make_producer();
  faults::fail_next(faults::Call::IO_ADD_WATCH);
  Reader reader(producer.consumer_fd);

  EXPECT_EQ(reader.socket, nullptr);
  EXPECT_EQ(reader.events, (Texts{"released"}));
  EXPECT_LT(fcntl(producer.consumer_fd, F_GETFD), 0);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "Failed to add gio watch of externalsourcesocket fd"}}));
}

TEST_P(AnyStreamTest, NeverWaitsWhateverModeTheDescriptorGets)
{
  Producer producer = make_producer();
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  Reader reader(producer.consumer_fd);
  testhost::LatencyMeter latency;

  for (const gsize size : {1, 5, 2}) {
    fcntl(shared_fd, F_SETFL, 0);
    producer.send(teststream::message("12").substr(0, size));
    EXPECT_EQ(reader.take_events(), NOTHING);
  }
  EXPECT_LT(latency.longest_us(), STALL_US);
  close(shared_fd);
}

TEST_P(AnyStreamTest, LeavesTheFlagsOfTheOpenFileAlone)
{
  Producer producer = make_producer();
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  const int flags = fcntl(shared_fd, F_GETFL);
  {
    Reader reader(producer.consumer_fd);

    producer.send(teststream::message("1") + teststream::message("2").substr(0, 4));
    EXPECT_EQ(reader.take_events(), frames({"1"}));
    EXPECT_EQ(fcntl(shared_fd, F_GETFL), flags);
  }
  EXPECT_EQ(fcntl(shared_fd, F_GETFL), flags);
  close(shared_fd);
}

TEST_P(AnyStreamTest, WaitsForNothingThatAnotherSocketHasTaken)
{
  constexpr gsize COUNT = 100;
  Producer producer = make_producer();
  Reader one(producer.consumer_fd);
  Reader other(fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0));

  /* Both watches are ready at once, and one of them finds nothing any more. */
  for (gsize i = 0; i < COUNT; i++) {
    producer.send(teststream::message("1"));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(one.events.size() + other.events.size(), COUNT);
}

TEST_P(PiecesTest, OfABlockingStreamAreKeptByALaterSocketOnTheSameOpenFile)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  {
    Reader first(producer.consumer_fd);
  }
  Reader second(shared_fd);

  producer.send(teststream::message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  producer.send(teststream::message(LONG).substr(7));
  EXPECT_EQ(second.take_events(), frames({LONG}));
}

TEST_P(PiecesTest, OfABlockingStreamAreNotWaitedForWhenAnotherThreadTakesThem)
{
  constexpr gsize COUNT = 20 * 1000;
  const std::string bytes = teststream::message("1");
  Producer producer(GetParam(), Mode::BLOCKING);
  const int shared_fd = fcntl(producer.consumer_fd, F_DUPFD_CLOEXEC, 0);
  Reader reader(producer.consumer_fd);
  gsize taken = 0;
  std::thread thief([&] {
    std::array<char, 5> buffer = {};
    while (read(shared_fd, buffer.data(), buffer.size()) > 0) {
      taken++;
    }
  });

  /* A read that waited would be one without end: nobody else sends. */
  for (gsize i = 0; i < COUNT; i++) {
    producer.send(bytes);
    testhost::dispatch_ready();
  }
  producer.hang_up();
  thief.join();
  testhost::dispatch_ready();
  EXPECT_GT(taken, 0U);
  EXPECT_EQ(reader.events.size() - ENDED.size() + taken, COUNT);
  close(shared_fd);
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
    bytes += teststream::message(payload);
  }
  for (gsize sent = 0; sent < bytes.size();) {
    sent += producer.send_some(bytes.data() + sent, bytes.size() - sent);
    testhost::dispatch_ready();
  }
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), frames({payloads[0], payloads[1], payloads[3]}));
  EXPECT_EQ(fcntl(shared_fd, F_GETFL) & O_NONBLOCK, 0);
  close(shared_fd);
  expect_rest();
}

TEST_F(ExternalSourceSocketTest, EndsWithoutDescriptorsForAFifoThatIsAlsoOpenForWriting)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  const int fd = teststream::reopen(producer.consumer_fd, O_RDWR);
  close(producer.consumer_fd);
  Reader reader(fd);
  testhost::FreeDescriptors free_descriptors(1);

  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), failure("length", "Too many open files"));
}

TEST_P(AnyStreamTest, ReadsNothingWhilePaused)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  reader.client.pause();
  producer.send(teststream::message("1"));
  producer.hang_up();
  EXPECT_EQ(reader.take_events(), NOTHING);
  reader.client.resume();
  EXPECT_EQ(reader.take_events(), frames({"1"}, ENDED));
}

TEST_P(AnyStreamTest, GoesOnWithWhatItHasReadAhead)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  reader.during_data = [&] { reader.client.pause(); };
  producer.send(teststream::message("1") + teststream::message("2"));
  EXPECT_EQ(reader.take_events(), frames({"1"}));

  /* From another thread, with nothing left in the descriptor that would wake the main loop. */
  std::thread thread([&] { reader.client.resume(); });
  EXPECT_TRUE(testhost::spin_until([&] { return !reader.events.empty(); }));
  thread.join();
  EXPECT_EQ(reader.take_events(), frames({"2"}));
}

TEST_P(AnyStreamTest, GoesOnWithWhatItHasReadAheadWhenTheMainLoopWaits)
{
  static const Account *paused;
  static std::vector<bool> waits;
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);
  GPollFunc poll_func = g_main_context_get_poll_func(nullptr);

  reader.during_data = [&] { reader.client.pause(); };
  producer.send(teststream::message("1") + teststream::message("2"));
  EXPECT_EQ(reader.take_events(), frames({"1"}));

  paused = &reader.client;
  waits.clear();
  g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout) {
    waits.push_back(timeout != 0);
    if (paused != nullptr) {
      std::thread thread([] { std::exchange(paused, nullptr)->resume(); });
      thread.join();
    }
    return g_poll(fds, count, 0);
  });
  g_main_context_iteration(nullptr, TRUE);
  g_main_context_iteration(nullptr, TRUE);
  g_main_context_set_poll_func(nullptr, poll_func);

  /* The second time there is nothing that would end a wait. */
  EXPECT_EQ(waits, (std::vector<bool>{true, false}));
  EXPECT_EQ(reader.take_events(), frames({"2"}));
}

TEST_P(AnyStreamTest, DoesNotWakeTheMainLoopWhilePaused)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  reader.during_data = [&] { reader.client.pause(); };
  producer.send(teststream::message("1") + teststream::message("2"));
  EXPECT_EQ(reader.take_events(), frames({"1"}));
  producer.send(teststream::message("3"));
  producer.hang_up();

  EXPECT_LE(count_polls(), 3U);
  EXPECT_EQ(reader.take_events(), NOTHING);
}

TEST_P(AnyStreamTest, ClosesWhilePaused)
{
  Producer producer = make_producer();
  Reader reader(producer.consumer_fd);

  reader.client.pause();
  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), NOTHING);
  external_source_socket_close(reader.socket, FALSE);
  EXPECT_EQ(reader.events, (Texts{"released"}));
  EXPECT_LT(fcntl(producer.consumer_fd, F_GETFD), 0);
  reader.client.resume();
  EXPECT_EQ(reader.take_events(), (Texts{"released"}));
}

INSTANTIATE_TEST_SUITE_P(Carriers, PiecesTest, testing::Values(Carrier::PIPE, Carrier::FIFO, Carrier::SOCKET),
                         [](const auto &carrier) { return carrier_name(carrier.param); });

TEST_P(PiecesTest, OfABlockingStreamMayBeCutAnywhere)
{
  const std::string bytes = teststream::message("1") + teststream::message("") + teststream::message(LONG);

  for (gsize cut = 1; cut < bytes.size(); cut++) {
    Producer producer(GetParam(), Mode::BLOCKING);
    Reader reader(producer.consumer_fd);

    producer.send(bytes.substr(0, cut));
    testhost::dispatch_ready();
    producer.send(bytes.substr(cut));
    EXPECT_EQ(reader.take_events(), frames({"1", LONG})) << cut;
  }
}

TEST_P(PiecesTest, OfABlockingStreamMayBeSingleBytes)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  for (const char byte : teststream::message(LONG) + teststream::message("1")) {
    producer.send(std::string(1, byte));
    testhost::dispatch_ready();
  }
  EXPECT_EQ(reader.take_events(), frames({LONG, "1"}));
}

TEST_P(PiecesTest, OfABlockingStreamAreKeptThroughAPause)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  send_in_a_pause(producer, reader, teststream::message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  producer.send(teststream::message(LONG).substr(7));
  EXPECT_EQ(reader.take_events(), frames({LONG}));
}

TEST_P(PiecesTest, OfAMessageThatHasBegunAreReadDuringAPause)
{
  for (gsize begun = 1; begun < 4 + strlen(LONG); begun++) {
    Producer producer(GetParam(), Mode::BLOCKING);
    Reader reader(producer.consumer_fd);

    producer.send(teststream::message(LONG).substr(0, begun));
    testhost::dispatch_ready();
    reader.client.pause();
    producer.send(teststream::message(LONG).substr(begun) + teststream::message("next"));
    EXPECT_EQ(reader.take_events(), frames({LONG})) << begun;
    reader.client.resume();
    EXPECT_EQ(reader.take_events(), frames({"next"})) << begun;
  }
}

TEST_P(PiecesTest, OfABlockingStreamGoWithTheSocket)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  producer.send(teststream::message(LONG).substr(0, 7));
  testhost::dispatch_ready();
  external_source_socket_close(reader.socket, FALSE);
  EXPECT_EQ(reader.take_events(), (Texts{"released"}));
}

TEST_P(PiecesTest, OfANonBlockingPayloadAreDropped)
{
  for (gsize cut = 4; cut < 4 + strlen(LONG); cut++) {
    Producer producer(GetParam(), Mode::NON_BLOCKING);
    Reader reader(producer.consumer_fd);

    producer.send(teststream::message(LONG).substr(0, cut));
    EXPECT_EQ(reader.take_events(), NOTHING);
    producer.send(teststream::message("next"));
    EXPECT_EQ(reader.take_events(), frames({"next"})) << cut;
  }
}

TEST_P(PiecesTest, OfANonBlockingLengthAreTakenAsTheLength)
{
  for (gsize cut = 1; cut < 4; cut++) {
    Producer producer(GetParam(), Mode::NON_BLOCKING);
    Reader reader(producer.consumer_fd);

    send_while_reading(producer, {LONG});
    producer.send(teststream::message(LONG).substr(0, cut));
    EXPECT_EQ(reader.take_events(), frames({LONG})) << cut;

    /* Without a payload it is a message that nothing came of. */
    producer.send(teststream::message("x").substr(0, cut));
    EXPECT_EQ(reader.take_events(), NOTHING);
    producer.send(teststream::message("next"));
    EXPECT_EQ(reader.take_events(), frames({"next"})) << cut;
  }
}

TEST_P(PiecesTest, OfANonBlockingLengthOfZeroAreAMessageWithoutPayload)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  producer.send("\0"s);
  EXPECT_EQ(reader.take_events(), NOTHING);
  producer.send(teststream::message("next"));
  EXPECT_EQ(reader.take_events(), frames({"next"}));
}

TEST_P(PiecesTest, OfANonBlockingPayloadInTwoReadsAreJoined)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  send_while_reading(producer, {"456789"});
  producer.send(teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(reader.take_events(), frames({LONG}));
}

TEST_P(PiecesTest, OfANonBlockingPayloadInThreeReadsOverlap)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  send_while_reading(producer, {"45", "6789"});
  producer.send(teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(reader.take_events(), frames({"016789"s + std::string(4, '\0')}));
}

TEST_P(PiecesTest, OfANonBlockingStreamThatAPauseCutsAreKept)
{
  const std::string bytes = teststream::message("1") + teststream::message("") + teststream::message(LONG);

  for (gsize cut = 1; cut < bytes.size(); cut++) {
    Producer producer(GetParam(), Mode::NON_BLOCKING);
    Reader reader(producer.consumer_fd);

    send_in_a_pause(producer, reader, bytes.substr(0, cut));
    testhost::dispatch_ready();
    /* Between two messages the stream has caught up, and everything else comes at once. */
    producer.send(bytes.substr(cut));
    EXPECT_EQ(reader.take_events(), frames({"1", LONG})) << cut;
    expect_pieces_to_be_dropped(producer, &reader);
  }
}

TEST_P(PiecesTest, OfANonBlockingStreamThatAPauseCutsMayBeSingleBytes)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  const std::string bytes = teststream::message(LONG);

  send_in_a_pause(producer, reader, bytes.substr(0, 1));
  for (const char byte : bytes.substr(1)) {
    testhost::dispatch_ready();
    producer.send(std::string(1, byte));
  }
  EXPECT_EQ(reader.take_events(), frames({LONG}));
  expect_pieces_to_be_dropped(producer, &reader);
}

TEST_P(PiecesTest, OfANonBlockingStreamAreKeptUntilNothingIsLeftBetweenTwoMessages)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  const std::string bytes = teststream::message(LONG);

  send_in_a_pause(producer, reader, bytes.substr(0, 6));
  EXPECT_EQ(reader.take_events(), NOTHING);
  for (int i = 0; i < 3; i++) {
    producer.send(bytes.substr(6) + bytes.substr(0, 6));
    EXPECT_EQ(reader.take_events(), frames({LONG}));
  }
  producer.send(bytes.substr(6));
  EXPECT_EQ(reader.take_events(), frames({LONG}));
  expect_pieces_to_be_dropped(producer, &reader);
}

TEST_P(PiecesTest, OfANonBlockingStreamAreKeptThroughSeveralPauses)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  const std::string bytes = teststream::message(LONG);

  for (int i = 0; i < 3; i++) {
    for (gsize sent = 0; sent < bytes.size(); sent += 2) {
      EXPECT_EQ(reader.take_events(), NOTHING);
      send_in_a_pause(producer, reader, bytes.substr(sent, 2));
    }
    EXPECT_EQ(reader.take_events(), frames({LONG}));
    expect_pieces_to_be_dropped(producer, &reader);
  }
}

TEST_P(PiecesTest, OfANonBlockingStreamThatAPauseCutsAreJoined)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  send_while_reading(producer, {"45", "6789"});
  send_in_a_pause(producer, reader, teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(reader.take_events(), frames({LONG}));

  send_while_reading(producer, {"45", "6789"});
  producer.send(teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(reader.take_events(), frames({"016789"s + std::string(4, '\0')}));
}

TEST_P(PiecesTest, OfANonBlockingStreamAreDroppedAfterAPauseInWhichNothingCame)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  send_in_a_pause(producer, reader, "");
  expect_pieces_to_be_dropped(producer, &reader);
}

TEST_P(PiecesTest, OfANonBlockingStreamAreDroppedAfterAPauseWithWholeMessages)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);

  send_in_a_pause(producer, reader, teststream::message("1") + teststream::message("2"));
  EXPECT_EQ(reader.take_events(), frames({"1", "2"}));
  expect_pieces_to_be_dropped(producer, &reader);
}

TEST_P(PiecesTest, AreNotDeliveredWhenTheSocketIsClosedMeanwhile)
{
  Producer producer(GetParam(), Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  std::promise<pid_t> tid;
  std::thread closer;

  faults::after_empty_reads([&] {
    if (closer.joinable()) {
      return;
    }
    closer = std::thread([&] {
      tid.set_value(gettid());
      external_source_socket_close(reader.socket, FALSE);
    });
    /* It waits for the reader. */
    EXPECT_TRUE(testhost::wait_until_asleep(tid.get_future().get()));
    producer.send("456789");
  });
  producer.send(teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_TRUE(testhost::spin_until([&] { return reader.released.load(); }));
  closer.join();
  EXPECT_EQ(reader.take_events(), (Texts{"released"}));
}

TEST_P(PiecesTest, OfABlockingPayloadInThreeReadsAreJoined)
{
  Producer producer(GetParam(), Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  send_while_reading(producer, {"45", "6789"});
  producer.send(teststream::message(LONG).substr(0, 4 + 4));
  EXPECT_EQ(reader.take_events(), frames({LONG}));
}

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
  expect_rest();
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

TEST_F(ExternalSourceSocketTest, LogsOnlyTheStartOfALongNameThatItRefuses)
{
  const std::string name(LOG_TEXT_MAX_BYTES + 3, 'x');
  Reader reader(open("/dev/null", O_RDONLY | O_CLOEXEC), name.c_str());

  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, "closed the stream of producer \"" + name.substr(3) +
                                           "... (3 bytes left out)\": it is a device"}}));
}

TEST_F(ExternalSourceSocketTest, LogsANameThatItRefusesOnOneLine)
{
  Reader reader(open("/dev/null", O_RDONLY | O_CLOEXEC), "two\nlines");

  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_WARNING, R"(closed the stream of producer "two\x0alines": it is a device)"}}));
}

TEST_F(ExternalSourceSocketTest, NeedsNoReleaseFunctionForWhatItRefuses)
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

TEST_P(OddTest, EndsOrLeavesTheMainLoopAtRest)
{
  Peer peer;
  const int fd = GetParam().open(&peer);
  ASSERT_GE(fd, 0);
  Reader reader(fd);

  EXPECT_EQ(reader.take_events(), GetParam().events);
  EXPECT_EQ(testhost::take_syslog(), GetParam().lines);
  expect_rest();
}

TEST_F(ExternalSourceSocketTest, EndsWhenItsDescriptorIsNotValidAnyMore)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  close(producer.consumer_fd);
  EXPECT_EQ(reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Failed to close channel: Bad file descriptor: Bad file descriptor"}}));
  EXPECT_EQ(testhost::take_glib_messages(), BAD_DESCRIPTOR);
  expect_rest();
}

TEST_F(ExternalSourceSocketTest, EmptyMessagesWithoutEndLeaveTheMainLoopToOthers)
{
  constexpr int TURNS = 1000;
  Peer file;
  file.fd = open_empty_file(G_MAXINT32);
  Reader reader(fcntl(file.fd, F_DUPFD_CLOEXEC, 0));
  testhost::LatencyMeter latency;
  int turns = 0;

  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer user_data) -> gboolean { return ++*static_cast<int *>(user_data) < TURNS; }, &turns,
      nullptr);
  EXPECT_TRUE(testhost::spin_until([&] { return turns == TURNS; }));
  EXPECT_LT(latency.longest_us(), STALL_US);
  /* One message each turn needs no more than what has been read ahead. */
  EXPECT_GT(lseek(file.fd, 0, SEEK_CUR), 0);
  EXPECT_LE(lseek(file.fd, 0, SEEK_CUR), 64 * 1024);
  EXPECT_EQ(reader.events, NOTHING);
}

namespace
{

constexpr gsize MIB = 1024 * 1024;

/* A message that is not complete: its length, and not a byte more. */
void
begin_message(const Producer &producer, gsize length)
{
  producer.send(length_only(length));
  testhost::dispatch_ready();
}

/* A file with one message of a payload of any bytes. */
int
open_file_with_message(const std::string &payload, int flags)
{
  const std::string bytes = teststream::message(payload);
  Peer file;

  file.fd = open_empty_file();
  EXPECT_EQ(write(file.fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  return teststream::reopen(file.fd, O_RDONLY | flags);
}

std::string
numbers(gsize size)
{
  std::string text;

  for (int number = 0; text.size() < size; number++) {
    text += std::to_string(number) + ",";
  }
  return text.substr(0, size);
}

} // namespace

TEST_F(ExternalSourceSocketTest, EndsMessagesThatTakeTooLong)
{
  constexpr gint64 LIMIT_US = G_TIME_SPAN_MILLISECOND * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS;
  constexpr guint DRIP_MS = 50;
  const std::string long_message = teststream::message(std::string(MIB, 'x'));
  Producer silent_length(Carrier::PIPE, Mode::BLOCKING);
  Producer silent_data(Carrier::SOCKET, Mode::BLOCKING);
  Producer dripping(Carrier::PIPE, Mode::BLOCKING);
  Producer paused(Carrier::PIPE, Mode::NON_BLOCKING);
  Producer between(Carrier::PIPE, Mode::BLOCKING);
  Reader length_reader(silent_length.consumer_fd);
  Reader data_reader(silent_data.consumer_fd);
  Reader dripping_reader(dripping.consumer_fd);
  Reader paused_reader(paused.consumer_fd);
  Reader between_reader(between.consumer_fd);

  const gint64 begun_us = g_get_monotonic_time();
  silent_length.send(long_message.substr(0, 1));
  silent_data.send(long_message.substr(0, 1000));
  dripping.send(long_message.substr(0, 1000));
  send_in_a_pause(paused, paused_reader, long_message.substr(0, 1000));
  between.send(teststream::message("1"));
  const auto drip = [](gpointer user_data) -> gboolean {
    const char byte = 'x';
    static_cast<Producer *>(user_data)->send_some(&byte, 1);
    return G_SOURCE_CONTINUE;
  };
  const guint dripping_id = g_timeout_add(DRIP_MS, drip, &dripping);

  EXPECT_TRUE(testhost::spin_until([&] {
    return length_reader.released || data_reader.released || dripping_reader.released ||
           paused_reader.released;
  }));
  EXPECT_GE(g_get_monotonic_time(), begun_us + LIMIT_US);
  EXPECT_TRUE(testhost::spin_until([&] {
    return length_reader.released && data_reader.released && dripping_reader.released &&
           paused_reader.released;
  }));
  EXPECT_LT(g_get_monotonic_time(), begun_us + 2 * LIMIT_US);
  g_source_remove(dripping_id);

  for (Reader *reader : {&length_reader, &data_reader, &dripping_reader, &paused_reader}) {
    EXPECT_EQ(reader->take_events(), ENDED);
  }
  EXPECT_EQ(between_reader.take_events(), frames({"1"}));
  SyslogLines lines = testhost::take_syslog();
  std::ranges::sort(lines, {}, &testhost::SyslogLine::text);
  const SyslogLines data = failure("data", "Connection timed out");
  const SyslogLines length = failure("length", "Connection timed out");
  EXPECT_EQ(lines, (SyslogLines{data[0], data[0], data[0], length[0]}));
}

TEST_F(ExternalSourceSocketTest, GivesEachMessageItsOwnTime)
{
  const std::string bytes = teststream::message("0123456789");
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);
  const gint64 end_us =
      g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS * 5 / 4;

  /* No message is ever complete when it is begun, and none is late. */
  producer.send(bytes.substr(0, 6));
  EXPECT_TRUE(testhost::spin_until([&] {
    producer.send(bytes.substr(6) + bytes.substr(0, 6));
    testhost::dispatch_ready();
    return g_get_monotonic_time() > end_us;
  }));
  producer.send(bytes.substr(6));
  testhost::dispatch_ready();
  EXPECT_FALSE(reader.released);
  for (const std::string &event : reader.take_events()) {
    EXPECT_EQ(event, teststream::frame(NAME, "0123456789"));
  }
}

TEST_F(ExternalSourceSocketTest, ChargesAMessageFromItsLengthToItsDelivery)
{
  constexpr gsize LENGTH = 1000;
  const std::string bytes = teststream::message(std::string(LENGTH, 'x'));
  const gsize charge =
      teststream::frame(NAME, std::string(LENGTH, 'x')).size() + MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);
  gsize during_data = 0;
  reader.during_data = [&] { during_data = message_account_get_total(); };

  producer.send(bytes.substr(0, 3));
  testhost::dispatch_ready();
  EXPECT_EQ(message_account_get_total(), 0U);
  producer.send(bytes.substr(3, 1));
  testhost::dispatch_ready();
  EXPECT_EQ(message_account_get_total(), charge);
  producer.send(bytes.substr(4));
  testhost::dispatch_ready();
  EXPECT_EQ(during_data, charge);
  EXPECT_EQ(message_account_get_total(), 0U);
}

TEST_F(ExternalSourceSocketTest, EndsTheUnfinishedMessageOfTheClientThatHoldsMost)
{
  Producer modest(Carrier::PIPE, Mode::BLOCKING);
  Producer first(Carrier::PIPE, Mode::BLOCKING);
  Producer second(Carrier::PIPE, Mode::BLOCKING);
  Reader modest_reader(modest.consumer_fd);
  Reader first_reader(first.consumer_fd);
  Reader second_reader(second.consumer_fd);

  begin_message(modest, 20 * MIB);
  begin_message(first, 60 * MIB);
  EXPECT_EQ(first_reader.events, NOTHING);
  begin_message(second, 50 * MIB);
  EXPECT_EQ(first_reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), NO_MEMORY);
  EXPECT_EQ(second_reader.events, NOTHING);

  /* The message that begins may be the one. */
  Producer third(Carrier::PIPE, Mode::BLOCKING);
  Reader third_reader(third.consumer_fd);
  begin_message(third, 60 * MIB);
  EXPECT_EQ(third_reader.take_events(), ENDED);
  EXPECT_EQ(testhost::take_syslog(), NO_MEMORY);
  EXPECT_EQ(second_reader.events, NOTHING);
  EXPECT_EQ(modest_reader.events, NOTHING);
  EXPECT_LE(message_account_get_total(), 128U * MIB);
}

TEST_F(ExternalSourceSocketTest, BeginsNoMessageWhileAllClientsTogetherHoldTooMuch)
{
  const Account other;
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Producer begun(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);
  Reader begun_reader(begun.consumer_fd);

  begun.send(teststream::message("begun").substr(0, 5));
  testhost::dispatch_ready();
  other.hold(MESSAGE_ACCOUNT_TOTAL_LIMIT + 1);
  begun.send(teststream::message("begun").substr(5) + teststream::message("2"));
  producer.send(teststream::message("1"));
  EXPECT_EQ(reader.take_events(), NOTHING);
  EXPECT_EQ(begun_reader.take_events(), frames({"begun"}));
  expect_rest();

  other.hold(MESSAGE_ACCOUNT_TOTAL_LIMIT - MIB);
  EXPECT_EQ(reader.take_events(), frames({"1"}));
  EXPECT_EQ(begun_reader.take_events(), frames({"2"}));
}

TEST_F(ExternalSourceSocketTest, ReadsABoundedPartOfAMessageInEachTurn)
{
  constexpr gsize SOCKETS = 4;
  constexpr off_t READ_AHEAD = 64 * 1024;
  constexpr off_t SHARE = EXTERNAL_SOURCE_TURN_BYTES / SOCKETS;
  const std::string payload = numbers(8 * MIB);
  for (const int flags : {0, O_NONBLOCK}) {
    std::array<Peer, SOCKETS> files;
    std::vector<std::unique_ptr<Reader>> readers;
    for (Peer &file : files) {
      const int fd = open_file_with_message(payload, flags);
      file.fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
      readers.push_back(std::make_unique<Reader>(fd));
    }

    for (off_t turn = 1; turn < 8; turn++) {
      g_main_context_iteration(nullptr, FALSE);
      for (const Peer &file : files) {
        /* Each gets as far as the others. */
        EXPECT_GE(lseek(file.fd, 0, SEEK_CUR), turn * SHARE);
        EXPECT_LE(lseek(file.fd, 0, SEEK_CUR), turn * SHARE + READ_AHEAD);
      }
    }
    for (const auto &reader : readers) {
      EXPECT_TRUE(reader->take_events() == frames({payload}, ENDED));
    }
  }
}

TEST_F(ExternalSourceSocketTest, ReadsAMessageInFewTurnsBesideManyIdleStreams)
{
  constexpr gsize IDLE = 200;
  constexpr gsize TURNS = 3; /* the first one, which reads little, the rest, and the end of the file */
  const std::string payload = numbers(EXTERNAL_SOURCE_TURN_BYTES);
  std::vector<std::unique_ptr<Producer>> idle;
  std::vector<std::unique_ptr<Reader>> idle_readers;
  for (gsize i = 0; i < IDLE; i++) {
    idle.push_back(std::make_unique<Producer>(Carrier::SOCKET, Mode::BLOCKING));
    idle_readers.push_back(std::make_unique<Reader>(idle.back()->consumer_fd));
  }

  for (int message = 0; message < 3; message++) {
    {
      /* One that ends in the middle is counted no more. */
      const Reader ended(open_file_with_message(payload, 0));
      g_main_context_iteration(nullptr, FALSE);
    }
    Reader reader(open_file_with_message(payload, 0));
    for (gsize turn = 0; turn < TURNS; turn++) {
      g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_TRUE(reader.events == frames({payload}, ENDED)) << message;
  }
}

/* What the turns cut is not what the producer left unfinished. */
TEST_F(ExternalSourceSocketTest, ANonBlockingMessageMayTakeSeveralTurns)
{
  const std::string payload = numbers(900 * 1000);
  std::vector<std::unique_ptr<Producer>> idle;
  std::vector<std::unique_ptr<Reader>> idle_readers;
  Producer producer(Carrier::PIPE, Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  ASSERT_GE(fcntl(producer.consumer_fd, F_SETPIPE_SZ, MIB), 0);
  for (int i = 0; i < 7; i++) {
    idle.push_back(std::make_unique<Producer>(Carrier::PIPE, Mode::BLOCKING));
    idle_readers.push_back(std::make_unique<Reader>(idle.back()->consumer_fd));
  }

  producer.send(teststream::message(payload));
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(reader.events, NOTHING);
  EXPECT_TRUE(reader.take_events() == frames({payload}));
  expect_pieces_to_be_dropped(producer, &reader);
}

TEST_F(ExternalSourceSocketTest, EndsWhenAPayloadCannotBeRead)
{
  for (const Mode mode : {Mode::BLOCKING, Mode::NON_BLOCKING}) {
    Producer producer(Carrier::SOCKET, mode);
    Reader reader(producer.consumer_fd);

    /* A peer that goes without having read what it was sent resets the connection. */
    EXPECT_EQ(write(producer.consumer_fd, "unread", 6), 6);
    producer.send(length_only(1));
    producer.hang_up();
    EXPECT_EQ(reader.take_events(), ENDED);
    EXPECT_EQ(
        testhost::take_syslog(),
        (SyslogLines{{LOG_ERR, "Could not read request data from client socket: Connection reset by peer: "
                               "Connection reset by peer"}}));
  }
}

TEST_F(ExternalSourceSocketTest, LogsAFailureToClose)
{
  Producer producer(Carrier::PIPE, Mode::BLOCKING);
  Reader reader(producer.consumer_fd);

  close(producer.consumer_fd);
  external_source_socket_close(reader.socket, FALSE);
  EXPECT_EQ(reader.take_events(), (Texts{"released"}));
  EXPECT_EQ(testhost::take_syslog(),
            (SyslogLines{{LOG_ERR, "Failed to close channel: Bad file descriptor: Bad file descriptor"}}));
  EXPECT_EQ(testhost::take_glib_messages(), BAD_DESCRIPTOR);
}

namespace
{

constexpr int ROUNDS = 300;

/* A producer that never rests, read by the main thread, and another thread that closes the socket at some
 * time. Then the number of the descriptor is at once that of a file with bytes that nobody may take. */
class Race
{
public:
  explicit Race(int round) : round_(round)
  {
    socket_ = external_source_socket_new(producer_.consumer_fd, NAME, client_.account, on_data, on_close,
                                         this, on_release);
    sender_ = std::thread([this] { send(); });
    closer_ = std::thread([this] { close_and_reuse(); });
  }

  ~Race()
  {
    EXPECT_TRUE(testhost::spin_until([this] { return released_ && over_; }));
    sender_.join();
    closer_.join();
    expect_untouched();
    g_object_unref(socket_);
    EXPECT_EQ(closes_, 0U);
  }

  Race(const Race &) = delete;
  Race &operator=(const Race &) = delete;

private:
  static void on_data(ExternalSourceSocket *, guint8 *frame, gsize size, gpointer user_data)
  {
    auto *self = static_cast<Race *>(user_data);
    static const std::string EXPECTED = teststream::frame(NAME, PAYLOAD);
    g_autofree guint8 *taken = frame;

    EXPECT_FALSE(self->released_);
    EXPECT_EQ(std::string_view(reinterpret_cast<const char *>(taken), size), EXPECTED);
    self->frames_++;
  }

  static void on_close(ExternalSourceSocket *, gpointer user_data)
  {
    static_cast<Race *>(user_data)->closes_++;
  }

  static void on_release(gpointer user_data)
  {
    static_cast<Race *>(user_data)->released_ = true;
  }

  void send()
  {
    const std::string bytes = teststream::message(PAYLOAD);
    gsize sent = 0;

    while (!over_) {
      sent = (sent + producer_.send_some(bytes.data() + sent, bytes.size() - sent)) % bytes.size();
    }
  }

  void close_and_reuse()
  {
    /* Every second round begins before the first frame. */
    while (frames_ < static_cast<unsigned>(round_ % 2) * (round_ % 16)) {
      g_thread_yield();
    }
    if (round_ % 3 == 0) {
      client_.pause();
    }
    external_source_socket_close(socket_, FALSE);
    EXPECT_EQ(pipe2(reused_.data(), O_CLOEXEC), 0);
    EXPECT_EQ(write(reused_[1], "untouched", 9), 9);
    over_ = true;
  }

  void expect_untouched()
  {
    int count = 0;

    testhost::dispatch_ready();
    EXPECT_EQ(ioctl(reused_[0], FIONREAD, &count), 0);
    EXPECT_EQ(count, 9);
    close(reused_[0]);
    close(reused_[1]);
  }

  static const std::string PAYLOAD;

  int round_;
  Account client_;
  Producer producer_{Carrier::PIPE, Mode::BLOCKING};
  ExternalSourceSocket *socket_;
  std::array<int, 2> reused_ = {-1, -1};
  std::atomic<unsigned> frames_ = 0;
  std::atomic<unsigned> closes_ = 0;
  std::atomic<bool> released_ = false;
  std::atomic<bool> over_ = false;
  std::thread sender_;
  std::thread closer_;
};

const std::string Race::PAYLOAD(1000, 'x');

} // namespace

TEST_F(ExternalSourceSocketTest, MayBeClosedByAnotherThreadAtAnyTime)
{
  for (int round = 0; round < ROUNDS; round++) {
    Race race(round);
  }
}

/* Whatever the main thread is about to do when another thread ends the pause, no piece is dropped. */
TEST_F(ExternalSourceSocketTest, MayBeResumedByAnotherThreadAtAnyTime)
{
  constexpr gsize COUNT = 2000;
  const std::string bytes = teststream::message("0123456789");
  Producer producer(Carrier::PIPE, Mode::NON_BLOCKING);
  Reader reader(producer.consumer_fd);
  std::atomic<gsize> received = 0;
  std::atomic<gsize> turns = 0;
  std::atomic<bool> over = false;
  const auto count_turn = [](gpointer user_data) -> gboolean {
    ++*static_cast<std::atomic<gsize> *>(user_data);
    return G_SOURCE_CONTINUE;
  };
  reader.during_data = [&] {
    if (received % 2 == 0) {
      reader.client.pause();
    }
    received++;
  };
  const guint turning = g_idle_add_full(G_PRIORITY_DEFAULT, count_turn, &turns, nullptr);
  const auto wait_for = [&over](const std::atomic<gsize> &counter, gsize count) {
    while (counter < count && !over) {
      g_thread_yield();
    }
  };

  std::thread resumer([&] {
    for (gsize i = 0; i < COUNT && !over; i++) {
      producer.send(bytes);
      wait_for(received, 2 * i + 1);
      producer.send(bytes.substr(0, 7));
      /* Then the socket has been paused. */
      wait_for(turns, turns + 2);
      for (gsize waited = 0; waited < i % 997; waited++) {
      }
      reader.client.resume();
      producer.send(bytes.substr(7));
      wait_for(received, 2 * i + 2);
    }
  });
  EXPECT_TRUE(testhost::spin_until([&] { return received == 2 * COUNT; })) << received;
  over = true;
  resumer.join();
  g_source_remove(turning);
}

TEST_F(ExternalSourceSocketTest, IsClosedOnceByManyThreads)
{
  const std::string bytes = teststream::message("1");

  for (int round = 0; round < ROUNDS; round++) {
    Producer producer(Carrier::SOCKET, Mode::NON_BLOCKING);
    Reader reader(producer.consumer_fd);
    std::thread one([&] { external_source_socket_close(reader.socket, FALSE); });
    std::thread other([&] { round % 2 != 0 ? reader.client.pause() : reader.client.resume(); });

    producer.send_some(bytes.data(), bytes.size());
    producer.hang_up();
    testhost::dispatch_ready();
    one.join();
    other.join();
    EXPECT_TRUE(testhost::spin_until([&] { return reader.released.load(); }));
    EXPECT_EQ(reader.events.back(), "released");
    EXPECT_LE(std::count(reader.events.begin(), reader.events.end(), "closed"), 1);
  }
}

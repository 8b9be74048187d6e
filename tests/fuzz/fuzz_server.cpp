/* SPDX-License-Identifier: MIT */
// Several clients of one server, from connection to end: an input is a script of what they send and when they
// leave. A simple model predicts the reply of each client. All inputs use the same server, whose descriptors
// are all closed after each input.
#include "descriptorreserve.h"
#include "fuzz.h"
#include "requestmodel.h"
#include "server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

// Log lines would take longer than the work under test.
extern "C" void
syslog(int, const char *, ...)
{
}

extern "C" void __syslog_chk(int priority, int flag, const char *format, ...);
extern "C" void
__syslog_chk(int, int, const char *, ...)
{
}

// The only factory: the parameter "source" selects its result.

typedef struct {
  GObject parent_instance;
} FuzzFactory;

typedef struct {
  GObjectClass parent_class;
} FuzzFactoryClass;

static GType fuzz_factory_get_type();
static void fuzz_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(FuzzFactory, fuzz_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, fuzz_factory_iface_init))

namespace
{

constexpr const char *SOURCE_KEY = "source";
constexpr const char *STREAMS = "streams"; // one buffer, and the end
constexpr const char *BREAKS = "breaks";   // a source that does not start
constexpr const char *FAILS = "fails";     // an error
constexpr const char *LACKS = "lacks";     // the error of a shortage
constexpr const char *FAILURE_TEXT = "No such thing";
constexpr const char *MEDIA_TYPE = "application/x-onvif-metadata";

constexpr gsize MAX_CLIENTS = 6;
constexpr gsize CLIENTS_AT_ONCE = 4;
constexpr guint TICK_MS = 1;
constexpr int MAX_DESCRIPTORS = 1024;

const std::string NOTHING = "FAIL\nBad request, no metadata can be produced.";
const std::string NOT_CREATED = "FAIL\nCould not create metadata, Internal server error.";
constexpr const char *OVERDUE[] = {
    "FAIL\nCould not read request from client socket: Request not complete within 10000 ms",
    "FAIL\nCould not read request header from socket: Request not complete within 10000 ms",
};
const std::string NOT_PRODUCED = "FAIL\nCould not produce metadata, Internal server error.";

GstElement *
make_streaming_source()
{
  GstElement *bin = gst_bin_new(nullptr);
  GstElement *source = gst_element_factory_make("fakesrc", nullptr);
  GstElement *filter = gst_element_factory_make("capsfilter", nullptr);
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(MEDIA_TYPE);

  gst_util_set_object_arg(G_OBJECT(source), "sizetype", "fixed");
  g_object_set(source, "num-buffers", 1, "sizemax", 16, nullptr);
  g_object_set(filter, "caps", caps, nullptr);
  gst_bin_add_many(GST_BIN(bin), source, filter, nullptr);
  gst_element_link(source, filter);
  source_factory_add_ghost_pad(bin, filter);
  return bin;
}

GstElement *
make_breaking_source()
{
  GstElement *source = gst_element_factory_make("filesrc", nullptr);

  g_object_set(source, "location", "/nonexistent/source", nullptr);
  return source;
}

GstElement *
create_source(SourceFactory *, GHashTable *params, GError **error)
{
  const std::string_view kind = [params] {
    const gchar *text = source_factory_lookup_param(params, SOURCE_KEY);
    return text != nullptr ? text : "";
  }();

  if (kind == STREAMS)
    return make_streaming_source();
  if (kind == BREAKS)
    return make_breaking_source();
  if (kind == FAILS)
    g_set_error_literal(error, source_factory_error_quark(), 0, FAILURE_TEXT);
  if (kind == LACKS)
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, FAILURE_TEXT);
  return nullptr;
}

} // namespace

static void
fuzz_factory_init(FuzzFactory *)
{
}

static void
fuzz_factory_class_init(FuzzFactoryClass *)
{
}

static void
fuzz_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_source;
}

namespace
{

std::set<int>
open_descriptors()
{
  std::set<int> open;
  for (int fd = 0; fd < MAX_DESCRIPTORS; fd++)
    if (fcntl(fd, F_GETFD) >= 0)
      open.insert(fd);
  return open;
}

// Counts sockets and event descriptors, which a client needs. The sanitizers open others at any time.
gsize
count_descriptors()
{
  std::set<int> open = open_descriptors();
  return std::count_if(open.begin(), open.end(), [](int fd) {
    struct stat status = {};
    bool is_known = fstat(fd, &status) == 0;
    return is_known && (S_ISSOCK(status.st_mode) || (status.st_mode & S_IFMT) == 0);
  });
}

void
spin_until(const std::function<bool()> &condition)
{
  guint tick = g_timeout_add(
      TICK_MS, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  while (!condition())
    g_main_context_iteration(nullptr, TRUE);
  g_source_remove(tick);
}

// One connection. The main context reads its socket as soon as data arrives.
class Client
{
public:
  explicit Client(const std::string &path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    g_strlcpy(address.sun_path, path.c_str(), sizeof address.sun_path);
    fuzz::require(fd_ >= 0, "a client has a socket");
    fuzz::require(connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
                  "a client connects");
    watch_ = g_unix_fd_add(fd_, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_readable, this);
  }
  ~Client()
  {
    hang_up();
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void send(std::string_view bytes)
  {
    ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0)
      sent_.append(bytes.substr(0, count));
  }
  void half_close()
  {
    half_closed_ = half_closed_ || !has_reply();
    shutdown(fd_, SHUT_WR);
  }
  void hang_up()
  {
    if (watch_ != 0)
      g_source_remove(std::exchange(watch_, 0));
    if (fd_ >= 0)
      close(std::exchange(fd_, -1));
  }

  bool is_there() const
  {
    return fd_ >= 0;
  }
  bool has_ended() const
  {
    return ended_;
  }
  bool has_reply() const
  {
    return received_.find('\0') != received_.npos;
  }
  const std::string &sent() const
  {
    return sent_;
  }

  // The request is complete, so the reply needs no more input.
  bool is_complete() const
  {
    return requests::Model(sent_, SERVER_MAX_REQUEST_BYTES).run().outcome.accepted;
  }

  void check(bool was_short) const
  {
    gsize end = received_.find('\0');
    fuzz::require(end != received_.npos, "there is a reply");
    std::string reply = received_.substr(0, end);
    fuzz::require(expected_replies(was_short).contains(reply),
                  ("a reply of the model's, and no " + reply).c_str());
    fuzz::require(reply == "OK" || end + 1 == received_.size(), "nothing follows a failure");
  }

private:
  static gboolean on_readable(gint, GIOCondition, gpointer user_data)
  {
    auto *self = static_cast<Client *>(user_data);
    self->receive();
    if (self->ended_)
      self->watch_ = 0;
    return !self->ended_;
  }

  void receive()
  {
    std::array<char, 4096> data;
    ssize_t length = 0;
    while ((length = recv(fd_, data.data(), data.size(), MSG_DONTWAIT)) > 0)
      received_.append(data.data(), length);
    // Bytes after the request belong to the stream, which may be closed while some of them are unread.
    bool streamed = received_.starts_with("OK");
    fuzz::require(length == 0 || errno == EAGAIN || streamed, "the end is no error");
    ended_ = length == 0 || errno != EAGAIN;
  }

  std::set<std::string> expected_replies(bool was_short) const
  {
    requests::Expectation expected = requests::Model(sent_, SERVER_MAX_REQUEST_BYTES).run();
    std::set<std::string> replies = {expected.outcome.failure};
    if (expected.outcome.accepted) {
      bool interferes = half_closed_ || sent_.size() > expected.max_taken;
      replies = replies_to(expected.outcome.params, interferes);
    }
    if (was_short)
      replies.insert(NOT_CREATED);
    if (is_overdue())
      replies.insert(std::begin(OVERDUE), std::end(OVERDUE));
    return replies;
  }

  // A client may send more, or shut down its half, before or after its pipeline is ready.
  static std::set<std::string> replies_to(const requests::Params &params, bool interferes)
  {
    auto found = params.find(SOURCE_KEY);
    std::string kind = found != params.end() ? found->second : "";
    if (kind == STREAMS && interferes)
      return {"OK", NOT_PRODUCED};
    if (kind == STREAMS)
      return {"OK"};
    if (kind == BREAKS)
      return {NOT_PRODUCED};
    if (kind == FAILS)
      return {std::string("FAIL\nUnable to create source: ") + FAILURE_TEXT + "."};
    return {kind == LACKS ? NOT_CREATED : NOTHING};
  }

  // On a busy machine a request may time out.
  bool is_overdue() const
  {
    return g_get_monotonic_time() >= begin_us_ + SERVER_REQUEST_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
  }

  int fd_;
  const gint64 begin_us_ = g_get_monotonic_time();
  guint watch_ = 0;
  std::string sent_;
  std::string received_;
  bool half_closed_ = false; // before the reply
  bool ended_ = false;
};

// The server, in a folder that is removed with the process.
class Host
{
public:
  Host()
  {
    g_autofree gchar *folder = g_dir_make_tmp("fuzz-server-XXXXXX", nullptr);
    fuzz::require(folder != nullptr, "there is a folder");
    folder_ = folder;
    server_ = TESSARD_SERVER(g_object_new(server_get_type(), "run-dir", folder, nullptr));
    g_autoptr(GObject) factory = G_OBJECT(g_object_new(fuzz_factory_get_type(), nullptr));
    server_register_source_factory(server_, SOURCE_FACTORY(factory));
    fuzz::require(server_start(server_), "the server starts");
  }
  ~Host()
  {
    server_stop(server_);
    g_object_unref(server_);
    rmdir(folder_.c_str());
  }
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  std::string path() const
  {
    return folder_ + "/metadata";
  }

private:
  std::string folder_;
  Server *server_;
};

// A shortage of descriptors for the lifetime of the object. The limit is at least the number of open
// descriptors: poll() refuses more than the limit, which a process with a constant limit never has.
class Shortage
{
public:
  explicit Shortage(gsize free)
  {
    getrlimit(RLIMIT_NOFILE, &before_);
    std::set<int> taken = open_descriptors();
    rlimit limit = before_;
    limit.rlim_cur = 0;
    for (gsize left = free + 1; left > 0; limit.rlim_cur++)
      left -= taken.contains(static_cast<int>(limit.rlim_cur)) ? 0 : 1;
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur - 1, taken.size() + 1);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~Shortage()
  {
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  Shortage(const Shortage &) = delete;
  Shortage &operator=(const Shortage &) = delete;

private:
  rlimit before_ = {};
};

// A command byte: the client in its lowest two bits, the command in the others.
enum Command {
  SEND,      // as many bytes as the next byte says
  SEND_LONG, // 256 bytes times the next byte, all with the value of the byte after it
  HALF_CLOSE,
  HANG_UP,
  RUN,   // runs the server until it needs more input
  WAIT,  // waits for this client's reply, if its request is complete
  SHORT, // sets the number of free descriptors to the next byte, or to enough if that is too large
  N_COMMANDS,
};

// With this number of free descriptors each client of a script is served.
constexpr gsize ENOUGH = DESCRIPTOR_RESERVE_SIZE + MAX_CLIENTS * (SERVER_PIPELINE_DESCRIPTORS + 1);

class Script
{
public:
  Script(std::string_view input, const std::string &path) : input_(input), path_(path)
  {
  }

  void run()
  {
    while (!input_.empty() && connected_ <= MAX_CLIENTS) {
      unsigned char command = take_byte();
      perform(static_cast<Command>(command / CLIENTS_AT_ONCE % N_COMMANDS),
              clients_[command % CLIENTS_AT_ONCE]);
    }
    wait_for_replies();
    for (auto &client : clients_)
      if (client)
        finish(*client);
    shortage_.reset();
  }

private:
  unsigned char take_byte()
  {
    unsigned char byte = input_.empty() ? 0 : static_cast<unsigned char>(input_.front());
    input_.remove_prefix(std::min<gsize>(1, input_.size()));
    return byte;
  }
  std::string_view take(gsize count)
  {
    std::string_view bytes = input_.substr(0, count);
    input_.remove_prefix(bytes.size());
    return bytes;
  }

  // Waits until the server accepts the connection, so that the backlog always has room. The client's own
  // descriptor does not count as used.
  Client &there(std::unique_ptr<Client> &client)
  {
    if (!client) {
      shortage_.reset();
      client = std::make_unique<Client>(path_);
      connected_++;
      if (free_ < ENOUGH)
        shortage_.emplace(free_);
      run_server();
    }
    return *client;
  }

  // Waits for pipelines that are being built: they have reserved their descriptors.
  void leave_descriptors(gsize count)
  {
    wait_for_replies();
    free_ = count;
    was_short_ = was_short_ || free_ < ENOUGH;
    shortage_.reset();
    if (free_ < ENOUGH)
      shortage_.emplace(free_);
  }

  void perform(Command command, std::unique_ptr<Client> &client)
  {
    switch (command) {
    case SEND:
      there(client).send(take(take_byte()));
      break;
    case SEND_LONG: {
      gsize count = take_byte() * 256U;
      there(client).send(std::string(count, static_cast<char>(take_byte())));
      break;
    }
    case HALF_CLOSE:
      there(client).half_close();
      break;
    case HANG_UP:
      client.reset();
      break;
    case WAIT:
      wait_for_reply(there(client));
      break;
    case SHORT:
      leave_descriptors(take_byte());
      break;
    default:
      run_server();
    }
  }

  static void run_server()
  {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  // Clients with incomplete requests delay no other client.
  static void wait_for_reply(const Client &client)
  {
    if (client.is_complete())
      spin_until([&client] { return client.has_reply() || client.has_ended(); });
  }

  void wait_for_replies()
  {
    for (auto &client : clients_)
      if (client)
        wait_for_reply(*client);
  }

  void finish(Client &last)
  {
    for (auto &client : clients_)
      if (client)
        client->half_close();
    spin_until([&last] { return last.has_ended(); });
    last.check(was_short_);
  }

  std::string_view input_;
  const std::string &path_;
  std::array<std::unique_ptr<Client>, CLIENTS_AT_ONCE> clients_;
  gsize connected_ = 0;
  gsize free_ = ENOUGH;
  std::optional<Shortage> shortage_;
  bool was_short_ = false;
};

// The only GLib message that a client can cause is the one about an early sync point.
void
expect_early_sync_point(const gchar *, GLogLevelFlags, const gchar *message, gpointer)
{
  fuzz::require(strstr(message, "CONNECTION_MANAGER_STATUS_STARTED") != nullptr, message);
}

void
install_elements()
{
  gst_init(nullptr, nullptr);
  g_autoptr(GstElement) funnel = gst_element_factory_make("funnel", nullptr);
  fuzz::require(funnel != nullptr, "GStreamer has its core elements");
  gst_object_ref_sink(funnel);
  gst_element_register(nullptr, "onvifxmlmetadatastreamdoc", GST_RANK_NONE, G_OBJECT_TYPE(funnel));
  g_log_set_default_handler(expect_early_sync_point, nullptr);
}

// Opens descriptors that are made at first use and stay open.
void
open_what_stays()
{
  g_main_context_default();
  gst_object_unref(gst_system_clock_obtain());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int
LLVMFuzzerInitialize(int *, char ***)
{
  // As the daemon does at its start.
  signal(SIGPIPE, SIG_IGN);
  install_elements();
  open_what_stays();
  return 0;
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  static Host host;
  static std::string path = host.path();
  static gsize before = count_descriptors();

  Script(fuzz::as_text(data, size), path).run();
  spin_until([] { return count_descriptors() <= before; });
  return 0;
}

/* SPDX-License-Identifier: MIT */
#include "testbus.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gio/gunixfdlist.h>
#include <iterator>
#include <random>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace testbus
{
namespace
{

constexpr const char *ADDRESS_VARIABLE = "DBUS_SYSTEM_BUS_ADDRESS";
/* Of this thread's main context. */
constexpr gsize DESCRIPTORS_THAT_GDBUS_KEEPS = 1;

constexpr std::string_view SOCKET_PLACEHOLDER = "@socket@";

/* Lives as long as the process. */
class Directory
{
public:
  Directory()
  {
    g_autofree gchar *path = g_dir_make_tmp("tessard-bus-XXXXXX", nullptr);
    g_assert_nonnull(path);
    path_ = path;
  }

  ~Directory()
  {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }

  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;

  std::string path(const char *name) const
  {
    return path_ + "/" + name;
  }

private:
  std::string path_;
};

const Directory &
directory()
{
  static const Directory instance;

  return instance;
}

std::string
socket_path()
{
  return directory().path("socket");
}

std::string
write_configuration()
{
  const std::string path = directory().path("bus.conf");
  std::ifstream in(BUS_CONFIGURATION);
  std::string text(std::istreambuf_iterator<char>(in), {});
  const gsize placeholder = text.find(SOCKET_PLACEHOLDER);
  g_assert_cmpuint(placeholder, !=, std::string::npos);

  std::ofstream(path) << text.replace(placeholder, SOCKET_PLACEHOLDER.size(), socket_path());
  return path;
}

/* The kernel ends the bus with the test program. */
void
on_child_setup(gpointer)
{
  prctl(PR_SET_PDEATHSIG, SIGKILL);
}

GDBusConnection *
connect_to_bus()
{
  constexpr auto FLAGS = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  g_autoptr(GError) error = nullptr;
  GDBusConnection *connection =
      g_dbus_connection_new_for_address_sync(g_getenv(ADDRESS_VARIABLE), FLAGS, nullptr, nullptr, &error);

  g_assert_no_error(error);
  return connection;
}

/* Messages of the bus itself. */
GVariant *
ask_bus(GDBusConnection *connection, const char *method, GVariant *arguments)
{
  g_autoptr(GError) error = nullptr;
  GVariant *reply = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", method, arguments, nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);

  g_assert_no_error(error);
  return reply;
}

void
own_name(GDBusConnection *connection, const char *name)
{
  g_variant_unref(ask_bus(connection, "RequestName", g_variant_new("(su)", name, 0U)));
}

void
on_settled(GObject *connection, GAsyncResult *result, gpointer settled)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection *>(connection), result, &error);

  g_assert_no_error(error);
  *static_cast<bool *>(settled) = true;
}

/* A call that waits has a descriptor of its own, which the thread of GDBus may close after the call has
 * returned. That thread has closed it when it brings the reply to a later call; this one has no descriptor.
 * It needs a thread's own context, since it dispatches that. */
void
wait_for_earlier_calls(GDBusConnection *connection)
{
  bool settled = false;

  g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, on_settled,
                         &settled);
  while (!settled) {
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
  }
}

std::string
describe(GDBusMessage *call)
{
  GVariant *body = g_dbus_message_get_body(call);
  g_autofree gchar *arguments = body != nullptr ? g_variant_print(body, TRUE) : g_strdup("()");

  return std::string(g_dbus_message_get_path(call)) + " " + g_dbus_message_get_interface(call) + "." +
         g_dbus_message_get_member(call) + " " + arguments;
}

/* A call that is passed to the service's thread. */
struct Call {
  Service *service;
  GDBusConnection *connection;
  GDBusMessage *message;
};

void
free_call(gpointer user_data)
{
  auto *call = static_cast<Call *>(user_data);

  g_object_unref(call->connection);
  g_object_unref(call->message);
  delete call;
}

/* Keeps the calling thread busy: a sleep is too coarse for the moments of a cancellation. */
void
spin_for(gint64 time_us)
{
  const gint64 end_us = g_get_monotonic_time() + time_us;

  while (g_get_monotonic_time() < end_us) {
  }
}

void
on_closed(GDBusConnection *, gboolean, GError *, bool *closed)
{
  *closed = true;
}

} // namespace

void
install()
{
  static bool installed;
  if (std::exchange(installed, true)) {
    return;
  }
  /* A task creates a thread and a descriptor. */
  g_type_ensure(G_TYPE_TASK);
  const gsize before = testhost::open_descriptors().size();
  g_setenv(ADDRESS_VARIABLE, ("unix:path=" + socket_path()).c_str(), TRUE);
  {
    const Bus bus;
    g_autoptr(GDBusConnection) connection = connect_to_bus();
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
  }

  /* The thread of GDBus closes all other descriptors later. */
  EXPECT_TRUE(testhost::spin_until([before] {
    return testhost::open_descriptors().size() == before + DESCRIPTORS_THAT_GDBUS_KEEPS;
  })) << "GDBus keeps more or less than expected";
}

Bus::Bus()
{
  const std::string option = "--config-file=" + write_configuration();
  const std::array<const char *, 7> command = {"dbus-daemon", option.c_str(),      "--nofork", "--nopidfile",
                                               "--nosyslog",  "--print-address=1", nullptr};
  g_autoptr(GError) error = nullptr;
  gint output = -1;

  g_spawn_async_with_pipes(
      nullptr, const_cast<gchar **>(command.data()), nullptr,
      static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL),
      on_child_setup, nullptr, &pid_, nullptr, &output, nullptr, &error);
  g_assert_no_error(error);

  /* The bus prints its address when it listens. */
  char first = '\0';
  EXPECT_EQ(read(output, &first, 1), 1) << "the bus did not start";
  close(output);
}

Bus::~Bus()
{
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  unlink(socket_path().c_str());
}

void
Fixture::SetUpTestSuite()
{
  install();
}

void
Fixture::SetUp()
{
  testhost::Fixture::SetUp();
  bus_.emplace();
}

void
Fixture::TearDown()
{
  bus_.reset();
  testhost::Fixture::TearDown();
}

Answer
reply(const std::string &body)
{
  return [body](GDBusMessage *call) {
    g_autoptr(GError) error = nullptr;
    GVariant *tuple = g_variant_parse(nullptr, body.c_str(), nullptr, nullptr, &error);
    g_assert_no_error(error);
    GDBusMessage *message = g_dbus_message_new_method_reply(call);

    g_dbus_message_set_body(message, tuple);
    g_variant_unref(tuple);
    return message;
  };
}

Answer
refuse(const std::string &name, const std::string &text)
{
  return [name, text](GDBusMessage *call) {
    return g_dbus_message_new_method_error_literal(call, name.c_str(), text.c_str());
  };
}

Answer
refuse()
{
  return refuse("com.quon.Test.Error", "No.");
}

Answer
reply_with_fds(const std::string &body, const std::vector<int> &fds)
{
  return [body, fds](GDBusMessage *call) {
    GDBusMessage *message = reply(body)(call);
    g_autoptr(GUnixFDList) list = g_unix_fd_list_new();

    for (const int fd : fds) {
      EXPECT_GE(g_unix_fd_list_append(list, fd, nullptr), 0);
    }
    g_dbus_message_set_unix_fd_list(message, list);
    return message;
  };
}

Service::Service(const char *name, Answer answer)
    : answer_(std::move(answer)), context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)),
      thread_([this, name] { run(name); })
{
  std::unique_lock guard(lock_);

  changed_.wait(guard, [this] { return ready_; });
}

Service::~Service()
{
  {
    std::lock_guard guard(lock_);
    gone_ = true;
    changed_.notify_all();
  }
  g_autoptr(GSource) quit = g_idle_source_new();
  g_source_set_callback(
      quit,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  g_source_attach(quit, context_);

  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void
Service::set_answer(Answer answer)
{
  std::lock_guard guard(lock_);

  answer_ = std::move(answer);
}

void
Service::send(GDBusMessage *message)
{
  g_autoptr(GError) error = nullptr;

  g_dbus_connection_send_message(connection_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, &error);
  EXPECT_TRUE(error == nullptr || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) << error->message;
}

void
Service::take_name_again(const char *name)
{
  g_variant_unref(ask_bus(connection_, "ReleaseName", g_variant_new("(s)", name)));
  own_name(connection_, name);
}

std::vector<std::string>
Service::take_calls()
{
  std::lock_guard guard(lock_);

  return std::exchange(calls_, {});
}

gsize
Service::calls_size()
{
  std::lock_guard guard(lock_);

  return calls_.size();
}

void
Service::set_slow(bool slow)
{
  std::lock_guard guard(lock_);

  slow_ = slow;
  changed_.notify_all();
}

void
Service::run(const char *name)
{
  g_main_context_push_thread_default(context_);
  g_autoptr(GDBusConnection) connection = connect_to_bus();
  const guint filter_id = g_dbus_connection_add_filter(connection, on_message, this, nullptr);
  bool closed = false;
  g_signal_connect(connection, "closed", G_CALLBACK(on_closed), &closed);
  connection_ = connection;
  own_name(connection, name);
  /* Calls can come from here on. */
  wait_for_earlier_calls(connection);
  {
    std::lock_guard guard(lock_);
    ready_ = true;
    changed_.notify_all();
  }

  g_main_loop_run(loop_);
  /* Connection and context hold each other until the end, or a call before it, is dispatched. */
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  while (!closed) {
    g_main_context_iteration(context_, TRUE);
  }
  while (g_main_context_iteration(context_, FALSE)) {
  }
  g_dbus_connection_remove_filter(connection, filter_id);
  g_main_context_pop_thread_default(context_);
}

/* On the thread of GDBus, which all connections of the process share: it must not block. */
GDBusMessage *
Service::on_message(GDBusConnection *connection, GDBusMessage *message, gboolean incoming, gpointer user_data)
{
  auto *self = static_cast<Service *>(user_data);

  if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return message;
  }
  std::lock_guard guard(self->lock_);
  auto *call = new Call{self, G_DBUS_CONNECTION(g_object_ref(connection)), message};
  g_autoptr(GSource) source = g_idle_source_new();

  g_source_set_callback(source, on_call, call, free_call);
  g_source_attach(source, self->context_);
  return nullptr;
}

gboolean
Service::on_call(gpointer user_data)
{
  auto *call = static_cast<Call *>(user_data);

  call->service->answer(call->message);
  return G_SOURCE_REMOVE;
}

void
Service::answer(GDBusMessage *call)
{
  std::unique_lock guard(lock_);
  calls_.push_back(describe(call));
  changed_.wait(guard, [this] { return !slow_ || gone_; });
  if (gone_) {
    return;
  }
  const Answer make_reply = answer_;
  guard.unlock();

  g_autoptr(GDBusMessage) message = make_reply(call);
  if (message != nullptr) {
    send(message);
  }
}

HeldCalls::~HeldCalls()
{
  for (GDBusMessage *call : calls_.take()) {
    g_object_unref(call);
  }
}

Answer
HeldCalls::hold()
{
  return [this](GDBusMessage *call) -> GDBusMessage * {
    calls_.add(G_DBUS_MESSAGE(g_object_ref(call)));
    return nullptr;
  };
}

gsize
HeldCalls::size()
{
  return calls_.size();
}

void
HeldCalls::release(Service *service, const Answer &answer)
{
  for (GDBusMessage *call : calls_.take()) {
    g_autoptr(GDBusMessage) message = answer(call);
    service->send(message);
    g_object_unref(call);
  }
}

namespace
{

std::string
describe_error(GError *error)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(error);

  g_dbus_error_strip_remote_error(error);
  return std::string(name != nullptr ? name : "not from the bus") + ": " + error->message;
}

void
on_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Peer::Outcome> outcome(static_cast<Peer::Outcome *>(user_data));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) body = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);

  if (body == nullptr) {
    **outcome = describe_error(error);
    return;
  }
  g_autofree gchar *text = g_variant_print(body, FALSE);
  **outcome = text;
}

} // namespace

void
expect_no_loss_when_cancelled(const CancellableCall &call)
{
  constexpr unsigned ROUNDS = 3000;
  constexpr unsigned LONGEST_US = 400;
  std::minstd_rand chance(1);
  unsigned replies = 0;
  const gsize before = testhost::open_descriptors().size();

  for (unsigned round = 0; round < ROUNDS; round++) {
    const unsigned delay_us = chance() % LONGEST_US;
    g_autoptr(GCancellable) cancellable = g_cancellable_new();
    std::thread canceller([cancellable, delay_us] {
      spin_for(delay_us);
      g_cancellable_cancel(cancellable);
    });
    g_autoptr(GVariant) reply = call(cancellable);
    canceller.join();
    replies += reply != nullptr ? 1 : 0;
  }
  EXPECT_GT(replies, 0U);
  EXPECT_LT(replies, ROUNDS);
  EXPECT_TRUE(testhost::spin_until([before] { return testhost::open_descriptors().size() <= before; }));
}

Peer::Peer() : connection_(connect_to_bus())
{
  g_signal_connect(connection_, "closed", G_CALLBACK(on_closed), &closed_);
}

Peer::~Peer()
{
  if (subscription_id_ != 0) {
    g_dbus_connection_signal_unsubscribe(connection_, subscription_id_);
  }
  close();
  g_object_unref(connection_);
}

GDBusConnection *
Peer::connection() const
{
  return connection_;
}

void
Peer::close()
{
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  EXPECT_TRUE(testhost::spin_until([this] { return closed_; }));
}

std::string
Peer::name() const
{
  return g_dbus_connection_get_unique_name(connection_);
}

void
Peer::own(const char *name) const
{
  own_name(connection_, name);
}

void
Peer::release(const char *name) const
{
  g_variant_unref(ask_bus(connection_, "ReleaseName", g_variant_new("(s)", name)));
}

bool
Peer::has_owner(const char *name) const
{
  g_autoptr(GVariant) reply = ask_bus(connection_, "NameHasOwner", g_variant_new("(s)", name));
  gboolean owned = FALSE;

  g_variant_get(reply, "(b)", &owned);
  return owned != FALSE;
}

gsize
Peer::count_names() const
{
  g_autoptr(GVariant) reply = ask_bus(connection_, "ListNames", nullptr);
  g_autoptr(GVariant) names = g_variant_get_child_value(reply, 0);

  return g_variant_n_children(names);
}

Peer::Outcome
Peer::start(const Call &call) const
{
  auto outcome = std::make_shared<std::optional<std::string>>();

  g_dbus_connection_call(connection_, call.destination.c_str(), call.path.c_str(), call.interface.c_str(),
                         call.method.c_str(), call.arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT,
                         nullptr, on_reply, new Outcome(outcome));
  return outcome;
}

std::string
Peer::call(const Call &call) const
{
  const Outcome outcome = start(call);

  EXPECT_TRUE(testhost::spin_until([&outcome] { return outcome->has_value(); })) << call.method;
  return outcome->value_or("no answer");
}

void
Peer::listen(const std::string &sender)
{
  subscription_id_ =
      g_dbus_connection_signal_subscribe(connection_, sender.c_str(), nullptr, nullptr, nullptr, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr);
  /* The reply to a later call proves that the bus has processed it. */
  has_owner(sender.c_str());
}

std::vector<std::string>
Peer::take_signals()
{
  return std::exchange(signals_, {});
}

void
Peer::on_signal(GDBusConnection *, const gchar *, const gchar *path, const gchar *interface,
                const gchar *signal, GVariant *arguments, gpointer user_data)
{
  g_autofree gchar *text = g_variant_print(arguments, FALSE);

  static_cast<Peer *>(user_data)->signals_.push_back(std::string(path) + " " + interface + "." + signal +
                                                     " " + text);
}

} // namespace testbus

/* SPDX-License-Identifier: MIT */
/* Arbitrary messages from the metadata receiver to its whole client. This program plays the bus and the
 * receiver on one connection to the client. Unlike the receivers of the other tests it needs no dbus-daemon,
 * which would take most of the time, and it sends bodies of wrong types.
 *
 * The input is a list of records: a byte with the kind of message, two bytes with the length of the rest, and
 * the rest, a GVariant's type, a NUL and its bytes. An invalid type is replaced by the correct one. So each
 * message occurs with correct and with wrong types.
 *
 * After all messages the list of producers is within its limits, the listed properties are valid, and the
 * list is empty when the client has ended.
 */
#include "dbusclient.h"
#include "fuzz.h"
#include "producerconfig.h"
#include "producerproperties.h"
#include "producersfile.h"
#include "ratelimitedlog.h"
#include "receiverwatch.h"
#include "systembus.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <gio/gio.h>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <syslog.h>
#include <thread>
#include <utility>

namespace
{

constexpr const char *BUS_NAME = "org.freedesktop.DBus";
constexpr const char *OWNER = ":1.1";
constexpr const char *CLIENT = ":1.2";
constexpr const char *MANAGER = "org.freedesktop.DBus.ObjectManager";
constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char *FENCE = "com.quon.Fence";
constexpr size_t MAX_RECORDS = 64;

enum Kind : uint8_t { ADDED, REMOVED, CHANGED, OBJECTS, SAMPLE, VANISHES, APPEARS, N_KINDS };

struct Record {
  Kind kind;
  std::string path;
  GVariant *body;
};

/* The bus and the receiver, in a thread of their own. */
class Bus
{
public:
  Bus() : context_(g_main_context_new()), thread_([this] { run(); })
  {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return !address_.empty(); });
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), TRUE);
  }

  /* Sets the body of later replies, NULL for an error. */
  void set_objects(GVariant *body)
  {
    std::lock_guard guard(lock_);
    replace(&objects_, body);
  }

  void set_sample(GVariant *body)
  {
    std::lock_guard guard(lock_);
    replace(&sample_, body);
  }

  void send_signal(const char *sender, const std::string &path, const char *interface, const char *signal,
                   GVariant *body)
  {
    g_autoptr(GDBusMessage) message = g_dbus_message_new_signal(path.c_str(), interface, signal);

    g_dbus_message_set_sender(message, sender);
    g_dbus_message_set_body(message, body);
    send(message);
  }

  /* Makes the receiver appear or vanish. When it appears, the client requests its objects. */
  void set_owner(bool present)
  {
    if (owned_.exchange(present) == present) {
      return;
    }
    const unsigned before = object_requests_;
    send_signal(BUS_NAME, "/org/freedesktop/DBus", BUS_NAME, "NameOwnerChanged",
                g_variant_new("(sss)", RECEIVER_NAME, present ? "" : OWNER, present ? OWNER : ""));
    if (present) {
      wait_for_object_request(before);
    }
  }

  /* The reply wakes the main loop. */
  void wait_for_object_request(unsigned before) const
  {
    while (object_requests_ == before) {
      g_main_context_iteration(nullptr, TRUE);
    }
  }

  unsigned object_requests() const
  {
    return object_requests_;
  }

private:
  static void replace(GVariant **kept, GVariant *body)
  {
    g_clear_pointer(kept, g_variant_unref);
    *kept = body != nullptr ? g_variant_ref(body) : nullptr;
  }

  void run()
  {
    g_main_context_push_thread_default(context_);
    g_autofree gchar *guid = g_dbus_generate_guid();
    g_autoptr(GDBusServer) server =
        g_dbus_server_new_sync("unix:tmpdir=/tmp", G_DBUS_SERVER_FLAGS_NONE, guid, nullptr, nullptr, nullptr);
    fuzz::require(server != nullptr, "a bus");
    g_signal_connect(server, "new-connection", G_CALLBACK(on_connection), this);
    g_dbus_server_start(server);
    {
      std::lock_guard guard(lock_);
      address_ = g_dbus_server_get_client_address(server);
    }
    changed_.notify_all();
    g_autoptr(GMainLoop) loop = g_main_loop_new(context_, FALSE);
    g_main_loop_run(loop);
  }

  static gboolean on_connection(GDBusServer *, GDBusConnection *connection, gpointer user_data)
  {
    auto *self = static_cast<Bus *>(user_data);

    g_dbus_connection_add_filter(connection, on_message, self, nullptr);
    std::lock_guard guard(self->lock_);
    g_clear_object(&self->connection_);
    self->connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
    return TRUE;
  }

  /* On GDBus' thread. */
  static GDBusMessage *on_message(GDBusConnection *connection, GDBusMessage *message, gboolean incoming,
                                  gpointer user_data)
  {
    if (!incoming) {
      return message;
    }
    if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
      auto *self = static_cast<Bus *>(user_data);
      g_autoptr(GDBusMessage) reply = self->make_reply(message);
      g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
    g_object_unref(message);
    return nullptr;
  }

  GDBusMessage *make_reply(GDBusMessage *call)
  {
    const std::string method = g_dbus_message_get_member(call);
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    std::lock_guard guard(lock_);

    g_dbus_message_set_sender(reply, BUS_NAME);
    object_requests_ += method == "GetManagedObjects" ? 1 : 0;
    if (method == "Hello") {
      g_dbus_message_set_body(reply, g_variant_new("(s)", CLIENT));
    } else if (method == "StartServiceByName") {
      g_dbus_message_set_body(reply, g_variant_new("(u)", 2));
    } else if (method == "GetNameOwner" && owned_) {
      g_dbus_message_set_body(reply, g_variant_new("(s)", OWNER));
    } else if (method == "GetManagedObjects" && objects_ != nullptr) {
      g_dbus_message_set_body(reply, objects_);
    } else if (method == "GetSampleFrame" && sample_ != nullptr) {
      g_dbus_message_set_body(reply, sample_);
    } else if (method != "AddMatch" && method != "RemoveMatch") {
      g_object_unref(reply);
      return g_dbus_message_new_method_error_literal(call, "org.freedesktop.DBus.Error.Failed", "No.");
    }
    return reply;
  }

  void send(GDBusMessage *message)
  {
    std::lock_guard guard(lock_);

    if (connection_ != nullptr) {
      g_dbus_connection_send_message(connection_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::string address_;
  GDBusConnection *connection_ = nullptr;
  GVariant *objects_ = nullptr;
  GVariant *sample_ = nullptr;
  std::atomic<bool> owned_ = true;
  std::atomic<unsigned> object_requests_ = 0;
  GMainContext *context_;
  std::thread thread_;
};

/* Has the type of the input if that is valid and a message can have it, or else the correct one. */
GVariant *
make_body(std::string_view input, const char *right_type)
{
  const size_t end = std::min(input.find('\0'), input.size());
  const std::string text(input.substr(0, end));
  const bool is_type = g_variant_type_string_is_valid(text.c_str()) && text.starts_with('(') &&
                       g_variant_type_is_definite(G_VARIANT_TYPE(text.c_str())) &&
                       text.find('m') == text.npos && text.find('h') == text.npos &&
                       text.find("()") == text.npos;
  const std::string type = is_type ? text : right_type;
  const std::string_view bytes = input.substr(std::min(end + 1, input.size()));

  g_autoptr(GBytes) copy = g_bytes_new(bytes.data(), bytes.size());
  g_autoptr(GVariant) value =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), copy, FALSE));
  return g_variant_get_normal_form(value);
}

/* NULL if no message can carry the body. */
GVariant *
take_if_carried(GVariant *body)
{
  g_autoptr(GDBusMessage) message = g_dbus_message_new_signal("/x", "x.x", "x");
  gsize size = 0;

  g_dbus_message_set_body(message, body);
  g_dbus_message_set_serial(message, 1);
  g_autofree guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  g_autoptr(GDBusMessage) back =
      blob != nullptr ? g_dbus_message_new_from_blob(blob, size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr)
                      : nullptr;
  if (back == nullptr) {
    g_variant_unref(body);
    return nullptr;
  }
  return body;
}

std::string
path_of(uint8_t number)
{
  constexpr const char *OTHERS[] = {"/", "/elsewhere", RECEIVER_PRODUCERS_PATH,
                                    RECEIVER_PRODUCERS_PATH "/a/b"};

  return number % 8 < 4 ? OTHERS[number % 8]
                        : std::string(RECEIVER_PRODUCERS_PATH) + "/" + static_cast<char>('a' + number % 26);
}

std::vector<Record>
parse(std::string_view input)
{
  constexpr const char *TYPES[N_KINDS] = {"(oa{sa{sv}})", "(oas)", "(sa{sv}as)", "(a{oa{sa{sv}}})",
                                          "(s)",          "()",    "()"};
  std::vector<Record> records;

  while (input.size() >= 3 && records.size() < MAX_RECORDS) {
    const auto first = static_cast<uint8_t>(input[0]);
    const auto kind = static_cast<Kind>(first % N_KINDS);
    const size_t length = static_cast<uint8_t>(input[1]) * 256 + static_cast<uint8_t>(input[2]);
    const std::string_view rest = input.substr(3, length);
    GVariant *body = kind < VANISHES ? take_if_carried(make_body(rest, TYPES[kind])) : nullptr;

    if (body != nullptr || kind >= VANISHES) {
      records.push_back({kind, path_of(first / N_KINDS), body});
    }
    input.remove_prefix(3 + rest.size());
  }
  return records;
}

void
on_fence(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *, GVariant *,
         gpointer is_passed)
{
  *static_cast<bool *>(is_passed) = true;
}

/* Returns when the client has handled all messages so far. GDBus dispatches the signals of a connection in
 * their order. */
void
wait_for_fence(Bus *bus)
{
  bool is_passed = false;
  g_autoptr(GDBusConnection) connection = system_bus_get(nullptr, nullptr);
  const guint subscription =
      g_dbus_connection_signal_subscribe(connection, OWNER, FENCE, nullptr, nullptr, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, on_fence, &is_passed, nullptr);

  bus->send_signal(OWNER, "/", FENCE, "Passed", g_variant_new("()"));
  while (!is_passed) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_dbus_connection_signal_unsubscribe(connection, subscription);
  rate_limited_log_flush();
}

void
check_listed(AnalyticsProducer *producer, gpointer user_data)
{
  g_autofree gchar *name = nullptr;
  g_autofree gchar *nice_name = nullptr;

  g_object_get(producer, "name", &name, "nice-name", &nice_name, nullptr);
  fuzz::require(strlen(name) > 0 && strlen(name) <= PRODUCER_PROPERTIES_MAX_NAME_BYTES,
                "a name is within its limits");
  fuzz::require(strlen(nice_name) <= PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES,
                "a nice name is within its limit");
  fuzz::require(static_cast<std::set<std::string> *>(user_data)->insert(name).second,
                "a name is listed once");
}

void
check_list(AnalyticsProducerList *list)
{
  std::set<std::string> names;

  analytics_producer_list_foreach(list, check_listed, &names);
  fuzz::require(names.size() <= DBUS_CLIENT_MAX_PRODUCERS, "the list is within its limit");
}

bool
is_empty(AnalyticsProducerList *list)
{
  guint count = 0;

  analytics_producer_list_foreach(
      list, [](AnalyticsProducer *, gpointer user_data) { (*static_cast<guint *>(user_data))++; }, &count);
  return count == 0;
}

void
send(Bus *bus, const Record &record)
{
  switch (record.kind) {
  case ADDED:
    bus->send_signal(OWNER, RECEIVER_PRODUCERS_PATH, MANAGER, "InterfacesAdded", record.body);
    break;
  case REMOVED:
    bus->send_signal(OWNER, RECEIVER_PRODUCERS_PATH, MANAGER, "InterfacesRemoved", record.body);
    break;
  case CHANGED:
    bus->send_signal(OWNER, record.path, PROPERTIES, "PropertiesChanged", record.body);
    break;
  case OBJECTS:
    bus->set_objects(record.body);
    break;
  case SAMPLE:
    bus->set_sample(record.body);
    break;
  default:
    bus->set_owner(record.kind == APPEARS);
    break;
  }
}

} // namespace

/* The linker calls the replacement of a function so. */
extern "C" gchar *__wrap_sample_frame_convert(gchar **json, const gchar *producer_name);

/* The first replies are set before the client starts. */
static void
set_first_replies(Bus *bus, const std::vector<Record> &records)
{
  const auto find = [&records](Kind kind) -> GVariant * {
    const auto found = std::find_if(records.begin(), records.end(),
                                    [kind](const Record &record) { return record.kind == kind; });
    return found != records.end() ? found->body : nullptr;
  };

  bus->set_objects(find(OBJECTS));
  bus->set_sample(find(SAMPLE));
}

/* Replaces the platform's converter. */
gchar *
__wrap_sample_frame_convert(gchar **json, const gchar *)
{
  return std::exchange(*json, nullptr);
}

/* No producer has a name. */
static void
set_up_names()
{
  static const fuzz::ProducersFile empty;

  fuzz::require(producer_config_setup(empty.path()), "an empty producers' file");
}

/* Checks the log lines of the code under test. */
extern "C" void
syslog(int, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autofree gchar *line = g_strdup_vprintf(format, args);
  va_end(args);

  fuzz::require(g_utf8_validate(line, -1, nullptr), "a log line is UTF-8");
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  /* As long as the process. */
  static Bus &bus = *new Bus;
  static std::once_flag is_set_up;
  std::call_once(is_set_up, set_up_names);
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  const std::vector<Record> records = parse(fuzz::as_text(data, size));
  AnalyticsProducerList *list = analytics_producer_list_new();

  const unsigned before = bus.object_requests();
  set_first_replies(&bus, records);
  dbus_client_init(list);
  bus.wait_for_object_request(before);
  for (const Record &record : records) {
    send(&bus, record);
    g_main_context_iteration(nullptr, FALSE);
  }
  bus.set_owner(true);
  wait_for_fence(&bus);
  check_list(list);
  dbus_client_teardown();
  fuzz::require(is_empty(list), "the list is empty");
  analytics_producer_list_free(list);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  for (const Record &record : records) {
    g_clear_pointer(const_cast<GVariant **>(&record.body), g_variant_unref);
  }
  return 0;
}

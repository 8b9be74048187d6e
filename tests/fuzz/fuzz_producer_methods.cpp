/* SPDX-License-Identifier: MIT */
/* Calls of both methods of the control service with arbitrary arguments of the right type, over a connection
 * without a bus. A simple model predicts which calls fail, with which error, and what the others change.
 *
 * The input consists of lines. "S" and a producer's name begin a call on its object, "M" begins one on the
 * manager's, and "P" and a name begin an entry of the latter. "+" or "-", a channel, a blank and a name are a
 * tuple; "x" or "u" and a number make the name of the last tuple longer, by characters of one byte or of two.
 * After "R" or "r" the rest of the input is the argument of a last call in GVariant's serialised form, for
 * the manager or for the first producer. With a line "A" all calls are made at once; the service handles them
 * in order.
 */
#include "analyticsproducerlist.h"
#include "dbusproducermanager.h"
#include "fuzz.h"
#include "producerconfig.h"
#include "producersfile.h"
#include "saves.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdarg>
#include <gio/gio.h>
#include <map>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

namespace
{

constexpr const char *ROOT = "/com/quon/MetadataServer1/Producers";
constexpr const char *PRODUCER = "com.quon.MetadataServer1.Producer";
constexpr const char *MANAGER = "com.quon.MetadataServer1.ProducerManager";
constexpr const char *OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager";

constexpr const char *NOT_SUPPORTED =
    "org.freedesktop.DBus.Error.Failed: Tried to enable/disable producer on non-supported channel";
constexpr const char *NO_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Producer with specified name does not exist";
constexpr const char *NOT_SUPPORTED_ON_PRODUCER =
    "org.freedesktop.DBus.Error.InvalidArgs: Videochannel is not supported on producer";
constexpr const char *NAME_TOO_LONG =
    "org.freedesktop.DBus.Error.LimitsExceeded: Configuration name is longer than 256 bytes";
constexpr const char *TOO_MANY_TUPLES =
    "org.freedesktop.DBus.Error.LimitsExceeded: More than 4096 tuples in one call";
constexpr const char *DONE = "()";

constexpr gsize MAX_CALLS = 8;
constexpr guint MAX_REPETITIONS = 400;

/* The first two have objects. */
const std::array<const char *, 3> PRODUCERS = {"One", "Two", "not-on-the-bus"};
const std::array<std::vector<guint32>, 3> CHANNELS = {{{1, 2}, {G_MAXINT32, 1, 7}, {1}}};

struct Tuple {
  gint32 channel;
  bool enabled;
  std::string name;
};

using Tuples = std::vector<Tuple>;

struct Entry {
  std::string producer;
  Tuples tuples;
};

/* One call of a producer's method or of the manager's. */
struct Call {
  std::optional<std::string> producer;
  std::vector<Entry> entries;
};

/* The thread that saves counts them too. */
std::atomic<gsize> write_failures;

/* The state of the producers. A name that is longer than a call may set comes from the file. */
class Model
{
public:
  Model()
  {
    for (gsize i = 0; i < PRODUCERS.size(); i++) {
      for (const guint32 channel : CHANNELS[i]) {
        state_[PRODUCERS[i]][static_cast<gint32>(channel)] = std::nullopt;
      }
    }
    state_["One"][2] = "old";
    state_["Two"][1] = std::string(300, 'l');
  }

  /* Returns the outcome. */
  std::string call(const Call &call)
  {
    if (count_tuples(call) > 4096) {
      return TOO_MANY_TUPLES;
    }
    const bool all_known = std::ranges::all_of(
        call.entries, [this](const Entry &entry) { return state_.contains(entry.producer); });
    if (!all_known) {
      return NO_PRODUCER;
    }
    if (!all_tuples(call, [this](const Entry &entry, const Tuple &tuple) {
          return state_[entry.producer].contains(tuple.channel);
        })) {
      return call.producer.has_value() ? NOT_SUPPORTED : NOT_SUPPORTED_ON_PRODUCER;
    }
    if (!all_tuples(call, [](const Entry &, const Tuple &tuple) {
          return !tuple.enabled || tuple.name.size() <= 256;
        })) {
      return NAME_TOO_LONG;
    }
    all_tuples(call, [this](const Entry &entry, const Tuple &tuple) {
      state_[entry.producer][tuple.channel] =
          tuple.enabled ? std::optional<std::string>(tuple.name) : std::nullopt;
      changes_++;
      return true;
    });
    return DONE;
  }

  gsize changes() const
  {
    return changes_;
  }

  const std::optional<std::string> &name(const std::string &producer, guint32 channel) const
  {
    return state_.at(producer).at(static_cast<gint32>(channel));
  }

private:
  static gsize count_tuples(const Call &call)
  {
    gsize count = 0;

    for (const Entry &entry : call.entries) {
      count += std::max<gsize>(1, entry.tuples.size());
    }
    return count;
  }

  template <typename Predicate> static bool all_tuples(const Call &call, Predicate predicate)
  {
    return std::ranges::all_of(call.entries, [&predicate](const Entry &entry) {
      return std::ranges::all_of(entry.tuples, [&](const Tuple &tuple) { return predicate(entry, tuple); });
    });
  }

  std::map<std::string, std::map<gint32, std::optional<std::string>>> state_;
  gsize changes_ = 0;
};

/* The two ends of a connection without a bus. */
class Connection
{
public:
  Connection()
  {
    std::array<int, 2> ends = {};
    g_autofree gchar *guid = g_dbus_generate_guid();

    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
    begin(ends[0], guid, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER, &server_);
    begin(ends[1], nullptr, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, &client_);
    while (server_ == nullptr || client_ == nullptr) {
      g_main_context_iteration(nullptr, TRUE);
    }
  }

  GDBusConnection *server() const
  {
    return server_;
  }

  /* A body or an error, after its arrival. */
  struct Reply {
    Reply() = default;
    ~Reply()
    {
      g_clear_pointer(&body, g_variant_unref);
      g_clear_error(&error);
    }
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    GVariant *body = nullptr;
    GError *error = nullptr;
    bool came = false;
  };

  void start(const std::string &path, const char *interface, const char *method, GVariant *arguments,
             Reply *reply) const
  {
    g_dbus_connection_call(client_, nullptr, path.c_str(), interface, method, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, on_reply, reply);
  }

  static void wait_for(const Reply &reply)
  {
    while (!reply.came) {
      g_main_context_iteration(nullptr, TRUE);
    }
  }

private:
  static void begin(int fd, const gchar *guid, GDBusConnectionFlags flags, GDBusConnection **connection)
  {
    g_autoptr(GSocket) socket = g_socket_new_from_fd(fd, nullptr);
    g_autoptr(GSocketConnection) stream = g_socket_connection_factory_create_connection(socket);

    g_dbus_connection_new(G_IO_STREAM(stream), guid, flags, nullptr, nullptr, on_connected, connection);
  }

  static void on_connected(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto **connection = static_cast<GDBusConnection **>(user_data);

    *connection = g_dbus_connection_new_finish(result, nullptr);
    fuzz::require(*connection != nullptr, "the two ends connect");
  }

  static void on_reply(GObject *connection, GAsyncResult *result, gpointer user_data)
  {
    auto *reply = static_cast<Reply *>(user_data);

    reply->body = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &reply->error);
    reply->came = true;
  }

  GDBusConnection *server_ = nullptr;
  GDBusConnection *client_ = nullptr;
};

/* A daemon's control service, one for all inputs: to make one takes longer than to call it. */
class Service
{
public:
  Service(const Connection &connection, const fuzz::ProducersFile &file)
      : list_(analytics_producer_list_new())
  {
    fuzz::require(producer_config_setup(file.path()), "the file is loaded");
    dbus_producer_manager_init(list_);
    for (gsize i = 0; i < PRODUCERS.size(); i++) {
      add(PRODUCERS[i], CHANNELS[i]);
    }
    dbus_producer_manager_on_bus_acquired(connection.server(), list_);
  }

  /* Sets the producers to the model's state. */
  void reset(const Model &model) const
  {
    for (gsize i = 0; i < PRODUCERS.size(); i++) {
      g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(list_, PRODUCERS[i]);
      for (const guint32 channel : CHANNELS[i]) {
        const std::optional<std::string> &name = model.name(PRODUCERS[i], channel);
        analytics_producer_set_channel_enabled(producer, channel, name.has_value(),
                                               name.has_value() ? name->c_str() : nullptr);
      }
    }
  }

  std::optional<std::string> name(const char *producer_name, guint32 channel) const
  {
    g_autoptr(AnalyticsProducer) producer = analytics_producer_list_get_producer(list_, producer_name);
    g_autofree gchar *name = nullptr;
    const bool enabled = analytics_producer_get_channel_enabled(producer, channel, &name);

    fuzz::require(enabled == (name != nullptr), "an enabled channel has a name");
    return enabled ? std::optional<std::string>(name) : std::nullopt;
  }

private:
  void add(const char *name, const std::vector<guint32> &channels)
  {
    g_autoptr(GArray) array = g_array_new(FALSE, FALSE, sizeof(guint32));
    g_array_append_vals(array, channels.data(), channels.size());
    g_autoptr(AnalyticsProducer) producer =
        analytics_producer_new(name, name, "<sample/>", array, ANALYTICS_PRODUCER_EXTERNAL);

    analytics_producer_list_add(list_, producer);
  }

  AnalyticsProducerList *list_;
};

std::string
as_valid_text(std::string_view bytes)
{
  g_autofree gchar *text = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));

  return text;
}

/* Takes the number at the beginning of the text. */
template <typename Number>
Number
take_number(std::string_view *text)
{
  Number number = 0;
  const auto end = std::from_chars(text->data(), text->data() + text->size(), number).ptr;

  text->remove_prefix(static_cast<gsize>(end - text->data()));
  return number;
}

Tuple
parse_tuple(bool enabled, std::string_view text)
{
  const auto channel = take_number<gint32>(&text);

  return {channel, enabled, as_valid_text(text.substr(std::min<gsize>(text.size(), 1)))};
}

void
lengthen(std::vector<Call> *calls, std::string_view character, std::string_view number)
{
  if (calls->empty() || calls->back().entries.empty() || calls->back().entries.back().tuples.empty()) {
    return;
  }
  const guint count = take_number<guint>(&number) % MAX_REPETITIONS;
  for (guint i = 0; i < count; i++) {
    calls->back().entries.back().tuples.back().name += character;
  }
}

void
append_tuple(std::vector<Call> *calls, bool enabled, std::string_view text)
{
  if (!calls->empty() && !calls->back().entries.empty()) {
    calls->back().entries.back().tuples.push_back(parse_tuple(enabled, text));
  }
}

/* A producer without an object is replaced by the first one with an object. */
Call
begin_producer_call(std::string_view name)
{
  const std::string producer = name == PRODUCERS[1] ? PRODUCERS[1] : PRODUCERS[0];

  return {producer, {{producer, {}}}};
}

void
parse_line(std::string_view line, std::vector<Call> *calls)
{
  const std::string_view text = line.substr(std::min<gsize>(line.size(), 1));

  switch (line.empty() ? '\0' : line[0]) {
  case 'S':
    calls->push_back(begin_producer_call(text));
    break;
  case 'M':
    calls->push_back({std::nullopt, {}});
    break;
  case 'P':
    if (!calls->empty() && !calls->back().producer.has_value()) {
      calls->back().entries.push_back({as_valid_text(text), {}});
    }
    break;
  case '+':
  case '-':
    append_tuple(calls, line[0] == '+', text);
    break;
  case 'x':
    lengthen(calls, "x", text);
    break;
  case 'u':
    lengthen(calls, "\u00fc", text);
    break;
  default:
    break;
  }
}

GVariant *
make_tuples(const Tuples &tuples)
{
  GVariantBuilder builder;

  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ibs)"));
  for (const Tuple &tuple : tuples) {
    g_variant_builder_add(&builder, "(ibs)", tuple.channel, static_cast<gboolean>(tuple.enabled),
                          tuple.name.c_str());
  }
  return g_variant_builder_end(&builder);
}

GVariant *
make_argument(const Call &call)
{
  if (call.producer.has_value()) {
    return make_tuples(call.entries[0].tuples);
  }
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa(ibs)}"));
  for (const Entry &entry : call.entries) {
    g_variant_builder_add(&builder, "{s@a(ibs)}", entry.producer.c_str(), make_tuples(entry.tuples));
  }
  return g_variant_builder_end(&builder);
}

Tuples
read_tuples(GVariant *array)
{
  Tuples tuples;
  GVariantIter iter;
  gint32 channel = 0;
  gboolean enabled = FALSE;
  const gchar *name = nullptr;

  g_variant_iter_init(&iter, array);
  while (g_variant_iter_next(&iter, "(ib&s)", &channel, &enabled, &name)) {
    tuples.push_back({channel, enabled != FALSE, name});
  }
  return tuples;
}

/* Interprets arbitrary bytes as an argument. */
Call
read_serialised(bool for_manager, std::string_view bytes)
{
  g_autoptr(GBytes) copy = g_bytes_new(bytes.data(), bytes.size());
  g_autoptr(GVariant) raw = g_variant_ref_sink(
      g_variant_new_from_bytes(G_VARIANT_TYPE(for_manager ? "a{sa(ibs)}" : "a(ibs)"), copy, FALSE));
  g_autoptr(GVariant) argument = g_variant_get_normal_form(raw);

  if (!for_manager) {
    return {PRODUCERS[0], {{PRODUCERS[0], read_tuples(argument)}}};
  }
  Call call;
  GVariantIter iter;
  g_variant_iter_init(&iter, argument);
  while (g_autoptr(GVariant) entry = g_variant_iter_next_value(&iter)) {
    const gchar *name = nullptr;
    g_autoptr(GVariant) tuples = nullptr;
    g_variant_get(entry, "{&s@a(ibs)}", &name, &tuples);
    call.entries.push_back({name, read_tuples(tuples)});
  }
  return call;
}

std::vector<Call>
parse(std::string_view input, bool *at_once)
{
  std::vector<Call> calls;

  while (!input.empty()) {
    if (input[0] == 'R' || input[0] == 'r') {
      calls.push_back(read_serialised(input[0] == 'R', input.substr(1)));
      break;
    }
    const gsize end = std::min(input.find('\n'), input.size());
    *at_once = *at_once || input.substr(0, end) == "A";
    parse_line(input.substr(0, end), &calls);
    input.remove_prefix(std::min(end + 1, input.size()));
  }
  calls.resize(std::min(calls.size(), MAX_CALLS));
  return calls;
}

void
start_call(const Connection &connection, const Call &call, Connection::Reply *reply)
{
  const std::string path = call.producer.has_value() ? ROOT + ("/" + *call.producer) : ROOT;
  GVariant *argument = make_argument(call);

  connection.start(path, call.producer.has_value() ? PRODUCER : MANAGER,
                   call.producer.has_value() ? "SetChannelsEnabled" : "SetProducersEnabled",
                   g_variant_new_tuple(&argument, 1), reply);
}

std::string
get_outcome(const Connection::Reply &reply)
{
  Connection::wait_for(reply);
  if (reply.body != nullptr) {
    g_autofree gchar *text = g_variant_print(reply.body, FALSE);
    return text;
  }
  g_autofree gchar *name = g_dbus_error_get_remote_error(reply.error);
  g_dbus_error_strip_remote_error(reply.error);
  return std::string(name != nullptr ? name : "") + ": " + reply.error->message;
}

void
check_state(const Service &service, const Model &model)
{
  for (gsize i = 0; i < PRODUCERS.size(); i++) {
    for (const guint32 channel : CHANNELS[i]) {
      fuzz::require(service.name(PRODUCERS[i], channel) == model.name(PRODUCERS[i], channel),
                    "the producers are the model's");
    }
  }
  fuzz::require(write_failures == model.changes(), "each change is saved once, and there is no other save");
}

/* Compares one producer's properties on the bus with the model. */
void
check_shown(GVariant *objects, const Model &model, gsize index)
{
  const std::string path = ROOT + ("/" + std::string(PRODUCERS[index]));
  g_autoptr(GVariant) interfaces = g_variant_lookup_value(objects, path.c_str(), nullptr);
  fuzz::require(interfaces != nullptr, "the producer has an object");
  g_autoptr(GVariant) properties = g_variant_lookup_value(interfaces, PRODUCER, nullptr);
  g_autoptr(GVariant) channels = g_variant_lookup_value(properties, "ChannelsEnabled", nullptr);
  const Tuples shown = read_tuples(channels);

  fuzz::require(shown.size() == CHANNELS[index].size(), "the bus shows every channel");
  for (gsize i = 0; i < shown.size(); i++) {
    const std::optional<std::string> &name = model.name(PRODUCERS[index], CHANNELS[index][i]);
    fuzz::require(shown[i].channel == static_cast<gint32>(CHANNELS[index][i]) &&
                      shown[i].enabled == name.has_value() && shown[i].name == name.value_or(""),
                  "the bus shows the model");
  }
}

void
check_objects(const Connection &connection, const Model &model)
{
  Connection::Reply reply;
  connection.start(ROOT, OBJECT_MANAGER, "GetManagedObjects", nullptr, &reply);
  Connection::wait_for(reply);
  fuzz::require(reply.body != nullptr, "the objects can be listed");
  g_autoptr(GVariant) objects = g_variant_get_child_value(reply.body, 0);

  fuzz::require(g_variant_n_children(objects) == 2, "two producers have objects");
  check_shown(objects, model, 0);
  check_shown(objects, model, 1);
}

void
call_one_by_one(const Connection &connection, const Service &service, const std::vector<Call> &calls,
                Model *model)
{
  for (const Call &call : calls) {
    Connection::Reply reply;
    start_call(connection, call, &reply);
    fuzz::require(get_outcome(reply) == model->call(call), "the outcome is the model's");
    check_state(service, *model);
  }
}

void
call_at_once(const Connection &connection, const Service &service, const std::vector<Call> &calls,
             Model *model)
{
  std::vector<Connection::Reply> replies(calls.size());

  for (gsize i = 0; i < calls.size(); i++) {
    start_call(connection, calls[i], &replies[i]);
  }
  for (gsize i = 0; i < calls.size(); i++) {
    fuzz::require(get_outcome(replies[i]) == model->call(calls[i]), "the outcome is the model's");
  }
  check_state(service, *model);
}

} // namespace

/* Checks the log lines of the code under test. */
extern "C" void
syslog(int priority, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autofree gchar *line = g_strdup_vprintf(format, args);
  va_end(args);

  fuzz::require(priority == LOG_WARNING, "a log line is a warning");
  write_failures += g_str_has_prefix(line, "could not write name to producerconfig: ") ? 1 : 0;
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  static const Connection connection;
  static const fuzz::ProducersFile file;
  static const Service service(connection, file);
  Model model;

  service.reset(model);
  saves::wait();
  write_failures = 0;
  check_state(service, model);
  bool at_once = false;
  const std::vector<Call> calls = parse(fuzz::as_text(data, size), &at_once);
  (at_once ? call_at_once : call_one_by_one)(connection, service, calls, &model);
  check_objects(connection, model);
  return 0;
}

/* SPDX-License-Identifier: MIT */
/* "tessardctl emit" and "tessardctl topics": the events of applications, by the library of applications.
 *
 * A line of "emit --lines" has the same parts as the options. The next line is read when the receiver has
 * taken the event of the last one.
 */
#include "emit.h"
#include "arguments.h"
#include "command.h"
#include "libraryerror.h"
#include "linecutter.h"
#include "output.h"
#include "printable.h"
#include "tessardevents.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <json-glib/json-glib.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr gchar EMIT_DESCRIPTION[] =
    "An item is KEY=VALUE, or KEY:TYPE=VALUE; the type is xs:string by default. The state of\n"
    "a property stays for 30 s after the end of the command; then the receiver deletes it.\n"
    "A line of --lines is a JSON object with the members Topic, Property, Operation, Source,\n"
    "Data and Namespaces; all but Topic are optional.\n"
    "\n"
    "Example:\n"
    "  tessardctl emit tns1:Device/Trigger/Relay --property --source Token:tt:ReferenceToken=1 \\\n"
    "    --data LogicalState=active\n"
    "\n";

constexpr ArgumentRules EMIT_RULES = {
    "TOPIC",
    "Emits an event of TOPIC, or those of the lines on standard input. Waits until the\n"
    "receiver has taken them.",
    EMIT_DESCRIPTION,
};

constexpr ArgumentRules LINES_RULES = {
    "",
    "Emits an event of TOPIC, or those of the lines on standard input. Waits until the\n"
    "receiver has taken them.",
    EMIT_DESCRIPTION,
};

constexpr ArgumentRules TOPICS_RULES = {
    "",
    "Lists the topics that applications have declared.",
    nullptr,
};

constexpr gsize READ_BYTES = 65536;

struct EventText {
  EventText() = default;
  EventText(const EventText &) = delete;
  EventText &operator=(const EventText &) = delete;
  ~EventText()
  {
    g_hash_table_unref(source);
    g_hash_table_unref(data);
    g_hash_table_unref(namespaces);
  }

  static GHashTable *new_table()
  {
    return g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
  }

  std::string topic;
  gboolean is_property = FALSE;
  std::string operation; /* empty for the default */
  std::vector<std::string> source_names;
  std::vector<std::string> data_names;
  GHashTable *source = new_table();
  GHashTable *data = new_table();
  GHashTable *namespaces = new_table();
};

/* The outcome of an operation that the main loop waits for. Shared with the operation, which can come later.
 */
struct Wait {
  explicit Wait(GMainLoop *main_loop) : loop(g_main_loop_ref(main_loop))
  {
  }
  Wait(const Wait &) = delete;
  Wait &operator=(const Wait &) = delete;
  ~Wait()
  {
    g_clear_object(&result);
    g_main_loop_unref(loop);
  }

  GMainLoop *loop;
  GAsyncResult *result = nullptr;
};

void
on_result(GObject *object, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<std::shared_ptr<Wait>> wait(static_cast<std::shared_ptr<Wait> *>(user_data));

  (*wait)->result = G_ASYNC_RESULT(g_object_ref(result));
  g_main_loop_quit((*wait)->loop);
}

gboolean
on_late(gpointer user_data)
{
  g_main_loop_quit(static_cast<GMainLoop *>(user_data));
  return G_SOURCE_CONTINUE;
}

/* Why events are not taken now. */
struct Interruption {
  GMainLoop *loop;
  GError *reason = nullptr;
};

void
on_interrupted(TessardEvents *events, const GError *reason, gpointer user_data)
{
  auto *interruption = static_cast<Interruption *>(user_data);

  g_clear_error(&interruption->reason);
  interruption->reason = g_error_copy(reason);
  if (!g_error_matches(reason, TESSARD_ERROR, TESSARD_ERROR_BUSY)) {
    g_main_loop_quit(interruption->loop);
  }
}

std::vector<const gchar *>
pointers_to(const std::vector<std::string> &texts)
{
  std::vector<const gchar *> pointers;

  for (const std::string &text : texts) {
    pointers.push_back(text.c_str());
  }
  pointers.push_back(nullptr);
  return pointers;
}

/* With "--lines", there is no topic on the command line. */
gboolean
has_lines(int argc, char **argv)
{
  return std::any_of(argv, argv + argc, [](const char *word) { return g_str_equal(word, "--lines"); });
}

/* One connection of a command. */
class EventsSession
{
public:
  explicit EventsSession(const gchar *bus_address)
      : events(TESSARD_EVENTS(g_object_new(TESSARD_TYPE_EVENTS, "bus-address", bus_address, nullptr))),
        loop(g_main_loop_new(nullptr, FALSE)), interruption{loop}
  {
    g_signal_connect(events, "interrupted", G_CALLBACK(on_interrupted), &interruption);
  }
  EventsSession(const EventsSession &) = delete;
  EventsSession &operator=(const EventsSession &) = delete;
  ~EventsSession()
  {
    g_signal_handlers_disconnect_by_data(events, &interruption);
    g_object_unref(events);
    g_main_loop_unref(loop);
    g_clear_error(&interruption.reason);
  }

  gboolean emit(const EventText &event, GError **error);
  GVariant *get_topics(GError **error);

private:
  gboolean wait_for(const Wait *wait, GError **error);

  TessardEvents *events;
  GMainLoop *loop;
  Interruption interruption;
};

/* An interruption ends the wait: the command does not wait for a receiver that is not there. */
gboolean
EventsSession::wait_for(const Wait *wait, GError **error)
{
  const guint timer = g_timeout_add(EMIT_WAIT_MS, on_late, loop);

  g_main_loop_run(loop);
  g_source_remove(timer);
  if (wait->result != nullptr) {
    return TRUE;
  }
  if (interruption.reason != nullptr) {
    g_propagate_error(error, library_error_convert(interruption.reason));
  } else {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "The receiver does not reply.");
  }
  return FALSE;
}

gboolean
EventsSession::emit(const EventText &event, GError **error)
{
  const auto wait = std::make_shared<Wait>(loop);
  const auto source = pointers_to(event.source_names);
  const auto data = pointers_to(event.data_names);
  const gchar *default_operation = event.is_property ? "Changed" : "";
  g_autoptr(GError) cause = nullptr;

  if (!tessard_events_declare(events, event.topic.c_str(), event.is_property, source.data(), data.data(),
                              event.namespaces, &cause)) {
    g_propagate_error(error, library_error_convert(cause));
    return FALSE;
  }
  tessard_events_emit_async(events, event.topic.c_str(),
                            event.operation.empty() ? default_operation : event.operation.c_str(),
                            event.source, event.data, 0, nullptr, on_result, new std::shared_ptr<Wait>(wait));
  if (!wait_for(wait.get(), error)) {
    return FALSE;
  }
  if (!tessard_events_emit_finish(events, wait->result, &cause)) {
    g_propagate_error(error, library_error_convert(cause));
    return FALSE;
  }
  return TRUE;
}

/* Returns: (transfer full) (nullable): the topics, of the type "a(sba(ss)a(ss)a{ss})" */
GVariant *
EventsSession::get_topics(GError **error)
{
  const auto wait = std::make_shared<Wait>(loop);
  g_autoptr(GError) cause = nullptr;

  tessard_events_get_topics_async(events, nullptr, on_result, new std::shared_ptr<Wait>(wait));
  if (!wait_for(wait.get(), error)) {
    return nullptr;
  }
  GVariant *topics = tessard_events_get_topics_finish(events, wait->result, &cause);
  if (topics == nullptr) {
    g_propagate_error(error, library_error_convert(cause));
  }
  return topics;
}

/* Splits "KEY=VALUE" or "KEY:TYPE=VALUE" into "KEY" or "KEY:TYPE", and the value. */
gboolean
take_item(const gchar *text, const gchar *option, std::vector<std::string> *names, GHashTable *values,
          GError **error)
{
  const gchar *equals = strchr(text, '=');

  if (equals == nullptr || equals == text) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The value of %s is '%s', not KEY=VALUE.", option,
                text);
    return FALSE;
  }
  const std::string declared(text, equals);
  const std::string key = declared.substr(0, declared.find(':'));
  if (names != nullptr) {
    names->push_back(declared);
  }
  g_hash_table_replace(values, g_strdup(key.c_str()), g_strdup(equals + 1));
  return TRUE;
}

gboolean
take_items(gchar **texts, const gchar *option, std::vector<std::string> *names, GHashTable *values,
           GError **error)
{
  for (gchar **text = texts; text != nullptr && *text != nullptr; text++) {
    if (!take_item(*text, option, names, values, error)) {
      return FALSE;
    }
  }
  return TRUE;
}

/* Lines */

gboolean
refuse_member(GError **error, const gchar *name)
{
  g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "the member '%s' is not valid", name);
  return FALSE;
}

/* The value of an item is a text, a number or a truth value. */
std::optional<std::string>
text_of(JsonNode *node)
{
  if (!JSON_NODE_HOLDS_VALUE(node)) {
    return std::nullopt;
  }
  if (json_node_get_value_type(node) == G_TYPE_STRING) {
    return json_node_get_string(node);
  }
  g_autofree gchar *text = json_to_string(node, FALSE);
  return text;
}

gboolean
take_object(JsonNode *node, const gchar *member, std::vector<std::string> *names, GHashTable *values,
            GError **error)
{
  if (!JSON_NODE_HOLDS_OBJECT(node)) {
    return refuse_member(error, member);
  }
  JsonObject *object = json_node_get_object(node);
  g_autoptr(GList) keys = json_object_get_members(object);
  for (GList *key = keys; key != nullptr; key = key->next) {
    const auto *declared = static_cast<const gchar *>(key->data);
    const std::optional<std::string> value = text_of(json_object_get_member(object, declared));
    if (!value.has_value() || strchr(declared, '=') != nullptr) {
      return refuse_member(error, member);
    }
    const std::string item = std::string(declared) + "=" + *value;
    if (!take_item(item.c_str(), member, names, values, error)) {
      return FALSE;
    }
  }
  return TRUE;
}

gboolean
take_member(JsonNode *node, const gchar *name, EventText *event, GError **error)
{
  if (g_str_equal(name, "Source")) {
    return take_object(node, name, &event->source_names, event->source, error);
  }
  if (g_str_equal(name, "Data")) {
    return take_object(node, name, &event->data_names, event->data, error);
  }
  if (g_str_equal(name, "Namespaces")) {
    return take_object(node, name, nullptr, event->namespaces, error);
  }
  if (g_str_equal(name, "Property") && json_node_get_value_type(node) == G_TYPE_BOOLEAN) {
    event->is_property = json_node_get_boolean(node);
    return TRUE;
  }
  if (json_node_get_value_type(node) == G_TYPE_STRING &&
      (g_str_equal(name, "Topic") || g_str_equal(name, "Operation"))) {
    (g_str_equal(name, "Topic") ? event->topic : event->operation) = json_node_get_string(node);
    return TRUE;
  }
  return refuse_member(error, name);
}

gboolean
parse_line(const std::string &line, EventText *event, GError **error)
{
  g_autoptr(GError) cause = nullptr;
  g_autoptr(JsonNode) root = json_from_string(line.c_str(), &cause);

  if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "it is no JSON object");
    return FALSE;
  }
  JsonObject *object = json_node_get_object(root);
  g_autoptr(GList) names = json_object_get_members(object);
  for (GList *name = names; name != nullptr; name = name->next) {
    const auto *text = static_cast<const gchar *>(name->data);
    if (!take_member(json_object_get_member(object, text), text, event, error)) {
      return FALSE;
    }
  }
  if (event->topic.empty()) {
    return refuse_member(error, "Topic");
  }
  return TRUE;
}

/* A line that is wrong or refused is named and skipped; without a receiver the command ends. */
gboolean
emit_line(EventsSession *session, const Line &line, GError **error)
{
  g_autoptr(GError) cause = nullptr;
  EventText event;

  if (line.text.find_first_not_of(" \t\r") == std::string::npos && !line.too_long) {
    return TRUE;
  }
  if (line.too_long) {
    g_set_error_literal(&cause, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, "it is too long");
  } else if (parse_line(line.text, &event, &cause) && session->emit(event, &cause)) {
    return TRUE;
  }
  if (!g_error_matches(cause, TESSARDCTL_ERROR, EXIT_STATUS_REFUSED)) {
    g_propagate_error(error, g_steal_pointer(&cause));
    return FALSE;
  }
  g_autofree gchar *message =
      g_strdup_printf("Line %" G_GUINT64_FORMAT " is skipped: %s.", line.number, cause->message);
  command_print_error(message);
  return TRUE;
}

gboolean
emit_lines(EventsSession *session, GError **error)
{
  LineCutter cutter(EMIT_MAX_LINE_BYTES);
  std::array<gchar, READ_BYTES> bytes;
  gssize count = 0;

  do {
    count = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) {
      g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read standard input: %s.",
                  g_strerror(errno));
      return FALSE;
    }
    if (count > 0) {
      cutter.push({bytes.data(), static_cast<gsize>(count)});
    } else if (count == 0) {
      cutter.finish();
    }
    for (std::optional<Line> line = cutter.pop(); line.has_value(); line = cutter.pop()) {
      if (!emit_line(session, *line, error)) {
        return FALSE;
      }
    }
  } while (count != 0);
  return TRUE;
}

/* Topics */

/* "Name (xs:string), Other (xs:int)" */
std::string
describe_items(GVariant *items)
{
  std::string text;
  GVariantIter iterator;
  const gchar *name = nullptr;
  const gchar *type = nullptr;

  g_variant_iter_init(&iterator, items);
  while (g_variant_iter_next(&iterator, "(&s&s)", &name, &type)) {
    text += (text.empty() ? "" : ", ") + std::string(name) + " (" + type + ")";
  }
  return text.empty() ? "-" : text;
}

void
add_items(JsonBuilder *builder, const gchar *member, GVariant *items)
{
  GVariantIter iterator;
  const gchar *name = nullptr;
  const gchar *value = nullptr;

  json_builder_set_member_name(builder, member);
  json_builder_begin_object(builder);
  g_variant_iter_init(&iterator, items);
  const gchar *format = g_variant_is_of_type(items, G_VARIANT_TYPE("a(ss)")) ? "(&s&s)" : "{&s&s}";
  while (g_variant_iter_next(&iterator, format, &name, &value)) {
    json_builder_set_member_name(builder, name);
    json_builder_add_string_value(builder, value);
  }
  json_builder_end_object(builder);
}

/* Appends a topic to the table, and adds it to the JSON. */
void
add_topic(GString *table, JsonBuilder *builder, GVariant *topic)
{
  const gchar *name = nullptr;
  gboolean is_property = FALSE;
  g_autoptr(GVariant) source = nullptr;
  g_autoptr(GVariant) data = nullptr;
  g_autoptr(GVariant) namespaces = nullptr;

  g_variant_get(topic, "(&sb@a(ss)@a(ss)@a{ss})", &name, &is_property, &source, &data, &namespaces);
  g_string_append_printf(table, "%s  %s  %s  %s\n", name, is_property ? "property" : "event",
                         describe_items(source).c_str(), describe_items(data).c_str());
  json_builder_begin_object(builder);
  json_builder_set_member_name(builder, "Topic");
  json_builder_add_string_value(builder, name);
  json_builder_set_member_name(builder, "Property");
  json_builder_add_boolean_value(builder, is_property);
  add_items(builder, "Source", source);
  add_items(builder, "Data", data);
  add_items(builder, "Namespaces", namespaces);
  json_builder_end_object(builder);
}

gchar *
format_topics(GVariant *topics, gboolean as_json)
{
  g_autoptr(JsonBuilder) builder = json_builder_new();
  g_autoptr(GString) table = g_string_new(nullptr);

  json_builder_begin_array(builder);
  for (gsize i = 0; i < g_variant_n_children(topics); i++) {
    g_autoptr(GVariant) topic = g_variant_get_child_value(topics, i);
    add_topic(table, builder, topic);
  }
  json_builder_end_array(builder);
  if (!as_json) {
    return printable_lines(table->str);
  }
  g_autoptr(JsonNode) root = json_builder_get_root(builder);
  g_autofree gchar *json = json_to_string(root, TRUE);
  g_autofree gchar *printable = printable_lines(json);
  return g_strconcat(printable, "\n", nullptr);
}

/* The values of options. */
struct Texts {
  Texts() = default;
  Texts(const Texts &) = delete;
  Texts &operator=(const Texts &) = delete;
  ~Texts()
  {
    g_strfreev(source);
    g_strfreev(data);
    g_strfreev(namespaces);
    g_free(operation);
  }

  gchar **source = nullptr;
  gchar **data = nullptr;
  gchar **namespaces = nullptr;
  gchar *operation = nullptr;
};

gboolean
take_event(const Texts &texts, const gchar *topic, EventText *event, GError **error)
{
  event->topic = topic;
  event->operation = texts.operation != nullptr ? texts.operation : "";
  return take_items(texts.source, "--source", &event->source_names, event->source, error) &&
         take_items(texts.data, "--data", &event->data_names, event->data, error) &&
         take_items(texts.namespaces, "--namespace", nullptr, event->namespaces, error);
}

} // namespace

/**
 * emit_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl emit".
 *
 * Returns: the exit status
 */
int
emit_command_run(int argc, char **argv)
{
  Texts texts;
  Arguments arguments;
  EventText event;
  gboolean from_lines = FALSE;
  g_autoptr(GError) error = nullptr;
  const GOptionEntry entries[] = {
      {"property", 0, 0, G_OPTION_ARG_NONE, &event.is_property, "The event is the state of a property",
       nullptr},
      {"operation", 0, 0, G_OPTION_ARG_STRING, &texts.operation,
       "Of a property: Initialized, Changed or Deleted (default: Changed)", "NAME"},
      {"source", 0, 0, G_OPTION_ARG_STRING_ARRAY, &texts.source, "An item that says where", "KEY=VALUE"},
      {"data", 0, 0, G_OPTION_ARG_STRING_ARRAY, &texts.data, "An item that says what", "KEY=VALUE"},
      {"namespace", 0, 0, G_OPTION_ARG_STRING_ARRAY, &texts.namespaces, "The namespace of a prefix",
       "PREFIX=URI"},
      {"lines", 0, 0, G_OPTION_ARG_NONE, &from_lines, "Emit the events of the lines on standard input",
       nullptr},
      {},
  };

  if (!arguments_parse(&arguments, has_lines(argc, argv) ? &LINES_RULES : &EMIT_RULES, entries, argc, argv,
                       &error) ||
      (!from_lines && !take_event(texts, arguments.words[0], &event, &error))) {
    return command_usage_error(error->message);
  }
  EventsSession session(arguments.bus_address);
  if (from_lines) {
    emit_lines(&session, &error);
  } else {
    session.emit(event, &error);
  }
  return command_report_outcome(error);
}

/**
 * topics_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl topics".
 *
 * Returns: the exit status
 */
int
topics_command_run(int argc, char **argv)
{
  Arguments arguments;
  gboolean as_json = FALSE;
  g_autoptr(GError) error = nullptr;
  const GOptionEntry entries[] = {
      {"json", 0, 0, G_OPTION_ARG_NONE, &as_json, "Print JSON", nullptr},
      {},
  };

  if (!arguments_parse(&arguments, &TOPICS_RULES, entries, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  EventsSession session(arguments.bus_address);
  g_autoptr(GVariant) topics = session.get_topics(&error);
  if (topics != nullptr) {
    g_autofree gchar *text = format_topics(topics, as_json);
    output_write(text, &error);
  }
  return command_report_outcome(error);
}

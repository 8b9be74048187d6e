/* SPDX-License-Identifier: MIT */
#include "emit.h"
#include "arguments.h"
#include "command.h"
#include "emitlines.h"
#include "eventssession.h"

#include <algorithm>

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

/* With "--lines", there is no topic on the command line. */
gboolean
has_lines(int argc, char **argv)
{
  return std::any_of(argv, argv + argc, [](const char *word) { return g_str_equal(word, "--lines"); });
}

gboolean
take_event(const Texts &texts, const gchar *topic, EventArguments *event, GError **error)
{
  event->topic = topic;
  event->operation = texts.operation != nullptr ? texts.operation : "";
  return event_arguments_take_items(texts.source, "--source", {&event->source_names, event->source}, error) &&
         event_arguments_take_items(texts.data, "--data", {&event->data_names, event->data}, error) &&
         event_arguments_take_items(texts.namespaces, "--namespace", {nullptr, event->namespaces}, error);
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
  EventArguments event;
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
  if (from_lines) {
    return emit_lines(arguments.bus_address);
  }
  EventsSession(arguments.bus_address).emit(event, &error);
  return command_report_outcome(error);
}

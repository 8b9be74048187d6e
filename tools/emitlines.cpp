/* SPDX-License-Identifier: MIT */
/* "tessardctl emit --lines": emits the events of the lines on standard input.
 *
 * While the receiver takes events, a fast program is slowed down to its pace. While the receiver is away,
 * lines are read on: the library keeps the last state of each property and the newest other events. A line
 * that is wrong or refused is named and skipped.
 */
#include "emitlines.h"
#include "command.h"
#include "commandend.h"
#include "eventssession.h"
#include "libraryerror.h"
#include "lineinput.h"

#include <memory>

namespace
{

constexpr gchar WHITE_SPACE[] = " \t\r";

class LineEmitter
{
public:
  explicit LineEmitter(const gchar *bus_address);
  LineEmitter(const LineEmitter &) = delete;
  LineEmitter &operator=(const LineEmitter &) = delete;
  ~LineEmitter();

  const GError *run();

private:
  /* An event that the receiver has to take. */
  struct Pending {
    LineEmitter *emitter;
    guint64 line;
  };

  static void on_more(GError *error, gpointer user_data);
  static void on_end(gpointer user_data);
  static void on_interrupted(TessardEvents *events, const GError *reason, gpointer user_data);
  static void on_emitted(GObject *events, GAsyncResult *result, gpointer user_data);
  static void on_closed(GObject *events, GAsyncResult *result, gpointer user_data);

  void take_lines();
  void take_line(const Line &line);
  void report_skipped(guint64 line, const gchar *reason);
  void take_outcome(guint64 line, const GError *error);
  void report_dropped();

  TessardEvents *events;
  CommandEnd end{on_end, this};
  LineInput input{EMIT_MAX_LINE_BYTES, on_more, this};
  simdjson::dom::parser parser;

  guint pending = 0;
  guint64 dropped = 0;       /* events, since the receiver has been away */
  GError *absence = nullptr; /* why it is away */
};

LineEmitter::LineEmitter(const gchar *bus_address)
    : events(TESSARD_EVENTS(g_object_new(TESSARD_TYPE_EVENTS, "bus-address", bus_address, nullptr)))
{
  g_signal_connect(events, "interrupted", G_CALLBACK(on_interrupted), this);
}

LineEmitter::~LineEmitter()
{
  g_signal_handlers_disconnect_by_data(events, this);
  g_object_unref(events);
  g_clear_error(&absence);
}

/* Returns: (nullable): the error of %TESSARDCTL_ERROR that ended it */
const GError *
LineEmitter::run()
{
  take_lines();
  return end.run();
}

/* Input */

void
LineEmitter::on_more(GError *error, gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);

  if (error != nullptr) {
    self->end.begin(error);
  }
  self->take_lines();
}

void
LineEmitter::take_lines()
{
  gboolean can_take = TRUE;

  while (!end.has_begun()) {
    can_take = absence != nullptr || pending < EMIT_MAX_PENDING;
    const std::optional<Line> line = can_take ? input.pop() : std::nullopt;
    if (!line.has_value()) {
      break;
    }
    take_line(*line);
  }
  if (can_take && input.has_ended()) {
    end.begin(nullptr);
  }
  input.set_reading(!end.has_begun() && can_take);
}

void
LineEmitter::take_line(const Line &line)
{
  g_autoptr(GError) error = nullptr;
  EventArguments event;

  if (line.too_long) {
    report_skipped(line.number, "it is too long");
  } else if (line.text.find_first_not_of(WHITE_SPACE) == std::string::npos) {
    return;
  } else if (!event_arguments_parse_line(&parser, line.text, &event, &error) ||
             !events_declare(events, event, &error)) {
    report_skipped(line.number, error->message);
  } else {
    pending++;
    events_emit_async(events, event, on_emitted, new Pending{this, line.number});
  }
}

void
LineEmitter::report_skipped(guint64 line, const gchar *reason)
{
  const gchar *stop = g_str_has_suffix(reason, ".") ? "" : ".";
  g_autofree gchar *message =
      g_strdup_printf("Line %" G_GUINT64_FORMAT " is skipped: %s%s", line, reason, stop);

  command_print_error(message);
}

/* Receiver */

void
LineEmitter::on_interrupted(TessardEvents *, const GError *reason, gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);

  if (self->absence != nullptr || g_error_matches(reason, TESSARD_ERROR, TESSARD_ERROR_BUSY)) {
    return;
  }
  self->absence = library_error_convert(reason);
  if (!self->end.has_begun()) {
    g_autofree gchar *message = g_strdup_printf("%s Events wait for it.", reason->message);
    command_print_error(message);
  }
  self->take_lines();
}

void
LineEmitter::on_emitted(GObject *events, GAsyncResult *result, gpointer user_data)
{
  const std::unique_ptr<Pending> done(static_cast<Pending *>(user_data));
  LineEmitter *self = done->emitter;
  g_autoptr(GError) error = nullptr;

  tessard_events_emit_finish(TESSARD_EVENTS(events), result, &error);
  self->pending--;
  self->take_outcome(done->line, error);
  self->take_lines();
}

/* @error: (nullable): why the receiver has not taken the event of @line */
void
LineEmitter::take_outcome(guint64 line, const GError *error)
{
  if (error == nullptr) {
    report_dropped();
    return;
  }
  switch (error->code) {
  case TESSARD_ERROR_QUEUE_FULL:
    dropped++;
    break;
  case TESSARD_ERROR_NOT_ALLOWED:
  case TESSARD_ERROR_MALFORMED_REPLY:
    end.begin(library_error_convert(error));
    break;
  case TESSARD_ERROR_NOT_TAKEN:
  case TESSARD_ERROR_NO_BUS:
  case TESSARD_ERROR_NO_RECEIVER:
  case TESSARD_ERROR_BUS_CLOSED:
  case TESSARD_ERROR_CLOSED:
    break; /* the end, which has an outcome of its own */
  default:
    report_skipped(line, error->message);
  }
}

/* The receiver takes events. */
void
LineEmitter::report_dropped()
{
  if (absence == nullptr) {
    return;
  }
  g_autofree gchar *message =
      g_strdup_printf("The receiver takes events again; dropped events: %" G_GUINT64_FORMAT ".", dropped);
  command_print_error(message);
  g_clear_error(&absence);
  dropped = 0;
}

/* End */

/* The end is when the receiver has taken what it can take. */
void
LineEmitter::on_end(gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);

  self->input.set_reading(FALSE);
  tessard_events_close_async(self->events, nullptr, on_closed, self);
}

/* The outcomes of all events are known before. */
void
LineEmitter::on_closed(GObject *events, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);
  g_autoptr(GError) error = nullptr;

  if (!tessard_events_close_finish(TESSARD_EVENTS(events), result, &error)) {
    GError *outcome = self->absence != nullptr ? g_error_copy(self->absence)
                                               : g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT,
                                                             "The receiver does not reply.");
    g_prefix_error(&outcome, "%s ", error->message);
    self->end.set_outcome(outcome);
  }
  self->end.finish();
}

} // namespace

/**
 * emit_lines:
 * @bus_address: (nullable): the bus, %NULL for the system bus
 *
 * Emits events until the end of standard input, or until a signal. Reports lines that are wrong or refused,
 * and the outcome.
 *
 * Returns: the exit status
 */
int
emit_lines(const gchar *bus_address)
{
  LineEmitter emitter(bus_address);

  return command_report_outcome(emitter.run());
}

/* SPDX-License-Identifier: MIT */
/* "tessardctl emit --lines": emits the events of the lines on standard input.
 *
 * While the receiver takes events, a fast program is slowed down to its pace. While the receiver is away,
 * lines are read on: the library keeps the last state of each property and the newest other events. A line
 * that is wrong or refused is named and skipped.
 */
#include "emitlines.h"
#include "command.h"
#include "eventssession.h"
#include "libraryerror.h"
#include "lineinput.h"

#include <glib-unix.h>
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

  gboolean run(GError **error);

private:
  /* An event that the receiver has to take. */
  struct Pending {
    LineEmitter *emitter;
    guint64 line;
  };

  static void on_more(GError *error, gpointer user_data);
  static gboolean on_signal(gpointer user_data);
  static void on_interrupted(TessardEvents *events, const GError *reason, gpointer user_data);
  static void on_emitted(GObject *events, GAsyncResult *result, gpointer user_data);
  static void on_closed(GObject *events, GAsyncResult *result, gpointer user_data);

  void take_lines();
  void take_line(const Line &line);
  void report_skipped(guint64 line, const gchar *reason);
  void take_outcome(guint64 line, const GError *error);
  void report_dropped();
  void end(GError *outcome);

  TessardEvents *events;
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  guint interrupted;
  guint terminated;
  LineInput input{EMIT_MAX_LINE_BYTES, on_more, this};
  simdjson::dom::parser parser;

  guint pending = 0;
  guint64 dropped = 0;       /* events, since the receiver has been away */
  GError *absence = nullptr; /* why it is away */
  gboolean ending = FALSE;
  gboolean signalled = FALSE;
  GError *outcome = nullptr;
};

LineEmitter::LineEmitter(const gchar *bus_address)
    : events(TESSARD_EVENTS(g_object_new(TESSARD_TYPE_EVENTS, "bus-address", bus_address, nullptr))),
      interrupted(g_unix_signal_add(SIGINT, on_signal, this)),
      terminated(g_unix_signal_add(SIGTERM, on_signal, this))
{
  g_signal_connect(events, "interrupted", G_CALLBACK(on_interrupted), this);
}

LineEmitter::~LineEmitter()
{
  g_signal_handlers_disconnect_by_data(events, this);
  g_object_unref(events);
  g_source_remove(terminated);
  g_source_remove(interrupted);
  g_main_loop_unref(loop);
  g_clear_error(&absence);
  g_clear_error(&outcome);
}

/* Returns: whether the receiver has taken the events */
gboolean
LineEmitter::run(GError **error)
{
  take_lines();
  g_main_loop_run(loop);
  if (outcome != nullptr) {
    g_propagate_error(error, g_steal_pointer(&outcome));
    return FALSE;
  }
  return TRUE;
}

/* Input */

void
LineEmitter::on_more(GError *error, gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);

  if (error != nullptr) {
    self->end(error);
  }
  self->take_lines();
}

void
LineEmitter::take_lines()
{
  gboolean can_take = TRUE;

  while (!ending) {
    can_take = absence != nullptr || pending < EMIT_MAX_PENDING;
    const std::optional<Line> line = can_take ? input.pop() : std::nullopt;
    if (!line.has_value()) {
      break;
    }
    take_line(*line);
  }
  if (can_take && input.has_ended()) {
    end(nullptr);
  }
  input.set_reading(!ending && can_take);
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
  if (!self->ending) {
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
    end(library_error_convert(error));
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

gboolean
LineEmitter::on_signal(gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);

  if (self->signalled) {
    g_main_loop_quit(self->loop);
  }
  self->signalled = TRUE;
  self->end(nullptr);
  return G_SOURCE_CONTINUE;
}

/* Ends the command when the receiver has taken what it can take. Takes @error, which is NULL for success.
 * Only the first call counts. */
void
LineEmitter::end(GError *error)
{
  g_autoptr(GError) owned = error;

  if (ending) {
    return;
  }
  ending = TRUE;
  outcome = g_steal_pointer(&owned);
  input.set_reading(FALSE);
  tessard_events_close_async(events, nullptr, on_closed, this);
}

/* The outcomes of all events are known before. */
void
LineEmitter::on_closed(GObject *events, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<LineEmitter *>(user_data);
  g_autoptr(GError) error = nullptr;

  if (!tessard_events_close_finish(TESSARD_EVENTS(events), result, &error) && self->outcome == nullptr) {
    self->outcome = self->absence != nullptr ? g_steal_pointer(&self->absence)
                                             : g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT,
                                                           "The receiver does not reply.");
    g_prefix_error(&self->outcome, "%s ", error->message);
  }
  g_main_loop_quit(self->loop);
}

} // namespace

/**
 * emit_lines:
 * @bus_address: (nullable): the bus, %NULL for the system bus
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Emits events until the end of standard input, or until a signal.
 *
 * Returns: whether the receiver has taken all of them, or refused them one by one
 */
gboolean
emit_lines(const gchar *bus_address, GError **error)
{
  LineEmitter emitter(bus_address);

  return emitter.run(error);
}

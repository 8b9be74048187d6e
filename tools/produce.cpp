/* SPDX-License-Identifier: MIT */
/* "tessardctl produce": passes items from standard input to the metadata receiver, by the library of
 * applications.
 *
 * Of each line that is an item, every channel gets a message. The library gets the lines in batches: when a
 * batch is full, the next line waits until the receiver has taken all of it. So few lines wait, and a fast
 * program is slowed down to the receiver's pace. When lines have waited for PRODUCE_WAIT_MS, all further ones
 * are dropped until the receiver has taken the batch, or the library has dropped it because of its age: a
 * program is never stopped for long, and clients do not get items of the past. While the receiver is not on
 * the bus, lines are dropped at once.
 *
 * Nothing blocks the main loop: standard input is read when it has data, the library has a thread of its own,
 * and a message that standard error does not take is left out.
 */
#include "produce.h"
#include "command.h"
#include "commandend.h"
#include "libraryerror.h"
#include "lineinput.h"
#include "produceoptions.h"
#include "produceritem.h"
#include "tessardproducer.h"

#include <optional>
#include <unistd.h>
#include <utility>

namespace
{

constexpr gchar WHITE_SPACE[] = " \t\r";

/* The lines that the library has got since it had none that waits. */
struct Batch {
  guint lines = 0;
  gsize bytes = 0;
};

class Session
{
public:
  explicit Session(const ProduceOptions *options);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session();

  const GError *run();

private:
  static void on_more_input(GError *error, gpointer user_data);
  static gboolean on_waited(gpointer user_data);
  static void on_end(gpointer user_data);
  static void on_connected(GObject *producer, GAsyncResult *result, gpointer user_data);
  static void on_ready(TessardProducer *producer, GParamSpec *pspec, gpointer user_data);
  static void on_drained(TessardProducer *producer, gpointer user_data);
  static void on_interrupted(TessardProducer *producer, const GError *reason, gpointer user_data);
  static void on_failed(TessardProducer *producer, const GError *reason, gpointer user_data);
  static void on_closed(GObject *producer, GAsyncResult *result, gpointer user_data);

  void take_lines();
  void take_line(const Line &line);
  gboolean check(const Line &line);
  void report_flaw(const Line &line, const gchar *consequence, const gchar *flaw);
  gboolean is_drained();
  gboolean can_send();
  gboolean pass_held_line();
  void send_held_line();
  void watch_time();
  void start_dropping(GError *reason);
  void stop_dropping();
  guint64 take_dropped_by_library();

  const ProduceOptions *options;
  TessardProducer *producer;
  guint wait_source = 0; /* while lines wait */

  LineInput input{PRODUCE_MAX_LINE_BYTES, on_more_input, this};
  ProducerItemChecker checker;
  std::optional<std::string> held_line; /* waits until the library gets it */
  Batch batch;
  gboolean was_open = FALSE; /* whether all channels have been open */

  gboolean dropping = FALSE;
  guint64 dropped = 0;       /* lines, since then */
  guint64 dropped_items = 0; /* of the library, as far as they are told */
  GError *cause = nullptr;   /* why lines are dropped */

  CommandEnd end{on_end, this};
};

gboolean
takes_text(int fd)
{
  GPollFD poll = {fd, G_IO_OUT, 0};

  return g_poll(&poll, 1, 0) > 0;
}

/* Prints a message, unless the reader of standard error does not read. */
void
print_note(const gchar *message)
{
  if (takes_text(STDERR_FILENO)) {
    command_print_error(message);
  }
}

gboolean
is_blank(const std::string &text)
{
  return text.find_first_not_of(WHITE_SPACE) == std::string::npos;
}

TessardProducer *
new_producer(const ProduceOptions *options)
{
  GVariant *channels = g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, options->channels.data(),
                                                 options->channels.size(), sizeof(guint32));

  return TESSARD_PRODUCER(g_object_new(TESSARD_TYPE_PRODUCER, "name", options->name.c_str(), "nice-name",
                                       options->nice_name.c_str(), "channels", channels, "sample-frame",
                                       options->sample_frame.c_str(), "bus-address",
                                       options->arguments.bus_address, nullptr));
}

Session::Session(const ProduceOptions *produce_options)
    : options(produce_options), producer(new_producer(options))
{
  g_signal_connect(producer, "notify::ready", G_CALLBACK(on_ready), this);
  g_signal_connect(producer, "drained", G_CALLBACK(on_drained), this);
  g_signal_connect(producer, "interrupted", G_CALLBACK(on_interrupted), this);
  g_signal_connect(producer, "failed", G_CALLBACK(on_failed), this);
}

/* The main loop does not run any more: results of the producer that come later have no effect. */
Session::~Session()
{
  g_signal_handlers_disconnect_by_data(producer, this);
  g_clear_handle_id(&wait_source, g_source_remove);
  g_object_unref(producer);
  g_clear_error(&cause);
}

/* Returns: (nullable): the error of %TESSARDCTL_ERROR that ended the session */
const GError *
Session::run()
{
  g_async_initable_init_async(G_ASYNC_INITABLE(producer), G_PRIORITY_DEFAULT, nullptr, on_connected, this);
  return end.run();
}

void
Session::on_connected(GObject *object, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);
  g_autoptr(GError) error = nullptr;

  if (!g_async_initable_init_finish(G_ASYNC_INITABLE(object), result, &error)) {
    self->end.begin(library_error_convert(error));
  }
  self->take_lines();
}

/* Input */

void
Session::on_more_input(GError *error, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  if (error != nullptr) {
    self->end.begin(error);
  }
  self->take_lines();
}

/* Takes lines until one waits, or until more input is needed. */
void
Session::take_lines()
{
  while (!end.has_begun() && pass_held_line()) {
    const std::optional<Line> line = input.pop();
    if (line.has_value()) {
      take_line(*line);
    } else if (input.has_ended() && (dropping || is_drained())) {
      end.begin(dropping && !was_open ? g_error_copy(cause) : nullptr);
    } else {
      break;
    }
  }
  input.set_reading(!end.has_begun() && !held_line.has_value());
  watch_time();
}

void
Session::take_line(const Line &line)
{
  if (!is_blank(line.text) || line.too_long) {
    if (check(line)) {
      tessard_producer_set_sample_frame(producer, line.text.c_str());
      held_line = line.text;
    }
  }
}

/* Reports what is wrong with a line.
 *
 * Returns: whether it is an item */
gboolean
Session::check(const Line &line)
{
  plugins::ProducerFlaws flaws;

  if (line.too_long) {
    flaws.fatal = "it is too long";
  } else {
    checker.check(line.text, &flaws);
  }
  if (flaws.fatal != nullptr) {
    report_flaw(line, "skipped", flaws.fatal);
  } else if (flaws.partial != nullptr) {
    report_flaw(line, "left out in part", flaws.partial);
  }
  return flaws.fatal == nullptr && !end.has_begun();
}

void
Session::report_flaw(const Line &line, const gchar *consequence, const gchar *flaw)
{
  g_autofree gchar *message =
      g_strdup_printf("Line %" G_GUINT64_FORMAT " is %s: %s.", line.number, consequence, flaw);

  if (options->strict) {
    end.begin(g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, message));
  } else {
    print_note(message);
  }
}

/* Output */

gboolean
Session::is_drained()
{
  if (batch.lines > 0 && tessard_producer_get_pending(producer) == 0) {
    batch = {};
  }
  return batch.lines == 0;
}

/* Whether the library can get the held line. While lines are dropped, all of the batch must be gone first. */
gboolean
Session::can_send()
{
  const gboolean fits = batch.lines < PRODUCE_MAX_BATCH_LINES &&
                        batch.bytes + held_line->size() <= PRODUCE_MAX_BATCH_BYTES && !dropping;

  return (is_drained() || fits) && tessard_producer_get_ready(producer);
}

/* Sends or drops the line that waits.
 *
 * Returns: whether no line waits any more */
gboolean
Session::pass_held_line()
{
  if (!held_line.has_value()) {
    return TRUE;
  }
  if (can_send()) {
    stop_dropping();
    send_held_line();
  } else if (dropping) {
    dropped++;
  } else {
    return FALSE;
  }
  held_line.reset();
  return TRUE;
}

/* The library counts what it drops. */
void
Session::send_held_line()
{
  if (batch.lines == 0) {
    g_clear_handle_id(&wait_source, g_source_remove);
  }
  for (const guint32 channel : options->channels) {
    tessard_producer_send_json(producer, channel, held_line->c_str(), nullptr);
  }
  batch.lines++;
  batch.bytes += held_line->size();
  was_open = TRUE;
}

/* Limits the time for which lines wait, here or in the library. */
void
Session::watch_time()
{
  if (end.has_begun() || dropping || (!held_line.has_value() && is_drained())) {
    g_clear_handle_id(&wait_source, g_source_remove);
  } else if (wait_source == 0) {
    wait_source = g_timeout_add(PRODUCE_WAIT_MS, on_waited, this);
  }
}

gboolean
Session::on_waited(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->wait_source = 0;
  self->start_dropping(
      g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "The receiver does not read."));
  return G_SOURCE_REMOVE;
}

/* Takes @reason. */
void
Session::start_dropping(GError *reason)
{
  g_autoptr(GError) owned = reason;

  if (!dropping && !end.has_begun()) {
    g_autofree gchar *message = g_strdup_printf("%s Lines are dropped until it takes them.", owned->message);
    print_note(message);
    g_clear_error(&cause);
    cause = g_steal_pointer(&owned);
    dropping = TRUE;
    dropped = 0;
  }
  take_lines();
}

void
Session::stop_dropping()
{
  if (dropping) {
    dropped += take_dropped_by_library();
    g_autofree gchar *message =
        g_strdup_printf("The receiver takes lines again; dropped lines: %" G_GUINT64_FORMAT ".", dropped);
    print_note(message);
    dropping = FALSE;
  }
}

/* Returns: how many lines it has dropped since the last call. A line is an item in each channel. */
guint64
Session::take_dropped_by_library()
{
  const guint64 before = std::exchange(dropped_items, tessard_producer_get_dropped(producer));
  const guint64 channels = options->channels.size();

  return (dropped_items - before + channels - 1) / channels;
}

/* Producer */

void
Session::on_ready(TessardProducer *producer, GParamSpec *pspec, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->was_open = self->was_open || tessard_producer_get_ready(producer);
  self->take_lines();
}

void
Session::on_drained(TessardProducer *producer, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  g_clear_handle_id(&self->wait_source, g_source_remove);
  self->take_lines();
}

/* The library tries again after each of these. The command does not wait for another application or a bus. */
void
Session::on_interrupted(TessardProducer *producer, const GError *reason, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);
  GError *error = library_error_convert(reason);

  switch (reason->code) {
  case TESSARD_ERROR_NAME_TAKEN:
  case TESSARD_ERROR_NO_BUS:
    self->end.begin(error);
    break;
  case TESSARD_ERROR_BUS_CLOSED:
    self->end.begin(error);
    self->end.finish();
    break;
  default:
    self->start_dropping(error);
  }
}

void
Session::on_failed(TessardProducer *producer, const GError *reason, gpointer user_data)
{
  static_cast<Session *>(user_data)->end.begin(library_error_convert(reason));
}

/* End */

/* The end is when the receiver has taken the lines that the library has and the producer is unregistered, or
 * when the library's time for that is over. */
void
Session::on_end(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->input.set_reading(FALSE);
  self->watch_time();
  tessard_producer_close_async(self->producer, nullptr, on_closed, self);
}

/* Lines that the receiver has not taken by then are no failure: a signal has ended the command, or a message
 * says that lines are dropped. */
void
Session::on_closed(GObject *object, GAsyncResult *result, gpointer user_data)
{
  tessard_producer_close_finish(TESSARD_PRODUCER(object), result, nullptr);
  static_cast<Session *>(user_data)->end.finish();
}

} // namespace

/**
 * produce_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl produce" until the end of standard input, or until a signal. SIGPIPE must be ignored.
 *
 * Returns: the exit status
 */
int
produce_command_run(int argc, char **argv)
{
  ProduceOptions options;
  g_autoptr(GError) error = nullptr;

  if (!produce_options_parse(&options, argc, argv, &error)) {
    return g_error_matches(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL) ? command_report_outcome(error)
                                                                       : command_usage_error(error->message);
  }

  Session session(&options);
  return command_report_outcome(session.run());
}

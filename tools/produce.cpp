/* SPDX-License-Identifier: MIT */
/* "tessardctl produce": passes items from standard input to the metadata receiver.
 *
 * Of each line that is an item, every channel gets a message; then the next line is read. So at most one line
 * waits for the receiver, and a fast program is slowed down to the receiver's pace. A line that has waited
 * for PRODUCE_WAIT_MS is dropped, and so are all further ones until the receiver takes messages again:
 * a program is never stopped for long, and clients do not get items of the past. While the receiver is not on
 * the bus, lines are dropped at once.
 *
 * Everything runs on the main thread, in one main loop, which nothing blocks: standard input is read when it
 * has data, channels do not block, and a message that standard error does not take is left out.
 */
#include "produce.h"
#include "channelwriter.h"
#include "command.h"
#include "linecutter.h"
#include "produceoptions.h"
#include "producerbus.h"
#include "produceritem.h"
#include "receiverlink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <glib-unix.h>
#include <memory>
#include <optional>
#include <unistd.h>

namespace
{

constexpr gsize READ_BYTES = 65536;

constexpr gchar WHITE_SPACE[] = " \t\r";

constexpr gchar ABSENT[] = "The receiver is not on the bus: '" RECEIVER_LINK_BUS_NAME "' has no owner.";

class Session
{
public:
  Session(GDBusConnection *connection, const ProduceOptions *options);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session();

  const GError *run();

private:
  static const ReceiverLinkEvents LINK_EVENTS;

  static gboolean on_input(gint fd, GIOCondition condition, gpointer user_data);
  static gboolean on_waited(gpointer user_data);
  static gboolean on_end_time(gpointer user_data);
  static gboolean on_signal(gpointer user_data);
  static void on_bus_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                            gpointer user_data);
  static void on_written(ChannelWriter *writer, gpointer user_data);
  static void on_channel_end(ChannelWriter *writer, gpointer user_data);
  static void on_channel_open(guint32 channel, int fd, gpointer user_data);
  static void on_absent(gpointer user_data);
  static void on_delay(const gchar *reason, gpointer user_data);
  static void on_failure(GError *error, gpointer user_data);
  static void on_unregistered(gpointer user_data);

  void start_link(const std::string &sample_frame);
  void watch_input(gboolean watching);
  void read_input();
  void take_lines();
  void take_line(const Line &line);
  gboolean check(const Line &line);
  void report_flaw(const Line &line, const gchar *consequence, const gchar *flaw);
  gboolean can_write() const;
  gboolean pass_held_line();
  void start_dropping(ExitStatus status, const gchar *reason);
  void stop_dropping();
  void end(GError *outcome);
  void end_when_written();
  void quit();

  GDBusConnection *connection;
  const ProduceOptions *options;
  GMainLoop *loop;
  guint interrupted;
  guint terminated;
  gulong closed;
  guint input = 0;       /* the watch, while lines are read */
  guint wait_source = 0; /* while a line waits */
  guint end_source = 0;

  LineCutter cutter{PRODUCE_MAX_LINE_BYTES};
  ProducerItemChecker checker;
  std::vector<std::unique_ptr<ChannelWriter>> writers;
  std::unique_ptr<ReceiverLink> link;   /* NULL until there is a sample frame */
  std::optional<std::string> held_line; /* waits until it can be written */
  gboolean input_ended = FALSE;
  gboolean taking_lines = FALSE;
  gboolean was_open = FALSE; /* whether all channels have been open */

  gboolean dropping = FALSE;
  guint64 dropped = 0;     /* since then */
  GError *cause = nullptr; /* why lines are dropped */

  gboolean ending = FALSE;
  gboolean signalled = FALSE;
  GError *outcome = nullptr;
};

const ReceiverLinkEvents Session::LINK_EVENTS = {on_channel_open, on_absent, on_delay, on_failure,
                                                 on_unregistered};

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

Session::Session(GDBusConnection *bus_connection, const ProduceOptions *produce_options)
    : connection(bus_connection), options(produce_options), loop(g_main_loop_new(nullptr, FALSE)),
      interrupted(g_unix_signal_add(SIGINT, on_signal, this)),
      terminated(g_unix_signal_add(SIGTERM, on_signal, this)),
      closed(g_signal_connect(connection, "closed", G_CALLBACK(on_bus_closed), this))
{
  for (const guint32 channel : options->channels) {
    writers.push_back(std::make_unique<ChannelWriter>(channel, on_written, on_channel_end, this));
  }
  if (!options->sample_frame.empty()) {
    start_link(options->sample_frame);
  }
}

Session::~Session()
{
  ending = TRUE;
  g_signal_handler_disconnect(connection, closed);
  link.reset();
  watch_input(FALSE);
  g_clear_handle_id(&wait_source, g_source_remove);
  g_clear_handle_id(&end_source, g_source_remove);
  g_source_remove(terminated);
  g_source_remove(interrupted);
  g_main_loop_unref(loop);
  g_clear_error(&cause);
  g_clear_error(&outcome);
}

/* Returns: (nullable): the error of %TESSARDCTL_ERROR that ended the session */
const GError *
Session::run()
{
  take_lines();
  g_main_loop_run(loop);
  return outcome;
}

void
Session::start_link(const std::string &sample_frame)
{
  link = std::make_unique<ReceiverLink>(
      connection, ProducerDescription{options->name, options->nice_name, options->channels, sample_frame},
      &LINK_EVENTS, this);
}

/* Input */

void
Session::watch_input(gboolean watching)
{
  if (!watching) {
    g_clear_handle_id(&input, g_source_remove);
  } else if (input == 0) {
    input =
        g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_input, this);
  }
}

gboolean
Session::on_input(gint fd, GIOCondition condition, gpointer user_data)
{
  static_cast<Session *>(user_data)->read_input();
  return G_SOURCE_CONTINUE;
}

void
Session::read_input()
{
  std::array<gchar, READ_BYTES> bytes;
  const gssize count = read(STDIN_FILENO, bytes.data(), bytes.size());

  if (count > 0) {
    cutter.push({bytes.data(), static_cast<gsize>(count)});
  } else if (count == 0) {
    cutter.finish();
    input_ended = TRUE;
  } else if (errno != EAGAIN && errno != EINTR) {
    end(g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read standard input: %s.",
                    g_strerror(errno)));
  }
  take_lines();
}

/* Takes lines until one waits, or until more input is needed. */
void
Session::take_lines()
{
  if (taking_lines) {
    return;
  }
  taking_lines = TRUE;
  while (!ending && pass_held_line()) {
    const std::optional<Line> line = cutter.pop();
    if (line.has_value()) {
      take_line(*line);
    } else if (input_ended) {
      end(dropping && !was_open ? g_error_copy(cause) : nullptr);
    } else {
      break;
    }
  }
  taking_lines = FALSE;
  watch_input(!ending && !held_line.has_value());
}

void
Session::take_line(const Line &line)
{
  if (!is_blank(line.text) || line.too_long) {
    if (check(line)) {
      held_line = line.text;
    }
  }
  if (held_line.has_value() && link == nullptr) {
    start_link(*held_line);
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
  return flaws.fatal == nullptr && !ending;
}

void
Session::report_flaw(const Line &line, const gchar *consequence, const gchar *flaw)
{
  g_autofree gchar *message =
      g_strdup_printf("Line %" G_GUINT64_FORMAT " is %s: %s.", line.number, consequence, flaw);

  if (options->strict) {
    end(g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_REFUSED, message));
  } else {
    print_note(message);
  }
}

/* Output */

gboolean
Session::can_write() const
{
  return std::all_of(writers.begin(), writers.end(),
                     [](const auto &writer) { return writer->is_open() && !writer->is_writing(); });
}

/* Writes or drops the line that waits.
 *
 * Returns: whether no line waits any more */
gboolean
Session::pass_held_line()
{
  if (!held_line.has_value()) {
    return TRUE;
  }
  if (can_write()) {
    stop_dropping();
    const std::string message = producer_item_make_message(*held_line);
    for (const auto &writer : writers) {
      if (writer->is_open()) {
        writer->write(message);
      }
    }
  } else if (dropping) {
    dropped++;
  } else {
    if (wait_source == 0) {
      wait_source = g_timeout_add(PRODUCE_WAIT_MS, on_waited, this);
    }
    return FALSE;
  }
  g_clear_handle_id(&wait_source, g_source_remove);
  held_line.reset();
  return TRUE;
}

gboolean
Session::on_waited(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->wait_source = 0;
  self->start_dropping(EXIT_STATUS_TIMED_OUT, "The receiver does not read.");
  return G_SOURCE_REMOVE;
}

void
Session::start_dropping(ExitStatus status, const gchar *reason)
{
  if (!dropping && !ending) {
    g_autofree gchar *message = g_strdup_printf("%s Lines are dropped until it takes them.", reason);
    print_note(message);
    g_clear_error(&cause);
    cause = g_error_new_literal(TESSARDCTL_ERROR, status, reason);
    dropping = TRUE;
    dropped = 0;
  }
  take_lines();
}

void
Session::stop_dropping()
{
  if (dropping) {
    g_autofree gchar *message =
        g_strdup_printf("The receiver takes lines again; dropped lines: %" G_GUINT64_FORMAT ".", dropped);
    print_note(message);
    dropping = FALSE;
  }
}

void
Session::on_written(ChannelWriter *writer, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  if (self->ending) {
    self->end_when_written();
  } else {
    self->take_lines();
  }
}

void
Session::on_channel_end(ChannelWriter *writer, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  if (self->ending) {
    self->end_when_written();
    return;
  }
  self->link->reopen(writer->channel());
  self->start_dropping(EXIT_STATUS_ENDED, "The receiver has closed a channel.");
}

/* Receiver */

void
Session::on_channel_open(guint32 channel, int fd, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);
  const auto found = std::find_if(self->writers.begin(), self->writers.end(),
                                  [channel](const auto &writer) { return writer->channel() == channel; });

  if (self->ending || found == self->writers.end()) {
    close(fd);
    return;
  }
  (*found)->open(fd);
  self->was_open = self->was_open || self->can_write();
  self->take_lines();
}

void
Session::on_absent(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  for (const auto &writer : self->writers) {
    writer->close();
  }
  if (self->ending) {
    self->quit();
    return;
  }
  self->start_dropping(EXIT_STATUS_NO_CONNECTION, ABSENT);
}

void
Session::on_delay(const gchar *reason, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);
  g_autofree gchar *sentence = g_strdup_printf("The receiver refuses for now: %.500s.", reason);

  self->start_dropping(EXIT_STATUS_REFUSED, sentence);
}

void
Session::on_failure(GError *error, gpointer user_data)
{
  static_cast<Session *>(user_data)->end(error);
}

void
Session::on_unregistered(gpointer user_data)
{
  static_cast<Session *>(user_data)->quit();
}

void
Session::on_bus_closed(GDBusConnection *bus, gboolean remote_peer_vanished, GError *error, gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->end(g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "The bus closed the connection."));
  self->quit();
}

/* End */

/* An interrupt often comes with the end of the input, because it ends the program before the pipe too. */
gboolean
Session::on_signal(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  if (self->signalled) {
    self->quit();
  } else {
    self->signalled = TRUE;
    self->end(nullptr);
  }
  return G_SOURCE_CONTINUE;
}

/* Ends the session when what is being written is written and the producer is unregistered, or when the time
 * for that is over. Takes @error, which is NULL for success. Only the first call counts. */
void
Session::end(GError *error)
{
  g_autoptr(GError) owned = error;

  if (ending) {
    return;
  }
  ending = TRUE;
  outcome = g_steal_pointer(&owned);
  watch_input(FALSE);
  g_clear_handle_id(&wait_source, g_source_remove);
  end_source = g_timeout_add(PRODUCE_END_MS, on_end_time, this);
  end_when_written();
}

void
Session::end_when_written()
{
  const gboolean writing =
      std::any_of(writers.begin(), writers.end(), [](const auto &writer) { return writer->is_writing(); });
  if (writing) {
    return;
  }
  for (const auto &writer : writers) {
    writer->close();
  }
  if (link == nullptr || !link->unregister()) {
    quit();
  }
}

gboolean
Session::on_end_time(gpointer user_data)
{
  auto *self = static_cast<Session *>(user_data);

  self->end_source = 0;
  self->quit();
  return G_SOURCE_REMOVE;
}

void
Session::quit()
{
  g_main_loop_quit(loop);
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
  g_autoptr(GDBusConnection) connection = producer_bus_connect(options.arguments.bus_address, &error);
  if (connection == nullptr) {
    return command_report_outcome(error);
  }

  Session session(connection, &options);
  return command_report_outcome(session.run());
}

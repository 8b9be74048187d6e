/* SPDX-License-Identifier: MIT */
/* "tessardctl stream": requests metadata from the daemon and writes each document.
 *
 * The main thread runs the main loop with everything that can end the stream: signals, the time limit, a
 * hang-up of the output's reader. Two tasks run on other threads, one after the other: the first one connects
 * and waits for the daemon's reply, the second one reads documents and writes them. Both can block for long;
 * one cancellable ends all their waits.
 *
 * Each thread ends the stream with finish(). The first call decides the exit status.
 */
#include "stream.h"
#include "clientstatus.h"
#include "command.h"
#include "documentformat.h"
#include "metadataclient.h"
#include "progressline.h"
#include "streamoptions.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <gio/gunixoutputstream.h>
#include <glib-unix.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr guint PROGRESS_INTERVAL_MS = 250;

constexpr mode_t OUTPUT_FILE_MODE = 0666;

struct Session {
  explicit Session(const StreamOptions *stream_options);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session();
  void remove_sources();

  const StreamOptions *options;
  GMainLoop *loop;
  GCancellable *cancellable;
  std::vector<guint> sources; /* in the default main context; main thread */

  int output_fd = -1;
  GOutputStream *output = nullptr; /* the second task's */

  gboolean task_runs = FALSE;       /* main thread */
  MetadataClient *client = nullptr; /* the second task's; main thread without a task */

  std::atomic<guint64> documents = 0;
  std::atomic<guint64> bytes = 0;

  gint64 streaming_since_us = 0; /* monotonic; main thread; 0 before the daemon's OK */
  gboolean shows_progress = FALSE;
  ProgressLine progress;

  GMutex lock; /* protects the next two */
  gboolean finished = FALSE;
  GError *outcome = nullptr;
};

Session::Session(const StreamOptions *stream_options)
    : options(stream_options), loop(g_main_loop_new(nullptr, FALSE)), cancellable(g_cancellable_new())
{
  g_mutex_init(&lock);
}

Session::~Session()
{
  remove_sources();
  g_clear_pointer(&client, metadata_client_free);
  g_clear_object(&output);
  g_clear_object(&cancellable);
  g_clear_pointer(&loop, g_main_loop_unref);
  g_clear_error(&outcome);
  g_mutex_clear(&lock);
  if (output_fd >= 0 && output_fd != STDOUT_FILENO) {
    close(output_fd);
  }
}

void
Session::remove_sources()
{
  for (const guint source : sources) {
    g_source_remove(source);
  }
  sources.clear();
}

/* Ends the stream, with success when @outcome is NULL. Takes @outcome. Any thread. */
void
finish(Session *session, GError *outcome)
{
  g_autoptr(GError) owned = outcome;

  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&session->lock);
    if (session->finished) {
      return;
    }
    session->finished = TRUE;
    session->outcome = g_steal_pointer(&owned);
  }
  g_cancellable_cancel(session->cancellable);
  g_main_loop_quit(session->loop);
}

const gchar *
get_output_name(const Session *session)
{
  return session->options->output_path != nullptr ? session->options->output_path : "standard output";
}

gboolean
open_output(Session *session, GError **error)
{
  const gchar *path = session->options->output_path;

  session->output_fd = path == nullptr
                           ? STDOUT_FILENO
                           : open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, OUTPUT_FILE_MODE);
  if (session->output_fd < 0) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not open '%s': %s.", path,
                g_strerror(errno));
    return FALSE;
  }
  session->output = g_unix_output_stream_new(session->output_fd, FALSE);
  session->shows_progress = isatty(STDERR_FILENO) && !isatty(session->output_fd);
  return TRUE;
}

/* Never blocks in write(): the output stream polls the descriptor together with the cancellable first, and a
 * pipe that polls as writable takes PIPE_BUF bytes without blocking. */
gboolean
write_text(Session *session, const GString *text, GError **error)
{
  for (gsize written = 0; written < text->len;) {
    const gsize piece = MIN(text->len - written, static_cast<gsize>(PIPE_BUF));
    const gssize result =
        g_output_stream_write(session->output, text->str + written, piece, session->cancellable, error);
    if (result < 0) {
      return FALSE;
    }
    written += result;
  }
  return TRUE;
}

/* A hang-up of the reader is a normal end of the stream. */
void
finish_by_write_error(Session *session, const GError *cause)
{
  finish(session, g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE)
                      ? nullptr
                      : g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not write to %s: %s.",
                                    get_output_name(session), cause->message));
}

GString *
format_document(GBytes *document, gboolean pretty)
{
  gsize size = 0;
  const auto *text = static_cast<const gchar *>(g_bytes_get_data(document, &size));

  return pretty ? document_format_indented(text, size) : document_format_line(text, size);
}

/* The stream has started, so the daemon reads sync requests. Sending can only fail on a connection that has
 * ended, which the next read reports. */
void
count_document(Session *session, gsize size)
{
  const guint64 documents = ++session->documents;

  session->bytes += size;
  if (documents == 1 && session->options->sync) {
    metadata_client_request_sync_point(session->client);
  }
  if (documents == session->options->count) {
    finish(session, nullptr);
  }
}

/* Returns: whether the stream continues */
gboolean
write_document(Session *session, GBytes *document)
{
  g_autoptr(GString) text = format_document(document, session->options->pretty);
  g_autoptr(GError) error = nullptr;

  if (g_str_equal(text->str, "\n")) {
    return TRUE; /* only white space is not a document */
  }
  if (!write_text(session, text, &error)) {
    finish_by_write_error(session, error);
    return FALSE;
  }
  count_document(session, g_bytes_get_size(document));
  return !g_cancellable_is_cancelled(session->cancellable);
}

gboolean
on_signal(gpointer user_data)
{
  finish(static_cast<Session *>(user_data), nullptr);
  return G_SOURCE_CONTINUE;
}

GError *
get_time_out_outcome(const Session *session)
{
  const gdouble seconds = session->options->timeout_ms / 1000.0;

  if (session->streaming_since_us == 0) {
    return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "No reply within %g seconds.", seconds);
  }
  if (session->options->count == 0) {
    return nullptr;
  }
  return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT,
                     "%" G_GUINT64_FORMAT " of %" G_GUINT64_FORMAT " documents within %g seconds.",
                     session->documents.load(), session->options->count, seconds);
}

gboolean
on_time_out(gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);

  finish(session, get_time_out_outcome(session));
  return G_SOURCE_CONTINUE;
}

/* Without this watch, a hang-up would not be noticed before the next document. */
gboolean
on_output_hang_up(gint fd, GIOCondition condition, gpointer user_data)
{
  finish(static_cast<Session *>(user_data), nullptr);
  return G_SOURCE_CONTINUE;
}

void
show_progress(Session *session)
{
  session->progress.show(session->documents, session->bytes,
                         g_get_monotonic_time() - session->streaming_since_us);
}

gboolean
on_progress_interval(gpointer user_data)
{
  show_progress(static_cast<Session *>(user_data));
  return G_SOURCE_CONTINUE;
}

/* A call of the client fails with an error of another domain only if it was cancelled, which finish() does
 * after it has stored an outcome. */
void
finish_by_client_error(Session *session, const GError *cause)
{
  finish(session, g_error_new_literal(TESSARDCTL_ERROR, client_status_of(cause), cause->message));
}

void
free_client(gpointer client)
{
  metadata_client_free(static_cast<MetadataClient *>(client));
}

void
connect_in_thread(GTask *task, gpointer source_object, gpointer task_data, GCancellable *cancellable)
{
  const auto *session = static_cast<const Session *>(task_data);
  g_autofree gchar *request = stream_options_build_request(session->options);
  g_autoptr(GError) error = nullptr;
  MetadataClient *client =
      metadata_client_open(session->options->socket_path, request, 0, cancellable, &error);

  if (client != nullptr) {
    g_task_return_pointer(task, client, free_client);
  } else {
    g_task_return_error(task, g_steal_pointer(&error));
  }
}

void
stream_in_thread(GTask *task, gpointer source_object, gpointer task_data, GCancellable *cancellable)
{
  auto *session = static_cast<Session *>(task_data);
  gboolean continues = TRUE;

  while (continues) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GBytes) document = metadata_client_read(session->client, cancellable, &error);
    continues = document != nullptr && write_document(session, document);
    if (document == nullptr) {
      finish_by_client_error(session, error);
    }
  }
  g_task_return_boolean(task, TRUE);
}

void
start_task(Session *session, GTaskThreadFunc run, GAsyncReadyCallback on_end)
{
  g_autoptr(GTask) task = g_task_new(nullptr, session->cancellable, on_end, session);

  session->task_runs = TRUE;
  g_task_set_task_data(task, session, nullptr);
  g_task_run_in_thread(task, run);
}

void
on_streamed(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  static_cast<Session *>(user_data)->task_runs = FALSE;
}

void
start_streaming(Session *session)
{
  constexpr auto OUTPUT_GONE = static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP);

  session->streaming_since_us = g_get_monotonic_time();
  session->sources.push_back(g_unix_fd_add(session->output_fd, OUTPUT_GONE, on_output_hang_up, session));
  if (session->shows_progress) {
    session->sources.push_back(g_timeout_add(PROGRESS_INTERVAL_MS, on_progress_interval, session));
  }
  start_task(session, stream_in_thread, on_streamed);
}

void
on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);
  g_autoptr(GError) error = nullptr;

  session->task_runs = FALSE;
  session->client = static_cast<MetadataClient *>(g_task_propagate_pointer(G_TASK(result), &error));
  if (session->client == nullptr) {
    finish_by_client_error(session, error);
  } else {
    start_streaming(session);
  }
}

void
watch_for_end(Session *session)
{
  session->sources.push_back(g_unix_signal_add(SIGINT, on_signal, session));
  session->sources.push_back(g_unix_signal_add(SIGTERM, on_signal, session));
  if (session->options->timeout_ms != 0) {
    session->sources.push_back(g_timeout_add(session->options->timeout_ms, on_time_out, session));
  }
}

/* Restores the default action of the signals first: if a step below blocks, another Ctrl-C ends the process.
 */
void
tear_down(Session *session)
{
  session->remove_sources();
  while (session->task_runs) {
    g_main_context_iteration(nullptr, TRUE);
  }
  if (session->shows_progress && session->streaming_since_us != 0) {
    show_progress(session);
    session->progress.end();
  }
}

int
run_session(Session *session)
{
  g_autoptr(GError) error = nullptr;

  if (!open_output(session, &error)) {
    return command_report_outcome(error);
  }
  watch_for_end(session);
  start_task(session, connect_in_thread, on_connected);
  g_main_loop_run(session->loop);
  tear_down(session);
  return command_report_outcome(session->outcome);
}

} // namespace

/**
 * stream_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl stream" until the stream is over. SIGPIPE must be ignored.
 *
 * Returns: the exit status
 */
int
stream_command_run(int argc, char **argv)
{
  StreamOptions options;
  g_autoptr(GError) error = nullptr;

  if (!stream_options_parse(&options, argc, argv, &error)) {
    return command_usage_error(error->message);
  }

  Session session(&options);
  return run_session(&session);
}

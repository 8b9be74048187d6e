/* SPDX-License-Identifier: MIT */
/* "tessardctl stream": requests metadata from the daemon and writes each document.
 *
 * Three threads take part. The main thread runs the main loop with everything that can end the stream:
 * signals, the time limit, a hang-up of the output's reader, the pipeline's bus. A task thread connects and
 * waits for the daemon's reply. The pipeline's streaming thread writes the documents. The last two can block
 * for long; one cancellable ends all their waits.
 *
 * Each of them ends the stream with finish(). The first call decides the exit status.
 */
#include "stream.h"
#include "command.h"
#include "connection.h"
#include "documentformat.h"
#include "progressline.h"
#include "streamoptions.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gio/gunixoutputstream.h>
#include <glib-unix.h>
#include <gst/app/gstappsink.h>
#include <unistd.h>
#include <vector>

namespace
{

/* Far above any real document. Without a bound, a malformed stream could fill the memory. */
constexpr gsize MAX_DOCUMENT_BYTES = 64 * 1024 * 1024;

constexpr guint READ_BLOCK_BYTES = 64 * 1024;

constexpr guint PROGRESS_INTERVAL_MS = 250;

constexpr gchar SYNC_LINE[] = "SYNC\n";

constexpr gchar METADATA_CAPS[] = "application/x-onvif-metadata";

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
  GOutputStream *output = nullptr; /* streaming thread, once streaming */

  gboolean connecting = FALSE; /* main thread */
  GSocket *socket = nullptr;   /* set before the pipeline plays */
  GstElement *pipeline = nullptr;
  GstElement *socket_source = nullptr; /* borrowed from the pipeline, as are the next two */
  GstElement *depayloader = nullptr;
  GstElement *sink = nullptr;

  gsize bytes_since_document = 0; /* streaming thread */
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
  g_clear_object(&pipeline);
  g_clear_object(&socket);
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

/* The stream has started, so the daemon reads sync requests. Sending can only fail on a connection that has
 * ended, which the pipeline reports once it has read the rest. */
void
request_sync_point(Session *session)
{
  g_socket_send(session->socket, SYNC_LINE, strlen(SYNC_LINE), session->cancellable, nullptr);
}

GString *
format_buffer(GstBuffer *buffer, gboolean pretty)
{
  GstMapInfo map = GST_MAP_INFO_INIT;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    return nullptr;
  }

  const auto *document = reinterpret_cast<const gchar *>(map.data);
  GString *text =
      pretty ? document_format_indented(document, map.size) : document_format_line(document, map.size);
  gst_buffer_unmap(buffer, &map);
  return text;
}

/* Streaming thread. */
void
count_document(Session *session, gsize size)
{
  const guint64 documents = ++session->documents;

  session->bytes += size;
  session->bytes_since_document = 0;
  if (documents == 1 && session->options->sync) {
    request_sync_point(session);
  }
  if (documents == session->options->count) {
    finish(session, nullptr);
  }
}

GstFlowReturn
on_new_sample(GstAppSink *sink, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);
  g_autoptr(GstSample) sample = gst_app_sink_pull_sample(sink);
  GstBuffer *buffer = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  g_autoptr(GString) text = buffer != nullptr ? format_buffer(buffer, session->options->pretty) : nullptr;
  g_autoptr(GError) error = nullptr;

  if (text == nullptr) {
    return GST_FLOW_ERROR;
  }
  if (g_str_equal(text->str, "\n")) {
    return GST_FLOW_OK; /* an empty buffer is not a document */
  }
  if (!write_text(session, text, &error)) {
    finish_by_write_error(session, error);
    return GST_FLOW_EOS;
  }
  count_document(session, gst_buffer_get_size(buffer));
  return g_cancellable_is_cancelled(session->cancellable) ? GST_FLOW_EOS : GST_FLOW_OK;
}

/* Streaming thread: called for every block, before the depayloader collects it. */
GstPadProbeReturn
on_block_read(GstPad *pad, GstPadProbeInfo *info, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);

  session->bytes_since_document += gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info));
  if (session->bytes_since_document <= MAX_DOCUMENT_BYTES) {
    return GST_PAD_PROBE_OK;
  }
  finish(session,
         g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED,
                     "The daemon sent more than %" G_GSIZE_FORMAT " bytes without completing a document.",
                     MAX_DOCUMENT_BYTES));
  return GST_PAD_PROBE_DROP;
}

/* The elements belong to the bin and stay valid as long as it. */
GstElement *
add_element(GstBin *bin, const gchar *factory_name, GError **error)
{
  GstElement *element = gst_element_factory_make(factory_name, nullptr);

  if (element == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "The GStreamer element '%s' is not installed.",
                factory_name);
    return nullptr;
  }
  gst_bin_add(bin, element);
  return element;
}

void
set_up_elements(Session *session)
{
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(METADATA_CAPS);
  g_autoptr(GstPad) depayloader_pad = gst_element_get_static_pad(session->depayloader, "sink");
  GstAppSinkCallbacks callbacks = {};

  callbacks.new_sample = on_new_sample;
  gst_pad_add_probe(depayloader_pad, GST_PAD_PROBE_TYPE_BUFFER, on_block_read, session, nullptr);
  g_object_set(session->socket_source, "blocksize", READ_BLOCK_BYTES, nullptr);
  g_object_set(session->sink, "caps", caps, "sync", FALSE, "max-buffers", 1, nullptr);
  gst_app_sink_set_callbacks(GST_APP_SINK(session->sink), &callbacks, session, nullptr);
}

/* Built before connecting: without a pipeline the stream could not be read. */
gboolean
build_pipeline(Session *session, GError **error)
{
  g_autoptr(GError) cause = nullptr;
  if (!gst_init_check(nullptr, nullptr, &cause)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not start GStreamer: %s", cause->message);
    return FALSE;
  }

  session->pipeline = GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)));
  auto *bin = GST_BIN(session->pipeline);
  session->socket_source = add_element(bin, "fdsrc", error);
  session->depayloader = session->socket_source != nullptr ? add_element(bin, "gdpdepay", error) : nullptr;
  session->sink = session->depayloader != nullptr ? add_element(bin, "appsink", error) : nullptr;
  if (session->sink == nullptr) {
    return FALSE;
  }
  set_up_elements(session);
  gst_element_link_many(session->socket_source, session->depayloader, session->sink, nullptr);
  return TRUE;
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

GError *
new_ended_error(void)
{
  return g_error_new_literal(TESSARDCTL_ERROR, EXIT_STATUS_ENDED, "The daemon ended the stream.");
}

/* A read error only means that the connection has ended: the daemon closed it before it read the sync
 * request. */
GError *
convert_pipeline_error(GstMessage *message)
{
  g_autoptr(GError) cause = nullptr;

  gst_message_parse_error(message, &cause, nullptr);
  if (g_error_matches(cause, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ)) {
    return new_ended_error();
  }
  return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The daemon's stream is malformed: %s",
                     cause->message);
}

gboolean
on_bus_message(GstBus *bus, GstMessage *message, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);

  switch (GST_MESSAGE_TYPE(message)) {
  case GST_MESSAGE_EOS:
    finish(session, new_ended_error());
    break;
  case GST_MESSAGE_ERROR:
    finish(session, convert_pipeline_error(message));
    break;
  default:
    break;
  }
  return G_SOURCE_CONTINUE;
}

void
start_streaming(Session *session)
{
  g_autoptr(GstBus) bus = gst_element_get_bus(session->pipeline);
  constexpr auto OUTPUT_GONE = static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP);

  session->streaming_since_us = g_get_monotonic_time();
  session->sources.push_back(gst_bus_add_watch(bus, on_bus_message, session));
  session->sources.push_back(g_unix_fd_add(session->output_fd, OUTPUT_GONE, on_output_hang_up, session));
  if (session->shows_progress) {
    session->sources.push_back(g_timeout_add(PROGRESS_INTERVAL_MS, on_progress_interval, session));
  }
  g_object_set(session->socket_source, "fd", g_socket_get_fd(session->socket), nullptr);
  gst_element_set_state(session->pipeline, GST_STATE_PLAYING);
}

void
connect_in_thread(GTask *task, gpointer source_object, gpointer task_data, GCancellable *cancellable)
{
  const auto *session = static_cast<const Session *>(task_data);
  g_autofree gchar *request = stream_options_build_request(session->options);
  g_autoptr(GError) error = nullptr;
  GSocket *socket = connection_open(session->options->socket_path, request, cancellable, &error);

  if (socket != nullptr) {
    g_task_return_pointer(task, socket, g_object_unref);
  } else {
    g_task_return_error(task, g_steal_pointer(&error));
  }
}

void
on_connected(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  auto *session = static_cast<Session *>(user_data);
  g_autoptr(GError) error = nullptr;

  session->connecting = FALSE;
  session->socket = static_cast<GSocket *>(g_task_propagate_pointer(G_TASK(result), &error));
  if (session->socket == nullptr) {
    finish(session, g_steal_pointer(&error));
  } else {
    start_streaming(session);
  }
}

void
start_connecting(Session *session)
{
  g_autoptr(GTask) task = g_task_new(nullptr, session->cancellable, on_connected, session);

  session->connecting = TRUE;
  g_task_set_task_data(task, session, nullptr);
  g_task_run_in_thread(task, connect_in_thread);
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
  while (session->connecting) {
    g_main_context_iteration(nullptr, TRUE);
  }
  gst_element_set_state(session->pipeline, GST_STATE_NULL);
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
  if (!build_pipeline(session, &error)) {
    return command_report_outcome(error);
  }
  start_connecting(session);
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

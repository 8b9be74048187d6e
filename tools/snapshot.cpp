/* SPDX-License-Identifier: MIT */
/* "tessardctl snapshot": draws the scene of one document.
 *
 * One task on another thread waits for the daemon. The main thread runs the main loop, whose time limit
 * cancels the task. The file is written only when the drawing is complete, so that a signal or a failure
 * leaves the old one.
 */
#include "snapshot.h"
#include "boundedread.h"
#include "clienterror.h"
#include "clientstatus.h"
#include "command.h"
#include "metadataclient.h"
#include "output.h"
#include "scenesvg.h"
#include "snapshotoptions.h"

#include <fcntl.h>
#include <glib/gstdio.h>
#include <unistd.h>

namespace
{

constexpr gchar STANDARD_INPUT[] = "-";
constexpr int OUTPUT_FILE_MODE = 0666;

/* The wait for a scene. The task has it until @loop ends. */
struct Wait {
  explicit Wait(const StreamOptions *stream_options)
      : options(stream_options), loop(g_main_loop_new(nullptr, FALSE)), cancellable(g_cancellable_new())
  {
  }
  ~Wait()
  {
    g_object_unref(cancellable);
    g_main_loop_unref(loop);
    g_clear_error(&error);
  }
  Wait(const Wait &) = delete;
  Wait &operator=(const Wait &) = delete;

  const StreamOptions *options;
  GMainLoop *loop;
  GCancellable *cancellable;
  std::optional<Scene> scene;
  GError *error = nullptr;
};

std::string_view
text_of(GBytes *document)
{
  gsize size = 0;
  const auto *text = static_cast<const gchar *>(g_bytes_get_data(document, &size));

  return {text, size};
}

/* Reads documents up to one with objects. */
std::optional<Scene>
receive(const Wait *wait, GError **error)
{
  g_autofree gchar *request = stream_options_build_request(wait->options);
  g_autoptr(MetadataClient) client =
      metadata_client_open(wait->options->socket_path, request, 0, wait->cancellable, error);

  while (client != nullptr) {
    g_autoptr(GBytes) document = metadata_client_read(client, wait->cancellable, error);
    if (document == nullptr) {
      return std::nullopt;
    }
    std::optional<Scene> scene = scene_read(text_of(document), error);
    if (!scene.has_value() || scene->objects > 0) {
      return scene;
    }
  }
  return std::nullopt;
}

void
receive_in_thread(GTask *task, gpointer source_object, gpointer task_data, GCancellable *cancellable)
{
  auto *wait = static_cast<Wait *>(task_data);

  wait->scene = receive(wait, &wait->error);
  g_task_return_boolean(task, TRUE);
}

void
on_received(GObject *source_object, GAsyncResult *result, gpointer user_data)
{
  g_main_loop_quit(static_cast<Wait *>(user_data)->loop);
}

gboolean
on_time_out(gpointer user_data)
{
  g_cancellable_cancel(static_cast<Wait *>(user_data)->cancellable);
  return G_SOURCE_CONTINUE;
}

/* Returns: (transfer full): @cause as an error of the command */
GError *
to_command_error(const Wait *wait, const GError *cause)
{
  if (g_error_matches(cause, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return g_error_new(TESSARDCTL_ERROR, EXIT_STATUS_TIMED_OUT, "No document with objects within %g seconds.",
                       wait->options->timeout_ms / 1000.0);
  }
  if (cause->domain == METADATA_CLIENT_ERROR) {
    return g_error_new_literal(TESSARDCTL_ERROR, client_status_of(cause), cause->message);
  }
  return g_error_copy(cause);
}

std::optional<Scene>
wait_for_scene(const StreamOptions *options, GError **error)
{
  Wait wait(options);
  g_autoptr(GTask) task = g_task_new(nullptr, nullptr, on_received, &wait);
  const guint limit = g_timeout_add(options->timeout_ms, on_time_out, &wait);

  g_task_set_task_data(task, &wait, nullptr);
  g_task_run_in_thread(task, receive_in_thread);
  g_main_loop_run(wait.loop);
  g_source_remove(limit);
  if (!wait.scene.has_value()) {
    g_propagate_error(error, to_command_error(&wait, wait.error));
  }
  return std::move(wait.scene);
}

GByteArray *
read_input(const gchar *path, GError **error)
{
  const int fd = g_str_equal(path, STANDARD_INPUT) ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
  g_autoptr(GError) cause = nullptr;

  if (fd < 0) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not open '%s': %s.", path,
                g_strerror(errno));
    return nullptr;
  }
  GByteArray *bytes = bounded_read(fd, SCENE_MAX_DOCUMENT_BYTES, &cause);
  if (bytes == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read '%s': %s.", path, cause->message);
  }
  return bytes;
}

std::optional<Scene>
read_scene(const gchar *path, GError **error)
{
  g_autoptr(GByteArray) bytes = read_input(path, error);
  if (bytes == nullptr) {
    return std::nullopt;
  }
  std::optional<Scene> scene = scene_read({reinterpret_cast<const gchar *>(bytes->data), bytes->len}, error);
  if (scene.has_value() && scene->frames.empty()) {
    g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The document has no scene.");
    return std::nullopt;
  }
  return scene;
}

/* A device or a pipe cannot be replaced. */
gboolean
write_file(const gchar *path, const std::string &text, GError **error)
{
  g_autoptr(GError) cause = nullptr;

  if (g_file_test(path, G_FILE_TEST_EXISTS) && !g_file_test(path, G_FILE_TEST_IS_REGULAR)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "'%s' is not a regular file.", path);
    return FALSE;
  }
  if (!g_file_set_contents_full(path, text.data(), static_cast<gssize>(text.size()),
                                G_FILE_SET_CONTENTS_CONSISTENT, OUTPUT_FILE_MODE, &cause)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not write: %s.", cause->message);
    return FALSE;
  }
  return TRUE;
}

gboolean
write_drawing(const SnapshotOptions *options, const Scene &scene, GError **error)
{
  const std::string text = scene_svg_write(scene);

  if (options->stream.output_path == nullptr) {
    return output_write(text.c_str(), error);
  }
  return write_file(options->stream.output_path, text, error);
}

} // namespace

/**
 * snapshot_command_run:
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 *
 * Runs "tessardctl snapshot". SIGPIPE must be ignored.
 *
 * Returns: the exit status
 */
int
snapshot_command_run(int argc, char **argv)
{
  SnapshotOptions options;
  g_autoptr(GError) error = nullptr;

  if (!snapshot_options_parse(&options, argc, argv, &error)) {
    return command_usage_error(error->message);
  }
  const std::optional<Scene> scene = options.input_path != nullptr ? read_scene(options.input_path, &error)
                                                                   : wait_for_scene(&options.stream, &error);
  if (scene.has_value()) {
    write_drawing(&options, *scene, &error);
  }
  return command_report_outcome(error);
}

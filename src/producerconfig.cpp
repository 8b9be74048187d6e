/* SPDX-License-Identifier: MIT */
/* The file that stores on which channels each analytics producer is enabled, and under which configuration
 * name. The file is read once, at start-up. Afterwards the key file in memory is authoritative, and each
 * change replaces the whole file durably. Comments, and changes by other programs, are lost with the next
 * write.
 *
 * A group is named "Producers.", the channel's number minus 1, "." and the producer's name. Its key "Name"
 * has the configuration name; an empty or absent one means disabled. The groups of a built-in producer are
 * also the list of its supported channels, so disabling never removes a group.
 *
 * A save writes the new content to a temporary file and renames it, so a reader never sees an incomplete
 * file. Only one process at a time can use a file: a second one would remove the temporary file of the first
 * as a leftover.
 *
 * Threads: one thread, from set-up to release, processes all jobs in order. A save writes the content of
 * memory at its start, so older content never replaces newer. No thread waits for a save; to be notified of
 * its end, a caller queues a job behind it.
 *
 * After a failed save the file is older than memory. A time-out of the default main context then queues saves
 * until one succeeds.
 *
 * Lock: protects the key file, the id of the time-out and the number of pending saves. It is never held
 * during disk access, and only locks of GLib are taken under it. Set-up and release run before and after all
 * other use, and take no lock.
 */
#include "producerconfig.h"

#include "memory.h"
#include "ratelimitedlog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr const char *GROUP_PREFIX = "Producers.";
constexpr const char *NAME_KEY = "Name";
constexpr guint64 LONG_WAIT_US = 50 * G_TIME_SPAN_MILLISECOND;

enum class JobKind {
  SAVE_CHANGE,
  SAVE_AGAIN,
  NOTIFY,
  END,
};

struct Job {
  JobKind kind;
  GSource *source; /* owned; for NOTIFY, the source to dispatch */
};

/* The number of groups in the file is not limited. */
RateLimitedLog long_names_log =
    RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);

struct ProducerConfig {
  GMutex lock;
  const gchar *path; /* borrowed */
  GKeyFile *key_file;
  guint retry_id;      /* 0 unless the file is older than memory */
  guint pending_saves; /* queued or in progress */
  GAsyncQueue *jobs;
  GThread *thread;
};

ProducerConfig config;

/* Channel 0 does not exist. Its index wraps to the highest one, which no supported channel has. */
gchar *
format_group(const gchar *producer, guint32 channel)
{
  return g_strdup_printf("%s%u.%s", GROUP_PREFIX, channel - 1, producer);
}

/* No other program uses this name, so the file can be removed or overwritten. */
gchar *
make_temporary_path()
{
  return g_strconcat(config.path, PRODUCER_CONFIG_TEMPORARY_SUFFIX, nullptr);
}

/* An interrupted save leaves the temporary file. If it cannot be removed, the next save reports the failure.
 */
void
remove_leftover()
{
  g_autofree gchar *temporary = make_temporary_path();

  g_unlink(temporary);
}

gboolean
has_long_name(const gchar *group)
{
  g_autofree gchar *name = g_key_file_get_string(config.key_file, group, NAME_KEY, nullptr);

  return name != nullptr && strlen(name) > PRODUCER_CONFIG_MAX_NAME_BYTES;
}

void
warn_of_long_names()
{
  g_auto(GStrv) groups = g_key_file_get_groups(config.key_file, nullptr);

  for (gchar **group = groups; *group != nullptr; group++) {
    if (g_str_has_prefix(*group, GROUP_PREFIX) && has_long_name(*group)) {
      rate_limited_log(&long_names_log, LOG_WARNING,
                       "configuration name longer than %d bytes in producers.conf: %s",
                       PRODUCER_CONFIG_MAX_NAME_BYTES, *group);
    }
  }
}

/* Other names fail a precondition of GLib. */
gboolean
can_name_group(const gchar *group)
{
  if (!g_utf8_validate(group, -1, nullptr)) {
    return FALSE;
  }
  for (const gchar *c = group; *c != '\0'; c++) {
    if (*c == '[' || *c == ']' || g_ascii_iscntrl(*c)) {
      return FALSE;
    }
  }
  return TRUE;
}

gboolean
set_value(const gchar *group, const gchar *value, GError **error)
{
  if (!can_name_group(group)) {
    g_autofree gchar *escaped = g_strescape(group, nullptr);
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_PARSE, "Not the name of a group: \"%s\"", escaped);
    return FALSE;
  }
  if (!g_utf8_validate(value, -1, nullptr)) {
    g_autofree gchar *escaped = g_strescape(value, nullptr);
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_UNKNOWN_ENCODING, "Not UTF-8 text: \"%s\"",
                escaped);
    return FALSE;
  }
  g_key_file_set_string(config.key_file, group, NAME_KEY, value);
  return TRUE;
}

void set_file_error(GError **error, const gchar *format, ...) G_GNUC_PRINTF(2, 3);

void
set_file_error(GError **error, const gchar *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autoptr(GError) failure = g_error_new_valist(G_FILE_ERROR, G_FILE_ERROR_FAILED, format, args);
  va_end(args);

  g_propagate_error(error, g_steal_pointer(&failure));
}

gboolean
write_all(int fd, const gchar *path, std::string_view data, GError **error)
{
  while (!data.empty()) {
    const ssize_t written = write(fd, data.data(), data.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      set_file_error(error, "Failed to write '%s': %s", path, g_strerror(errno));
      return FALSE;
    }
    data.remove_prefix(static_cast<gsize>(written));
  }
  return TRUE;
}

gboolean
sync_and_close(int fd, const gchar *path, GError **error)
{
  if (fsync(fd) < 0) {
    set_file_error(error, "Failed to sync '%s': %s", path, g_strerror(errno));
    close(fd);
    return FALSE;
  }
  if (close(fd) < 0) {
    set_file_error(error, "Failed to close fd (%d) for %s: %s", fd, path, g_strerror(errno));
    return FALSE;
  }
  return TRUE;
}

/* The mode is that of GLib's own functions. */
gboolean
write_new_file(const gchar *path, std::string_view data, GError **error)
{
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);

  if (fd < 0) {
    set_file_error(error, "Failed to create '%s': %s", path, g_strerror(errno));
    return FALSE;
  }
  if (!write_all(fd, path, data, error)) {
    close(fd);
    return FALSE;
  }
  return sync_and_close(fd, path, error);
}

gboolean
rename_to_file(const gchar *path, GError **error)
{
  if (rename(path, config.path) < 0) {
    set_file_error(error, "Failed to rename '%s' to '%s': %s", path, config.path, g_strerror(errno));
    return FALSE;
  }
  return TRUE;
}

gchar *
take_snapshot(gsize *length)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);

  return g_key_file_to_data(config.key_file, length, nullptr);
}

gboolean
replace_file(GError **error)
{
  g_autofree gchar *temporary = make_temporary_path();
  gsize length = 0;
  g_autofree gchar *data = take_snapshot(&length);

  g_unlink(temporary);
  if (write_new_file(temporary, {data, length}, error) && rename_to_file(temporary, error)) {
    return TRUE;
  }
  g_unlink(temporary);
  return FALSE;
}

/* Makes the rename durable. */
gboolean
sync_folder(GError **error)
{
  g_autofree gchar *dir = g_path_get_dirname(config.path);
  const int fd = open(dir, O_RDONLY | O_CLOEXEC);

  if (fd < 0) {
    set_file_error(error, "Failed to open '%s': %s", dir, g_strerror(errno));
    return FALSE;
  }
  return sync_and_close(fd, dir, error);
}

gboolean
save(GError **error)
{
  return replace_file(error) && sync_folder(error);
}

void
stop_retrying()
{
  g_clear_handle_id(&config.retry_id, g_source_remove);
}

void
queue_job(JobKind kind, GSource *source = nullptr)
{
  auto *job = g_new0(Job, 1);

  job->kind = kind;
  job->source = source;
  g_async_queue_push(config.jobs, job);
}

/* Called with the lock held. */
void
queue_save(JobKind kind)
{
  config.pending_saves++;
  queue_job(kind);
}

/* The channel of a group, or 0 when its index is malformed. Checks only the text between the first two dots;
 * docs/compatibility.md, "group names". */
guint32
parse_channel(const gchar *group)
{
  const gchar *index = strchr(group, '.') + 1;
  const gchar *end = strchr(index, '.');
  gchar *parsed_end = nullptr;
  const gint64 value = g_ascii_strtoll(index, &parsed_end, 10);

  if (parsed_end != end || value < 0 || value > G_MAXINT32) {
    return 0;
  }
  return static_cast<guint32>(value) + 1;
}

/* A pending save writes all of memory, so no other is added. */
gboolean
on_retry(gpointer)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);

  if (config.retry_id != 0 && config.pending_saves == 0) {
    queue_save(JobKind::SAVE_AGAIN);
  }
  return G_SOURCE_CONTINUE;
}

void
end_save(gboolean saved)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);

  config.pending_saves--;
  if (saved) {
    stop_retrying();
  } else if (config.retry_id == 0) {
    config.retry_id = g_timeout_add_seconds(PRODUCER_CONFIG_RETRY_SECONDS, on_retry, nullptr);
  }
}

void
save_change()
{
  g_autoptr(GError) error = nullptr;
  const gboolean saved = save(&error);

  end_save(saved);
  if (!saved) {
    syslog(LOG_WARNING, "could not write name to producerconfig: %s", error->message);
  }
}

void
save_again()
{
  const gboolean saved = save(nullptr);

  end_save(saved);
  if (saved) {
    syslog(LOG_INFO, "wrote to producerconfig what could not be written before");
  }
}

/* The source can be removed already. */
void
make_ready(GSource *source)
{
  g_source_set_ready_time(source, 0);
  g_source_unref(source);
}

/* Waits for the next job. While that takes long, free memory is given back. Not earlier: the main thread then
 * handles the end of a save, and both would compete for the allocator. */
Job *
take_next_job()
{
  auto *job = static_cast<Job *>(g_async_queue_timeout_pop(config.jobs, LONG_WAIT_US));

  if (job == nullptr) {
    memory_trim_later();
    memory_hand_over_kept_blocks();
    job = static_cast<Job *>(g_async_queue_pop(config.jobs));
  }
  return job;
}

/* FALSE when the thread must end. Takes ownership of the job. */
gboolean
process_job(Job *job)
{
  g_autofree Job *owned = job;

  switch (job->kind) {
  case JobKind::SAVE_CHANGE:
    save_change();
    break;
  case JobKind::SAVE_AGAIN:
    save_again();
    break;
  case JobKind::NOTIFY:
    make_ready(job->source);
    break;
  case JobKind::END:
    return FALSE;
  }
  return TRUE;
}

/* The writer thread. */
gpointer
process_jobs(gpointer)
{
  auto *job = static_cast<Job *>(g_async_queue_pop(config.jobs));

  while (process_job(job)) {
    job = take_next_job();
  }
  return nullptr;
}

gboolean
dispatch_once(GSource *, GSourceFunc function, gpointer user_data)
{
  function(user_data);
  return G_SOURCE_REMOVE;
}

/* Without prepare and check, a source is ready at its ready time only. */
GSourceFuncs notify_source_funcs = {nullptr, nullptr, dispatch_once, nullptr, nullptr, nullptr};

gboolean
start_thread()
{
  g_autoptr(GError) error = nullptr;

  config.jobs = g_async_queue_new();
  config.thread = g_thread_try_new("producer-config", process_jobs, nullptr, &error);
  if (config.thread == nullptr) {
    syslog(LOG_WARNING, "could not start the thread that writes producer config: %s", error->message);
    return FALSE;
  }
  return TRUE;
}

void
end_thread()
{
  if (config.thread != nullptr) {
    queue_job(JobKind::END);
    g_thread_join(std::exchange(config.thread, nullptr));
  }
  g_clear_pointer(&config.jobs, g_async_queue_unref);
}

} // namespace

/**
 * producer_config_setup:
 * @path: (transfer none): the file, which must exist; kept until producer_config_free()
 *
 * Loads the file and starts the thread that writes it. Never creates the file: without it the daemon does not
 * start. Removes the temporary file of an interrupted save (#PRODUCER_CONFIG_TEMPORARY_SUFFIX). Must be
 * called before all other functions.
 *
 * Warnings: "could not load producer config from '%s': %s", with the system's `errno`, or EINVAL for
 * malformed content; "could not start the thread that writes producer config: %s", with `errno` EAGAIN;
 * "configuration name longer than %d bytes in producers.conf: %s" for each group whose name exceeds
 * #PRODUCER_CONFIG_MAX_NAME_BYTES and is used even so
 *
 * Returns: whether the file is loaded and can be saved
 */
gboolean
producer_config_setup(const gchar *path)
{
  g_autoptr(GError) error = nullptr;

  g_mutex_init(&config.lock);
  config.path = path;
  config.key_file = g_key_file_new();
  if (!g_key_file_load_from_file(config.key_file, path, G_KEY_FILE_NONE, &error)) {
    const int error_number = error->domain == G_FILE_ERROR ? errno : EINVAL;

    syslog(LOG_WARNING, "could not load producer config from '%s': %s", path, error->message);
    producer_config_free();
    errno = error_number;
    return FALSE;
  }
  if (!start_thread()) {
    producer_config_free();
    errno = EAGAIN;
    return FALSE;
  }
  warn_of_long_names();
  remove_leftover();
  return TRUE;
}

/**
 * producer_config_free:
 *
 * Undoes producer_config_setup(). Waits for pending saves; does not retry a failed one. Must be called after
 * all other functions.
 */
void
producer_config_free(void)
{
  end_thread();
  stop_retrying();
  g_clear_pointer(&config.key_file, g_key_file_unref);
  g_mutex_clear(&config.lock);
}

/**
 * producer_config_get_name:
 * @producer: (transfer none): a producer's name
 * @channel: a video channel, from 1
 *
 * The installed GLib decides about a name with an unknown escape sequence: it returns the sequence unchanged,
 * or no name.
 *
 * Returns: (transfer full) (nullable): the configuration name, never empty; %NULL when the producer is not
 *   enabled on the channel
 */
gchar *
producer_config_get_name(const gchar *producer, guint32 channel)
{
  g_return_val_if_fail(producer != NULL, nullptr);

  g_autofree gchar *group = format_group(producer, channel);
  g_autofree gchar *name = nullptr;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);
    name = g_key_file_get_string(config.key_file, group, NAME_KEY, nullptr);
  }

  return name != nullptr && *name != '\0' ? g_steal_pointer(&name) : nullptr;
}

/**
 * producer_config_set_name:
 * @producer: (transfer none): a producer's name
 * @channel: a video channel, from 1
 * @name: (transfer none) (nullable): the configuration name under which to enable the producer, or %NULL to
 *   disable it. An empty name is stored like %NULL, and so reads as disabled at the next start.
 *
 * Changes one channel in memory, and queues a save of the whole file. Does not wait for the save; see
 * producer_config_call_when_saved(). If the save fails, the change stays in memory, and the next save writes
 * it: that of another change, or the retry, every #PRODUCER_CONFIG_RETRY_SECONDS. A producer that cannot be
 * part of a group's name, or a name that is not UTF-8, changes nothing. Form feeds at the beginning of @name
 * are lost in the file: GLib does not escape them, and skips them when it reads.
 *
 * Infos: "wrote to producerconfig what could not be written before", when a retry succeeds
 *
 * Warnings: "could not write name to producerconfig: %s"
 */
void
producer_config_set_name(const gchar *producer, guint32 channel, const gchar *name)
{
  g_return_if_fail(producer != NULL);

  g_autoptr(GError) error = nullptr;
  g_autofree gchar *group = format_group(producer, channel);
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);
    if (set_value(group, name != nullptr ? name : "", &error)) {
      queue_save(JobKind::SAVE_CHANGE);
      return;
    }
  }
  syslog(LOG_WARNING, "could not write name to producerconfig: %s", error->message);
}

/**
 * producer_config_call_when_saved:
 * @function: called once, in the default main context; its result is ignored
 * @user_data: for @function
 *
 * Calls @function when the saves of all earlier changes have succeeded or failed. Until then the source can
 * be removed, also after producer_config_free().
 *
 * Returns: the id of the source, greater than 0
 */
guint
producer_config_call_when_saved(GSourceFunc function, gpointer user_data)
{
  g_return_val_if_fail(function != NULL, 0);

  GSource *source = g_source_new(&notify_source_funcs, sizeof(GSource));
  g_source_set_callback(source, function, user_data, nullptr);
  const guint id = g_source_attach(source, nullptr);
  queue_job(JobKind::NOTIFY, source);
  return id;
}

/**
 * producer_config_get_supported_channels:
 * @producer: (transfer none): a built-in producer's name
 *
 * Reads the producer's groups.
 *
 * Warnings: "invalid format of group in producers.conf: %s" for each group of the producer with a malformed
 * index, which is skipped
 *
 * Returns: (transfer full) (element-type guint32): the video channels, from 1, in the order of the file;
 *   possibly none
 */
GArray *
producer_config_get_supported_channels(const gchar *producer)
{
  g_return_val_if_fail(producer != NULL, nullptr);

  GArray *channels = g_array_new(TRUE, TRUE, sizeof(guint32));
  g_autofree gchar *suffix = g_strconcat(".", producer, nullptr);
  g_auto(GStrv) groups = nullptr;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&config.lock);

  groups = g_key_file_get_groups(config.key_file, nullptr);
  for (gchar **group = groups; *group != nullptr; group++) {
    if (!g_str_has_suffix(*group, suffix)) {
      continue;
    }
    const guint32 channel = parse_channel(*group);
    if (channel == 0) {
      syslog(LOG_WARNING, "invalid format of group in producers.conf: %s", *group);
      continue;
    }
    g_array_append_val(channels, channel);
  }
  return channels;
}

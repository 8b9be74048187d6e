/* SPDX-License-Identifier: MIT */
#include "faults.h"

#include "connectionmanager.h"
#include "requestreader.h"
#include "testhost.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <gio/gio.h>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>
#include <utility>

namespace
{

std::mutex lock;
/* The values are how many calls succeed before the one that fails. */
std::map<faults::Call, unsigned> failing_calls;
std::map<int, unsigned> failing_closes;
std::set<std::string> failing_signals;
std::atomic<int> accept_error_number = 0;
std::atomic<unsigned> accept_count = 0;
std::optional<std::vector<std::string>> file_calls;
std::atomic<unsigned> request_time_divisor = 1;
std::atomic<unsigned> read_calls = 0;
std::function<void()> bus_watch_hook;
std::function<void()> empty_read_hook;
std::function<void()> flush_hook;
std::function<void()> fsync_hook;
std::function<void(gint64)> rest_hook;
gint64 stopped_clock_us;
std::atomic<bool> rests_are_endless = false;
thread_local gint64 spent_us;
thread_local std::function<void()> unlock_hook;

struct TimeOut {
  guint id;
  guint seconds;
};

/* Empty while seconds are not shortened. */
std::optional<std::vector<TimeOut>> short_time_outs;

template <typename Key>
bool
take_failure_of(std::map<Key, unsigned> *failing, Key key)
{
  std::lock_guard guard(lock);
  const auto found = failing->find(key);

  if (found == failing->end() || found->second-- > 0) {
    return false;
  }
  failing->erase(found);
  return true;
}

bool
take_failure(faults::Call call)
{
  return take_failure_of(&failing_calls, call);
}

bool
take_signal_failure(const gchar *signal)
{
  std::lock_guard guard(lock);

  return failing_signals.erase(signal) > 0;
}

void
keep_file_call(const std::string &name, const std::string &argument)
{
  std::lock_guard guard(lock);

  if (file_calls.has_value()) {
    file_calls->push_back(name + " " + argument);
  }
}

void
run_once(std::function<void()> *hook)
{
  std::function<void()> taken;
  {
    std::lock_guard guard(lock);
    taken = std::exchange(*hook, nullptr);
  }
  if (taken) {
    taken();
  }
}

/* Returns the result of a read. */
ssize_t
run_after_empty_read(ssize_t size)
{
  std::function<void()> hook;

  if (size >= 0 || errno != EAGAIN) {
    return size;
  }
  {
    std::lock_guard guard(lock);
    hook = empty_read_hook;
  }
  if (hook) {
    hook();
  }
  errno = EAGAIN;
  return size;
}

} // namespace

namespace faults
{

void
fail_next(Call call, unsigned skipped)
{
  std::lock_guard guard(lock);

  failing_calls[call] = skipped;
}

void
fail_close_of(int fd, unsigned skipped)
{
  std::lock_guard guard(lock);

  failing_closes[fd] = skipped;
}

void
fail_next_connection_to(const std::string &signal)
{
  std::lock_guard guard(lock);

  failing_signals.insert(signal);
}

Accepts::Accepts(int error_number)
{
  accept_error_number = error_number;
  accept_count = 0;
}

Accepts::~Accepts()
{
  accept_error_number = 0;
}

unsigned
Accepts::count() const
{
  return accept_count;
}

void
keep_file_calls()
{
  std::lock_guard guard(lock);

  file_calls.emplace();
}

std::vector<std::string>
take_file_calls()
{
  std::lock_guard guard(lock);

  return std::exchange(file_calls, std::nullopt).value_or(std::vector<std::string>());
}

gsize
file_calls_size()
{
  std::lock_guard guard(lock);

  return file_calls.has_value() ? file_calls->size() : 0;
}

unsigned
read_call_count()
{
  return read_calls;
}

void
divide_request_time(unsigned divisor)
{
  request_time_divisor = divisor;
}

void
after_next_bus_watch(std::function<void()> hook)
{
  std::lock_guard guard(lock);

  bus_watch_hook = std::move(hook);
}

void
after_next_unlock(std::function<void()> hook)
{
  unlock_hook = std::move(hook);
}

void
before_next_fsync(std::function<void()> hook)
{
  std::lock_guard guard(lock);

  fsync_hook = std::move(hook);
}

struct HeldSync::State {
  std::atomic<bool> held = false;
  std::atomic<bool> released = false;
};

HeldSync::HeldSync() : state_(std::make_shared<State>())
{
  before_next_fsync([state = state_] {
    state->held = true;
    state->released.wait(false);
  });
}

HeldSync::~HeldSync()
{
  if (!is_holding()) {
    before_next_fsync(nullptr);
  }
  release();
}

bool
HeldSync::is_holding() const
{
  return state_->held;
}

bool
HeldSync::wait() const
{
  const gint64 end = g_get_monotonic_time() + testhost::SPIN_LIMIT_US;

  while (!is_holding() && g_get_monotonic_time() < end) {
    std::this_thread::yield();
  }
  return is_holding();
}

void
HeldSync::release()
{
  state_->released = true;
  state_->released.notify_all();
}

void
after_next_flush(std::function<void()> hook)
{
  std::lock_guard guard(lock);

  flush_hook = std::move(hook);
}

void
after_empty_reads(std::function<void()> hook)
{
  std::lock_guard guard(lock);

  empty_read_hook = std::move(hook);
}

Rests::Rests(std::function<void(gint64 us)> rest)
{
  const gint64 now_us = g_get_monotonic_time();
  std::lock_guard guard(lock);

  stopped_clock_us = now_us;
  rest_hook = std::move(rest);
}

Rests::~Rests()
{
  std::lock_guard guard(lock);

  rest_hook = nullptr;
}

void
Rests::spend(gint64 us)
{
  spent_us += us;
}

EndlessRests::EndlessRests()
{
  rests_are_endless = true;
}

EndlessRests::~EndlessRests()
{
  rests_are_endless = false;
}

ShortSeconds::ShortSeconds()
{
  std::lock_guard guard(lock);

  short_time_outs.emplace();
}

ShortSeconds::~ShortSeconds()
{
  std::lock_guard guard(lock);

  short_time_outs.reset();
}

std::vector<unsigned>
ShortSeconds::begun() const
{
  std::lock_guard guard(lock);
  std::vector<unsigned> lengths;

  for (const TimeOut &time_out : *short_time_outs) {
    lengths.push_back(time_out.seconds);
  }
  return lengths;
}

unsigned
ShortSeconds::count() const
{
  std::lock_guard guard(lock);

  return std::ranges::count_if(*short_time_outs, [](const TimeOut &time_out) {
    return g_main_context_find_source_by_id(nullptr, time_out.id) != nullptr;
  });
}

} // namespace faults

/* The linker requires these names and that they are visible. */
#pragma GCC visibility push(default)
extern "C" {

int __real_accept4(int fd, sockaddr *address, socklen_t *length, int flags);
int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags);
int __real_close(int fd);
int __wrap_close(int fd);
int __real_fsync(int fd);
int __wrap_fsync(int fd);
int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog);
/* The name of open() with 64-bit offsets. */
int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
/* The name of preadv2() with 64-bit offsets. */
ssize_t __real_preadv64v2(int fd, const iovec *pieces, int count, off_t offset, int flags);
ssize_t __wrap_preadv64v2(int fd, const iovec *pieces, int count, off_t offset, int flags);
ssize_t __real_recv(int fd, void *buf, size_t count, int flags);
ssize_t __wrap_recv(int fd, void *buf, size_t count, int flags);
ssize_t __real_recvmsg(int fd, msghdr *message, int flags);
ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags);
ssize_t __real_splice(int from, off_t *from_offset, int to, off_t *to_offset, size_t count, unsigned flags);
ssize_t __wrap_splice(int from, off_t *from_offset, int to, off_t *to_offset, size_t count, unsigned flags);
ssize_t __real_vmsplice(int fd, const iovec *pieces, size_t count, unsigned flags);
ssize_t __wrap_vmsplice(int fd, const iovec *pieces, size_t count, unsigned flags);
void __real_g_dbus_method_invocation_return_value(GDBusMethodInvocation *invocation, GVariant *value);
void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation *invocation, GVariant *value);
int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
guint __real_gst_bus_add_watch_full(GstBus *bus, gint priority, GstBusFunc function, gpointer user_data,
                                    GDestroyNotify notify);
guint __wrap_gst_bus_add_watch_full(GstBus *bus, gint priority, GstBusFunc function, gpointer user_data,
                                    GDestroyNotify notify);
GstElement *__real_gst_pipeline_new(const gchar *name);
GstElement *__wrap_gst_pipeline_new(const gchar *name);
guint __real_g_io_add_watch_full(GIOChannel *channel, gint priority, GIOCondition condition, GIOFunc function,
                                 gpointer user_data, GDestroyNotify notify);
guint __wrap_g_io_add_watch_full(GIOChannel *channel, gint priority, GIOCondition condition, GIOFunc function,
                                 gpointer user_data, GDestroyNotify notify);
GIOStatus __real_g_io_channel_flush(GIOChannel *channel, GError **error);
GIOStatus __wrap_g_io_channel_flush(GIOChannel *channel, GError **error);
GIOStatus __real_g_io_channel_set_encoding(GIOChannel *channel, const gchar *encoding, GError **error);
GIOStatus __wrap_g_io_channel_set_encoding(GIOChannel *channel, const gchar *encoding, GError **error);
gulong __real_g_signal_connect_data(gpointer instance, const gchar *signal, GCallback handler,
                                    gpointer user_data, GClosureNotify destroy, GConnectFlags flags);
gulong __wrap_g_signal_connect_data(gpointer instance, const gchar *signal, GCallback handler,
                                    gpointer user_data, GClosureNotify destroy, GConnectFlags flags);
gulong __real_g_signal_connect_object(gpointer instance, const gchar *signal, GCallback handler,
                                      gpointer object, GConnectFlags flags);
gulong __wrap_g_signal_connect_object(gpointer instance, const gchar *signal, GCallback handler,
                                      gpointer object, GConnectFlags flags);
guint __real_g_timeout_add_seconds(guint seconds, GSourceFunc function, gpointer user_data);
guint __wrap_g_timeout_add_seconds(guint seconds, GSourceFunc function, gpointer user_data);
gboolean __real_g_cond_wait_until(GCond *cond, GMutex *mutex, gint64 end_time);
gboolean __wrap_g_cond_wait_until(GCond *cond, GMutex *mutex, gint64 end_time);
gint64 __real_g_get_monotonic_time(void);
gint64 __wrap_g_get_monotonic_time(void);
void __real_g_mutex_unlock(GMutex *mutex);
void __wrap_g_mutex_unlock(GMutex *mutex);
gpointer __real_g_try_malloc(gsize size);
gpointer __wrap_g_try_malloc(gsize size);
GThread *__real_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error);
GThread *__wrap_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error);
GThreadPool *__real_g_thread_pool_new_full(GFunc function, gpointer user_data, GDestroyNotify item_free,
                                           gint max_threads, gboolean exclusive, GError **error);
GThreadPool *__wrap_g_thread_pool_new_full(GFunc function, gpointer user_data, GDestroyNotify item_free,
                                           gint max_threads, gboolean exclusive, GError **error);
gboolean __real_g_thread_pool_push(GThreadPool *pool, gpointer item, GError **error);
gboolean __wrap_g_thread_pool_push(GThreadPool *pool, gpointer item, GError **error);
ConnectionManager *__real_connection_manager_new(GList *src_lists, int fd);
TESTHOST_REPLACEMENT ConnectionManager *__wrap_connection_manager_new(GList *src_lists, int fd);
RequestReader *__real_request_reader_new(int fd, gsize max_bytes, guint timeout_ms, RequestReaderFunc on_end,
                                         gpointer user_data);
RequestReader *__wrap_request_reader_new(int fd, gsize max_bytes, guint timeout_ms, RequestReaderFunc on_end,
                                         gpointer user_data);

int
__wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
  const int error_number = accept_error_number;

  accept_count++;
  if (error_number != 0) {
    errno = error_number;
    return -1;
  }
  return __real_accept4(fd, address, length, flags);
}

int
__wrap_close(int fd)
{
  keep_file_call("close", std::to_string(fd));
  const bool fails = take_failure_of(&failing_closes, fd);
  const int result = __real_close(fd);

  if (fails) {
    errno = EIO;
    return -1;
  }
  return result;
}

int
__wrap_fsync(int fd)
{
  keep_file_call("fsync", std::to_string(fd));
  run_once(&fsync_hook);
  if (take_failure(faults::Call::FSYNC)) {
    errno = EIO;
    return -1;
  }
  return __real_fsync(fd);
}

void
__wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation *invocation, GVariant *value)
{
  keep_file_call("reply", g_dbus_method_invocation_get_method_name(invocation));
  __real_g_dbus_method_invocation_return_value(invocation, value);
}

int
__wrap_rename(const char *from, const char *to)
{
  keep_file_call("rename", to);
  return __real_rename(from, to);
}

int
__wrap_listen(int fd, int backlog)
{
  if (take_failure(faults::Call::LISTEN)) {
    errno = EADDRINUSE;
    return -1;
  }
  return __real_listen(fd, backlog);
}

int
__wrap_open64(const char *path, int flags, ...)
{
  keep_file_call("open", path);
  if (take_failure(faults::Call::OPEN)) {
    errno = EMFILE;
    return -1;
  }

  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return __real_open64(path, flags, mode);
}

ssize_t
__wrap_preadv64v2(int fd, const iovec *pieces, int count, off_t offset, int flags)
{
  read_calls++;
  return run_after_empty_read(__real_preadv64v2(fd, pieces, count, offset, flags));
}

ssize_t
__wrap_recv(int fd, void *buf, size_t count, int flags)
{
  read_calls++;
  return __real_recv(fd, buf, count, flags);
}

ssize_t
__wrap_recvmsg(int fd, msghdr *message, int flags)
{
  read_calls++;
  return run_after_empty_read(__real_recvmsg(fd, message, flags));
}

ssize_t
__wrap_splice(int from, off_t *from_offset, int to, off_t *to_offset, size_t count, unsigned flags)
{
  read_calls++;
  return run_after_empty_read(__real_splice(from, from_offset, to, to_offset, count, flags));
}

ssize_t
__wrap_vmsplice(int fd, const iovec *pieces, size_t count, unsigned flags)
{
  read_calls++;
  return run_after_empty_read(__real_vmsplice(fd, pieces, count, flags));
}

guint
__wrap_gst_bus_add_watch_full(GstBus *bus, gint priority, GstBusFunc function, gpointer user_data,
                              GDestroyNotify notify)
{
  const guint id = __real_gst_bus_add_watch_full(bus, priority, function, user_data, notify);

  run_once(&bus_watch_hook);
  return id;
}

GstElement *
__wrap_gst_pipeline_new(const gchar *name)
{
  return take_failure(faults::Call::PIPELINE_NEW) ? nullptr : __real_gst_pipeline_new(name);
}

guint
__wrap_g_io_add_watch_full(GIOChannel *channel, gint priority, GIOCondition condition, GIOFunc function,
                           gpointer user_data, GDestroyNotify notify)
{
  return take_failure(faults::Call::IO_ADD_WATCH)
             ? 0
             : __real_g_io_add_watch_full(channel, priority, condition, function, user_data, notify);
}

GIOStatus
__wrap_g_io_channel_flush(GIOChannel *channel, GError **error)
{
  const GIOStatus status = __real_g_io_channel_flush(channel, error);

  run_once(&flush_hook);
  return status;
}

GIOStatus
__wrap_g_io_channel_set_encoding(GIOChannel *channel, const gchar *encoding, GError **error)
{
  if (take_failure(faults::Call::IO_CHANNEL_SET_ENCODING)) {
    g_set_error_literal(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_FAILED, "No such encoding");
    return G_IO_STATUS_ERROR;
  }
  return __real_g_io_channel_set_encoding(channel, encoding, error);
}

gulong
__wrap_g_signal_connect_data(gpointer instance, const gchar *signal, GCallback handler, gpointer user_data,
                             GClosureNotify destroy, GConnectFlags flags)
{
  return take_signal_failure(signal)
             ? 0
             : __real_g_signal_connect_data(instance, signal, handler, user_data, destroy, flags);
}

gulong
__wrap_g_signal_connect_object(gpointer instance, const gchar *signal, GCallback handler, gpointer object,
                               GConnectFlags flags)
{
  return take_signal_failure(signal)
             ? 0
             : __real_g_signal_connect_object(instance, signal, handler, object, flags);
}

guint
__wrap_g_timeout_add_seconds(guint seconds, GSourceFunc function, gpointer user_data)
{
  std::lock_guard guard(lock);

  if (!short_time_outs.has_value()) {
    return __real_g_timeout_add_seconds(seconds, function, user_data);
  }
  const guint id = g_timeout_add(seconds, function, user_data);
  short_time_outs->push_back({id, seconds});
  return id;
}

gboolean
__wrap_g_cond_wait_until(GCond *cond, GMutex *mutex, gint64 end_time)
{
  if (rests_are_endless) {
    g_cond_wait(cond, mutex);
    return TRUE;
  }

  const gint64 us = end_time - g_get_monotonic_time();
  std::function<void(gint64)> rest;
  {
    std::lock_guard guard(lock);
    rest = rest_hook;
  }
  if (!rest) {
    return __real_g_cond_wait_until(cond, mutex, end_time);
  }
  faults::Rests::spend(us);
  g_mutex_unlock(mutex);
  rest(us);
  g_mutex_lock(mutex);
  return FALSE;
}

gint64
__wrap_g_get_monotonic_time(void)
{
  std::lock_guard guard(lock);

  return rest_hook ? stopped_clock_us + spent_us : __real_g_get_monotonic_time();
}

void
__wrap_g_mutex_unlock(GMutex *mutex)
{
  __real_g_mutex_unlock(mutex);
  if (unlock_hook) {
    std::exchange(unlock_hook, nullptr)();
  }
}

gpointer
__wrap_g_try_malloc(gsize size)
{
  return take_failure(faults::Call::TRY_MALLOC) ? nullptr : __real_g_try_malloc(size);
}

GThread *
__wrap_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error)
{
  if (take_failure(faults::Call::THREAD_NEW)) {
    g_set_error_literal(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "No more threads");
    return nullptr;
  }
  return __real_g_thread_try_new(name, func, data, error);
}

GThreadPool *
__wrap_g_thread_pool_new_full(GFunc function, gpointer user_data, GDestroyNotify item_free, gint max_threads,
                              gboolean exclusive, GError **error)
{
  GThreadPool *pool =
      __real_g_thread_pool_new_full(function, user_data, item_free, max_threads, exclusive, error);

  if (take_failure(faults::Call::THREAD_POOL_NEW)) {
    g_set_error_literal(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "No more threads");
  }
  return pool;
}

gboolean
__wrap_g_thread_pool_push(GThreadPool *pool, gpointer item, GError **error)
{
  if (take_failure(faults::Call::THREAD_POOL_PUSH)) {
    g_set_error_literal(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "No more threads");
    return FALSE;
  }
  return __real_g_thread_pool_push(pool, item, error);
}

ConnectionManager *
__wrap_connection_manager_new(GList *src_lists, int fd)
{
  return take_failure(faults::Call::CONNECTION_MANAGER_NEW) ? nullptr
                                                            : __real_connection_manager_new(src_lists, fd);
}

RequestReader *
__wrap_request_reader_new(int fd, gsize max_bytes, guint timeout_ms, RequestReaderFunc on_end,
                          gpointer user_data)
{
  return __real_request_reader_new(fd, max_bytes, timeout_ms / request_time_divisor, on_end, user_data);
}
}
#pragma GCC visibility pop

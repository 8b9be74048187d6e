/* SPDX-License-Identifier: MIT */
#include "selftest.h"

#include <array>
#include <gio/gio.h>
#include <glib-unix.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr guint64 LIMIT_USEC = 10 * G_USEC_PER_SEC;

int value;

void
add()
{
  value++;
}

constexpr auto NOTHING = [] {};

void
use_pool(void (*after_push)())
{
  GThreadPool *pool = g_thread_pool_new([](gpointer item, gpointer) { ++*static_cast<int *>(item); }, nullptr,
                                        1, TRUE, nullptr);
  add();
  g_thread_pool_push(pool, &value, nullptr);
  after_push();
  g_thread_pool_free(pool, FALSE, TRUE);
  add();
}

void
use_queue(void (*after_push)())
{
  g_autoptr(GAsyncQueue) queue = g_async_queue_new();
  Thread thread([&] {
    add();
    g_async_queue_push(queue, &value);
    after_push();
  });
  ++*static_cast<int *>(g_async_queue_timeout_pop(queue, LIMIT_USEC));
}

void
set_up_once()
{
  static gsize once;
  if (g_once_init_enter(&once)) {
    add();
    g_once_init_leave(&once, 1);
  }
  g_assert_cmpint(value, ==, 1);
}

GMainLoop *
get_loop()
{
  static GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  return loop;
}

void
add_and_quit()
{
  add();
  g_main_loop_quit(get_loop());
}

// Runs a main loop, which starts another thread; the work of that thread quits the loop.
void
run_loop_beside(void (*work)(), void (*after_loop)())
{
  std::unique_ptr<Thread> thread;
  auto start = [&] { thread = std::make_unique<Thread>(work); };
  g_idle_add_once([](gpointer data) { (*static_cast<decltype(start) *>(data))(); }, &start);
  g_main_loop_run(get_loop());
  after_loop();
}

gboolean
on_source(gpointer)
{
  add_and_quit();
  return G_SOURCE_REMOVE;
}

void
add_idle()
{
  add();
  g_idle_add(on_source, nullptr);
}

void
add_timeout()
{
  add();
  g_timeout_add(1, on_source, nullptr);
}

void
add_descriptor_watch()
{
  add();
  g_unix_fd_add(
      STDERR_FILENO, G_IO_OUT, [](gint, GIOCondition, gpointer) { return on_source(nullptr); }, nullptr);
}

void
add_channel_watch()
{
  add();
  g_autoptr(GIOChannel) channel = g_io_channel_unix_new(STDERR_FILENO);
  g_io_add_watch(
      channel, G_IO_OUT, [](GIOChannel *, GIOCondition, gpointer) { return on_source(nullptr); }, nullptr);
}

void
attach_source()
{
  g_autoptr(GSource) source = g_idle_source_new();
  g_source_set_callback(source, on_source, nullptr, nullptr);
  add();
  g_source_attach(source, nullptr);
}

// Another thread sets the source's ready time.
void
make_source_ready(void (*after_ready)())
{
  static GSourceFuncs funcs = {nullptr,
                               nullptr,
                               [](GSource *, GSourceFunc function, gpointer data) -> gboolean { return function(data); },
                               nullptr,
                               nullptr,
                               nullptr};
  g_autoptr(GSource) source = g_source_new(&funcs, sizeof(GSource));
  g_source_set_callback(source, on_source, nullptr, nullptr);
  g_source_attach(source, nullptr);
  Thread thread([&] {
    add();
    g_source_set_ready_time(source, 0);
    after_ready();
  });
  g_main_loop_run(get_loop());
}

void
invoke()
{
  add();
  g_main_context_invoke(nullptr, on_source, nullptr);
}

void
wake_up()
{
  static std::atomic<bool> woken;
  Thread thread([] {
    add();
    g_main_context_wakeup(nullptr);
    woken.store(true, std::memory_order_relaxed);
  });
  wait_unseen(woken);
  g_main_context_iteration(nullptr, FALSE);
  add();
}

// The other end is closed, so a call fails. Its callback still runs in the main context.
GDBusConnection *
make_connection()
{
  std::array<int, 2> ends;
  g_assert_cmpint(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), ==, 0);
  close(ends[1]);
  g_autoptr(GSocket) socket = g_socket_new_from_fd(ends[0], nullptr);
  g_autoptr(GSocketConnection) stream = g_socket_connection_factory_create_connection(socket);
  return g_dbus_connection_new_sync(G_IO_STREAM(stream), nullptr, G_DBUS_CONNECTION_FLAGS_NONE, nullptr,
                                    nullptr, nullptr);
}

// Never released: its release would order the threads.
GDBusConnection *
get_connection()
{
  static GDBusConnection *connection = make_connection();
  return connection;
}

// The callback waits, unseen, until the other thread has ended its part: nothing that the library does after
// the call can order the threads.
void
call_on_bus(void (*after_call)())
{
  static std::atomic<bool> called;
  get_connection();
  auto work = [after_call] {
    add();
    g_dbus_connection_call_with_unix_fd_list(
        get_connection(), nullptr, "/", "com.quon.Test", "Call", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr,
        [](GObject *, GAsyncResult *, gpointer) {
          wait_unseen(called);
          add_and_quit();
        },
        nullptr);
    after_call();
    called.store(true, std::memory_order_relaxed);
  };
  Thread thread(work);
  g_main_loop_run(get_loop());
}

// A thread that is never joined hands over through the main context.
void
start_thread()
{
  auto work = [](gpointer) -> gpointer {
    add_idle();
    return nullptr;
  };
  add();
  g_thread_unref(g_thread_try_new("unjoined", work, nullptr, nullptr));
}

// After the callback has run on this thread, another thread removes its source and frees its data.
void
remove_elsewhere()
{
  auto *data = new int(0);
  guint id = g_timeout_add_full(
      G_PRIORITY_DEFAULT, 1,
      [](gpointer user_data) -> gboolean {
        ++*static_cast<int *>(user_data);
        g_main_loop_quit(get_loop());
        return G_SOURCE_CONTINUE;
      },
      data, [](gpointer user_data) { delete static_cast<int *>(user_data); });
  static std::atomic<bool> ran;
  Thread thread([id] {
    wait_unseen(ran);
    g_source_remove(id);
  });
  g_main_loop_run(get_loop());
  ran.store(true, std::memory_order_relaxed);
}

// Another thread removes the watch while its callback runs, so the callback's thread frees the data.
void
remove_while_dispatched(void (*after_removal)(int *data))
{
  static std::atomic<bool> running;
  static std::atomic<bool> removed;
  g_autoptr(GIOChannel) channel = g_io_channel_unix_new(STDERR_FILENO);
  auto *data = new int(0);
  guint id = g_io_add_watch_full(
      channel, G_PRIORITY_DEFAULT, G_IO_OUT,
      [](GIOChannel *, GIOCondition, gpointer user_data) -> gboolean {
        running.store(true, std::memory_order_relaxed);
        wait_unseen(removed);
        ++*static_cast<int *>(user_data);
        return G_SOURCE_CONTINUE;
      },
      data,
      [](gpointer user_data) {
        delete static_cast<int *>(user_data);
        g_main_loop_quit(get_loop());
      });
  Thread thread([&] {
    wait_unseen(running);
    g_source_remove(id);
    removed.store(true, std::memory_order_relaxed);
    after_removal(data);
  });
  g_main_loop_run(get_loop());
}

// Two threads hold the data; the last one to release it frees it.
void
hold_on_two_threads(void (*after_release)(int *data))
{
  struct Held {
    gint holders = 2;
    int *data = new int(0);
  } held;
  auto use_and_release = [&] {
    int *data = held.data;
    g_atomic_int_add(data, 1);
    if (g_atomic_int_dec_and_test(&held.holders))
      delete data;
    after_release(data);
  };
  Thread thread(use_and_release), other_thread(use_and_release);
}

// The thread that drops the last reference reads and frees the state.
struct Thing {
  GObject parent;
  int *value;
};

struct ThingClass {
  GObjectClass parent_class;
};

G_DEFINE_TYPE(Thing, thing, G_TYPE_OBJECT)

void
thing_finalize(GObject *object)
{
  auto *self = reinterpret_cast<Thing *>(object);
  g_assert_cmpint(*self->value, >, 0);
  delete self->value;
  G_OBJECT_CLASS(thing_parent_class)->finalize(object);
}

void
thing_init(Thing *self)
{
  self->value = new int(1);
}

void
thing_class_init(ThingClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = thing_finalize;
}

Thing *
thing_new()
{
  return static_cast<Thing *>(g_object_new(thing_get_type(), nullptr));
}

void
drop_on_two_threads()
{
  Thing *thing = thing_new();
  g_object_ref(thing);
  Thread thread([thing] {
    ++*thing->value;
    g_object_unref(thing);
  });
  g_object_unref(thing);
}

void
drop_under_another_thread()
{
  Thing *thing = thing_new();
  Thread thread([thing] { ++*thing->value; });
  g_object_unref(thing);
}

void
use_class_set_up_elsewhere()
{
  static std::atomic<bool> set_up;
  Thread thread([] {
    g_object_unref(thing_new());
    set_up.store(true, std::memory_order_relaxed);
  });
  wait_unseen(set_up);
  g_object_unref(thing_new());
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    HandOvers, SelfTest,
    testing::Values(
        Case{"PoolAndBack", [] { use_pool(NOTHING); }, NO_REPORT},
        Case{"TouchedAfterPush", [] { use_pool(add); }, RACE},
        Case{"Queue", [] { use_queue(NOTHING); }, NO_REPORT},
        Case{"TouchedAfterQueuePush", [] { use_queue(add); }, RACE},
        Case{"Once", [] { Thread thread(set_up_once), other_thread(set_up_once); }, NO_REPORT},
        Case{"Idle", [] { run_loop_beside(add_idle, NOTHING); }, NO_REPORT},
        Case{"TouchedAfterIdle", [] { run_loop_beside([] { add_idle(), add(); }, NOTHING); }, RACE},
        Case{"Timeout", [] { run_loop_beside(add_timeout, NOTHING); }, NO_REPORT},
        Case{"DescriptorWatch", [] { run_loop_beside(add_descriptor_watch, NOTHING); }, NO_REPORT},
        Case{"ChannelWatch", [] { run_loop_beside(add_channel_watch, NOTHING); }, NO_REPORT},
        Case{"Source", [] { run_loop_beside(attach_source, NOTHING); }, NO_REPORT},
        Case{"TouchedAfterAttach", [] { run_loop_beside([] { attach_source(), add(); }, NOTHING); }, RACE},
        Case{"ReadySource", [] { make_source_ready(NOTHING); }, NO_REPORT},
        Case{"TouchedAfterReadyTime", [] { make_source_ready(add); }, RACE},
        Case{"Invoke", [] { run_loop_beside(invoke, NOTHING); }, NO_REPORT},
        Case{"BusCall", [] { call_on_bus(NOTHING); }, NO_REPORT},
        Case{"TouchedAfterBusCall", [] { call_on_bus(add); }, RACE},
        Case{"UnjoinedThread", [] { run_loop_beside(start_thread, NOTHING); }, NO_REPORT},
        Case{"TouchedAfterUnjoinedThread", [] { run_loop_beside([] { start_thread(), add(); }, NOTHING); },
             RACE},
        Case{"Quit", [] { run_loop_beside(add_and_quit, add); }, NO_REPORT},
        Case{"TouchedAfterQuit", [] { run_loop_beside([] { add_and_quit(), add(); }, add); }, RACE},
        Case{"WakeUp", wake_up, NO_REPORT}, Case{"SourceRemovedElsewhere", remove_elsewhere, NO_REPORT},
        Case{"WatchRemovedWhileDispatched", [] { remove_while_dispatched([](int *) {}); }, NO_REPORT},
        Case{"TouchedAfterRemovalOfWatch", [] { remove_while_dispatched([](int *data) { ++*data; }); },
             RACE_OR_USE_AFTER_FREE},
        Case{"LastHolder", [] { hold_on_two_threads([](int *) {}); }, NO_REPORT},
        Case{"TouchedAfterRelease", [] { hold_on_two_threads([](int *data) { ++*data; }); },
             RACE_OR_USE_AFTER_FREE},
        Case{"LastReference", drop_on_two_threads, NO_REPORT},
        Case{"ReferenceOfAnother", drop_under_another_thread, RACE_OR_USE_AFTER_FREE},
        Case{"ClassSetUpElsewhere", use_class_set_up_elsewhere, NO_REPORT}),
    case_name);

/* SPDX-License-Identifier: MIT */
#include "testhost.h"

#include "ratelimitedlog.h"
#include "testlist.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gio/gio.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

namespace testhost
{
namespace
{

constexpr guint WATCHDOG_SECONDS = 200;
constexpr guint TICK_MS = 2;
constexpr gint64 ASLEEP_US = 20 * G_TIME_SPAN_MILLISECOND;
constexpr gsize MAX_LINE_BYTES = 128 * 1024;
constexpr int MAX_DESCRIPTORS = 1024;

/* The types of objects that a pipeline leaves when it is not released. */
constexpr const char *TRACERS = "leaks(filters=\"GstElement,GstPad,GstBus\")";

List<SyslogLine> syslog_lines;
List<std::string> debug_lines;
List<std::string> glib_messages;

void keep_syslog_line(int priority, const char *format, va_list args) G_GNUC_PRINTF(2, 0);

void
keep_syslog_line(int priority, const char *format, va_list args)
{
  std::string text(MAX_LINE_BYTES, '\0');
  const int length = vsnprintf(text.data(), text.size(), format, args);

  text.resize(std::min<gsize>(length, text.size() - 1));
  if (priority == LOG_DEBUG) {
    debug_lines.add(text);
  } else {
    syslog_lines.add({priority, text});
  }
}

void
on_glib_message(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer)
{
  /* GLib hides these by default. */
  if ((level & (G_LOG_LEVEL_DEBUG | G_LOG_LEVEL_INFO)) != 0) {
    return;
  }
  glib_messages.add(std::string(domain != nullptr ? domain : "") + ": " + message);
}

struct Sleep {
  bool asleep = false;
  std::string count; /* how often the thread has begun to sleep */

  bool operator==(const Sleep &) const = default;
};

Sleep
sleep_of(pid_t tid)
{
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  Sleep sleep;

  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("State:")) {
      sleep.asleep = line.find("S (sleeping)") != std::string::npos;
    } else if (line.starts_with("voluntary_ctxt_switches:")) {
      sleep.count = line;
    }
  }
  return sleep;
}

/* The tracer that records every GStreamer object. */
GstTracer *leaks_tracer;

void
start_tracing_objects()
{
  GList *tracers = gst_tracing_get_active_tracers();

  leaks_tracer = GST_TRACER(gst_object_ref(tracers->data));
  g_list_free_full(tracers, gst_object_unref);
  g_signal_emit_by_name(leaks_tracer, "activity-start-tracking");
}

void
count_objects(const GstStructure *activity, const char *list_name, int step,
              std::map<std::string, int> *counts)
{
  const GValue *list = gst_structure_get_value(activity, list_name);

  for (guint i = 0; i < gst_value_list_get_size(list); i++) {
    const GstStructure *entry = gst_value_get_structure(gst_value_list_get_value(list, i));
    const std::string type = gst_structure_get_string(entry, "type-name");
    (*counts)[type + " " + gst_structure_get_string(entry, "address")] += step;
  }
}

/* Source ids of a context increase by one, so two new ids enclose all those between them. */
guint
next_source_id()
{
  g_autoptr(GSource) source = g_idle_source_new();
  const guint id = g_source_attach(source, nullptr);

  g_source_destroy(source);
  return id;
}

std::set<guint>
sources_since(guint first_id)
{
  std::set<guint> left;
  const guint end_id = next_source_id();

  for (guint id = first_id; id < end_id; id++) {
    if (g_main_context_find_source_by_id(nullptr, id) != nullptr) {
      left.insert(id);
    }
  }
  return left;
}

template <typename T>
std::set<T>
added(const std::set<T> &before, const std::set<T> &after)
{
  std::set<T> difference;

  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::inserter(difference, difference.end()));
  return difference;
}

/* For the signal handler, which must not use a std::string. */
std::array<char, 256> running_test;

void
on_watchdog(int)
{
  constexpr std::string_view TEXT = "The watchdog ends a test that hangs: ";
  const gsize length = strlen(running_test.data());

  if (write(STDERR_FILENO, TEXT.data(), TEXT.size()) < 0 ||
      write(STDERR_FILENO, running_test.data(), length) < 0) {
    _exit(EXIT_FAILURE);
  }
  abort();
}

class Watchdog : public testing::EmptyTestEventListener
{
  void OnTestStart(const testing::TestInfo &info) override
  {
    g_snprintf(running_test.data(), running_test.size(), "%s.%s\n", info.test_suite_name(), info.name());
    alarm(WATCHDOG_SECONDS);
  }

  void OnTestEnd(const testing::TestInfo &) override
  {
    alarm(0);
  }
};

void
play_to_the_end(GstElement *pipeline)
{
  constexpr auto LAST_MESSAGES = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
  GstFlowReturn result = GST_FLOW_OK;

  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  g_signal_emit_by_name(source, "end-of-stream", &result);
  g_autoptr(GstMessage) last = gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, LAST_MESSAGES);
  gst_element_set_state(pipeline, GST_STATE_NULL);
}

/* GStreamer and GLib create some objects and threads once and keep them, for example clocks. Creates them
 * here, so that they do not count as left behind by the first test that needs them. */
void
warm_up()
{
  g_autoptr(GstElement) pipeline =
      gst_parse_launch("appsrc name=source ! queue ! fakesink sync=true", nullptr);

  g_main_context_iteration(nullptr, FALSE);
  play_to_the_end(pipeline);
  gst_element_call_async(
      pipeline, [](GstElement *, gpointer) {}, nullptr, nullptr);
  /* Waits for the other thread's reference. If that were the last one, its release would close descriptors
   * while the first test counts them. */
  while (GST_OBJECT_REFCOUNT_VALUE(pipeline) > 1) {
    g_thread_yield();
  }
}

} // namespace

std::ostream &
operator<<(std::ostream &stream, const SyslogLine &line)
{
  return stream << '<' << line.priority << '>' << testing::PrintToString(line.text);
}

SyslogLines
take_syslog()
{
  return syslog_lines.take();
}

Texts
take_debug_lines()
{
  return debug_lines.take();
}

gsize
syslog_size()
{
  return syslog_lines.size();
}

Texts
take_glib_messages()
{
  return glib_messages.take();
}

gsize
glib_messages_size()
{
  return glib_messages.size();
}

Texts
take_failed_preconditions()
{
  constexpr std::string_view BEGIN = ": assertion '";
  constexpr std::string_view END = "' failed";
  Texts expressions;

  for (const std::string &message : take_glib_messages()) {
    const gsize begin = message.find(BEGIN);
    if (!message.starts_with("tessard: ") || begin == std::string::npos || !message.ends_with(END)) {
      ADD_FAILURE() << "no failed precondition: " << message;
      continue;
    }
    const gsize first = begin + BEGIN.size();
    expressions.push_back(message.substr(first, message.size() - END.size() - first));
  }
  return expressions;
}

void
expect_unknown_property_warnings(gpointer object, const char *property)
{
  constexpr guint UNKNOWN_ID = 99;
  GObjectClass *object_class = G_OBJECT_GET_CLASS(object);
  GParamSpec *pspec = g_object_class_find_property(object_class, property);
  const bool writable = (pspec->flags & G_PARAM_WRITABLE) != 0;
  const std::string warning = std::string("invalid property id 99 for \"") + property + "\" of type '" +
                              G_OBJECT_TYPE_NAME(pspec) + "' in '" + G_OBJECT_TYPE_NAME(object) + "'";
  g_auto(GValue) value = G_VALUE_INIT;

  g_value_init(&value, pspec->value_type);
  if (writable) {
    object_class->set_property(G_OBJECT(object), UNKNOWN_ID, &value, pspec);
  }
  object_class->get_property(G_OBJECT(object), UNKNOWN_ID, &value, pspec);
  const Texts messages = take_glib_messages();
  EXPECT_EQ(messages.size(), writable ? 2U : 1U);
  for (const std::string &message : messages) {
    EXPECT_TRUE(message.ends_with(warning)) << message;
  }
}

bool
spin_until(const std::function<bool()> &condition, gint64 limit_us)
{
  const gint64 end = g_get_monotonic_time() + limit_us;
  /* The condition can become true without an event in the main context. */
  const guint tick = g_timeout_add(
      TICK_MS, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool holds = condition();

  while (!holds && g_get_monotonic_time() < end) {
    g_main_context_iteration(nullptr, TRUE);
    holds = condition();
  }
  g_source_remove(tick);
  return holds;
}

void
dispatch_ready()
{
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

bool
wait_until_asleep(pid_t tid)
{
  const gint64 end_us = g_get_monotonic_time() + SPIN_LIMIT_US;
  gint64 since_us = g_get_monotonic_time();
  Sleep last;

  while (g_get_monotonic_time() < end_us) {
    const Sleep sleep = sleep_of(tid);
    if (!sleep.asleep || sleep != last) {
      since_us = g_get_monotonic_time();
    } else if (g_get_monotonic_time() - since_us > ASLEEP_US) {
      return true;
    }
    last = sleep;
    g_thread_yield();
  }
  return false;
}

bool
IdleThreads::for_us(gint64 period_us)
{
  std::map<pid_t, std::string> sleeps;
  bool asleep = true;

  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    const pid_t tid = std::stoi(task.path().filename());
    if (tid != gettid()) {
      const Sleep sleep = sleep_of(tid);
      asleep = asleep && sleep.asleep;
      sleeps[tid] = sleep.count;
    }
  }
  const gint64 now_us = g_get_monotonic_time();
  if (!asleep || sleeps != sleeps_) {
    since_us_ = now_us;
  }
  sleeps_ = std::move(sleeps);
  return now_us - since_us_ >= period_us;
}

bool
wait_until_cancelled()
{
  GCancellable *cancellable = g_cancellable_get_current();
  GPollFD descriptor = {};

  if (!g_cancellable_make_pollfd(cancellable, &descriptor)) {
    return false;
  }
  g_poll(&descriptor, 1, SPIN_LIMIT_US / G_TIME_SPAN_MILLISECOND);
  g_cancellable_release_fd(cancellable);
  return g_cancellable_is_cancelled(cancellable);
}

std::set<int>
open_descriptors()
{
  std::set<int> open;

  for (int fd = 0; fd < MAX_DESCRIPTORS; fd++) {
    if (fcntl(fd, F_GETFD) >= 0) {
      open.insert(fd);
    }
  }
  return open;
}

FreeDescriptors::FreeDescriptors(rlim_t count)
{
  const std::set<int> taken = open_descriptors();
  struct rlimit limit = {};

  getrlimit(RLIMIT_NOFILE, &before_);
  limit = before_;
  /* The highest limit with this number of free descriptors: poll() checks the limit too. */
  limit.rlim_cur = 0;
  for (rlim_t left = count + 1; left > 0; limit.rlim_cur++) {
    left -= taken.contains(static_cast<int>(limit.rlim_cur)) ? 0 : 1;
  }
  limit.rlim_cur--;
  setrlimit(RLIMIT_NOFILE, &limit);
}

FreeDescriptors::~FreeDescriptors()
{
  setrlimit(RLIMIT_NOFILE, &before_);
}

gsize
count_threads()
{
  std::error_code error;

  return std::distance(std::filesystem::directory_iterator("/proc/self/task", error), {});
}

std::set<std::string>
live_objects()
{
  static std::map<std::string, int> counts;
  g_autoptr(GstStructure) activity = nullptr;
  std::set<std::string> live;

  g_signal_emit_by_name(leaks_tracer, "activity-get-checkpoint", &activity);
  count_objects(activity, "objects-created-list", 1, &counts);
  count_objects(activity, "objects-removed-list", -1, &counts);
  std::erase_if(counts, [](const auto &count) { return count.second == 0; });
  for (const auto &count : counts) {
    live.insert(count.first);
  }
  return live;
}

gsize
resident_bytes()
{
  gsize total = 0;
  gsize resident = 0;

  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

gint64
processor_time_us()
{
  timespec time = {};

  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return time.tv_sec * G_TIME_SPAN_SECOND + time.tv_nsec / 1000;
}

LatencyMeter::LatencyMeter()
    : source_id_(g_timeout_add(TICK_MS, on_tick, this)), last_us_(g_get_monotonic_time())
{
}

LatencyMeter::~LatencyMeter()
{
  g_source_remove(source_id_);
}

gint64
LatencyMeter::longest_us() const
{
  return std::max(longest_us_, g_get_monotonic_time() - last_us_);
}

gboolean
LatencyMeter::on_tick(gpointer user_data)
{
  auto *self = static_cast<LatencyMeter *>(user_data);
  const gint64 now = g_get_monotonic_time();

  self->longest_us_ = std::max(self->longest_us_, now - self->last_us_);
  self->last_us_ = now;
  return G_SOURCE_CONTINUE;
}

Observed::Observed(gpointer object)
{
  g_weak_ref_init(&object_, object);
}

Observed::~Observed()
{
  g_weak_ref_clear(&object_);
}

bool
Observed::alive() const
{
  g_autoptr(GObject) object = G_OBJECT(g_weak_ref_get(const_cast<GWeakRef *>(&object_)));

  return object != nullptr;
}

void
Fixture::SetUp()
{
  g_autoptr(GError) error = nullptr;
  g_autofree gchar *dir = g_dir_make_tmp("tessard-XXXXXX", &error);
  ASSERT_NE(dir, nullptr) << error->message;

  dir_ = dir;
  descriptors_ = open_descriptors();
  threads_ = count_threads();
  objects_ = live_objects();
  first_source_id_ = next_source_id();
}

void
Fixture::TearDown()
{
  dispatch_ready();
  rate_limited_log_flush();
  EXPECT_TRUE(spin_until([this] { return added(descriptors_, open_descriptors()).empty(); }))
      << "descriptors left: " << testing::PrintToString(added(descriptors_, open_descriptors()));
  EXPECT_TRUE(added(open_descriptors(), descriptors_).empty())
      << "descriptors closed: " << testing::PrintToString(added(open_descriptors(), descriptors_));
  EXPECT_TRUE(spin_until([this] { return added(objects_, live_objects()).empty(); }))
      << "objects left: " << testing::PrintToString(added(objects_, live_objects()));
  EXPECT_TRUE(spin_until([this] { return count_threads() <= threads_; })) << "threads left";

  EXPECT_EQ(sources_since(first_source_id_), std::set<guint>()) << "sources left in the main context";
  EXPECT_EQ(take_syslog(), SyslogLines()) << "lines that the test did not expect";
  take_debug_lines();
  EXPECT_EQ(take_glib_messages(), Texts()) << "messages that the test did not expect";

  std::error_code error;
  std::filesystem::remove_all(dir_, error);
  EXPECT_FALSE(error) << error.message();
}

const std::string &
Fixture::dir() const
{
  return dir_;
}

std::string
Fixture::path(const std::string &name) const
{
  return dir_ + "/" + name;
}

} // namespace testhost

/* These replace the functions of the C library, also for callers compiled with fortified headers. */
extern "C" {

void __syslog_chk(int priority, int flag, const char *format, ...) G_GNUC_PRINTF(3, 4);
void __vsyslog_chk(int priority, int flag, const char *format, va_list args) G_GNUC_PRINTF(3, 0);

void
syslog(int priority, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  testhost::keep_syslog_line(priority, format, args);
  va_end(args);
}

void
vsyslog(int priority, const char *format, va_list args)
{
  testhost::keep_syslog_line(priority, format, args);
}

void
__syslog_chk(int priority, int, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  testhost::keep_syslog_line(priority, format, args);
  va_end(args);
}

void
__vsyslog_chk(int priority, int, const char *format, va_list args)
{
  testhost::keep_syslog_line(priority, format, args);
}
}

int
main(int argc, char **argv)
{
  /* Only elements of GStreamer and of the tests are available, and no idle thread stays. */
  g_unsetenv("GST_PLUGIN_PATH");
  g_unsetenv("GST_PLUGIN_PATH_1_0");
  g_setenv("GST_TRACERS", testhost::TRACERS, TRUE);
  g_thread_pool_set_max_unused_threads(0);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGALRM, testhost::on_watchdog);

  gst_init(&argc, &argv);
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new testhost::Watchdog);
  testhost::start_tracing_objects();
  testhost::warm_up();
  g_log_set_default_handler(testhost::on_glib_message, nullptr);
  return RUN_ALL_TESTS();
}

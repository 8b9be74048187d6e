/* SPDX-License-Identifier: MIT */
#include "sampleframequeue.h"

#include "descriptorreserve.h"
#include "sampleframe.h"
#include "testhost.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

using testhost::spin_until;
using testhost::SyslogLines;
using testhost::Texts;

namespace
{

constexpr guint NEVER_MS = 1000 * G_MAXINT16;

std::mutex lock;
std::condition_variable changed;
bool held;
unsigned converting;
Texts converted;
std::vector<gpointer> begun; /* the conversions for which threads were made, in their order */
bool no_threads;
guint deadline_ms = NEVER_MS; /* in place of the real one */

std::string
xml_of(const std::string &json, const std::string &producer)
{
  return "<" + producer + ">" + json;
}

unsigned
count_converting()
{
  std::lock_guard guard(lock);

  return converting;
}

void
set_no_threads(bool none)
{
  std::lock_guard guard(lock);

  no_threads = none;
}

/* The converter holds its conversions while this object lives. */
class Hold
{
public:
  Hold()
  {
    set(true);
  }

  ~Hold()
  {
    set(false);
  }

  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

private:
  static void set(bool value)
  {
    {
      std::lock_guard guard(lock);
      held = value;
    }
    changed.notify_all();
  }
};

/* Conversions exceed their time while this object lives. */
class Deadline
{
public:
  Deadline()
  {
    deadline_ms = 1;
  }

  ~Deadline()
  {
    deadline_ms = NEVER_MS;
  }

  Deadline(const Deadline &) = delete;
  Deadline &operator=(const Deadline &) = delete;
};

/* The result of a conversion. */
struct Caller {
  SampleFrameConversion *conversion = nullptr;
  unsigned calls = 0;
  std::optional<std::string> xml;

  static void on_end(const gchar *xml, gpointer user_data)
  {
    auto *self = static_cast<Caller *>(user_data);

    self->calls++;
    self->xml = xml != nullptr ? std::optional<std::string>(xml) : std::nullopt;
  }

  void add(const std::string &json, const std::string &producer)
  {
    conversion = sample_frame_queue_add(g_strdup(json.c_str()), producer.c_str(), on_end, this);
  }
};

using Callers = std::vector<std::unique_ptr<Caller>>;

Callers
add(gsize count)
{
  Callers callers;

  for (gsize i = 0; i < count; i++) {
    callers.push_back(std::make_unique<Caller>());
    callers.back()->add(std::to_string(i), "Faces");
  }
  return callers;
}

bool
have_ended(const Callers &callers)
{
  return std::all_of(callers.begin(), callers.end(), [](const auto &caller) { return caller->calls == 1; });
}

bool
have_failed(const Callers &callers)
{
  return std::all_of(callers.begin(), callers.end(),
                     [](const auto &caller) { return caller->calls == 1 && !caller->xml.has_value(); });
}

class SampleFrameQueueTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    EXPECT_TRUE(spin_until([] { return count_converting() == 0; }));
    /* Their results arrive in the main context. */
    Caller last;
    last.add("last", "Faces");
    EXPECT_TRUE(spin_until([&last] { return last.calls == 1; }));
    converted.clear();
    begun.clear();
    Fixture::TearDown();
  }
};

} // namespace

/* The linker defines these names and needs them to be visible. */
#pragma GCC visibility push(default)
extern "C" {

TESTHOST_REPLACEMENT gchar *__wrap_sample_frame_convert(gchar **json, const gchar *producer_name);
guint __wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data);
GThread *__real_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error);
GThread *__wrap_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error);

gchar *
__wrap_sample_frame_convert(gchar **json, const gchar *producer_name)
{
  g_autofree gchar *text = std::exchange(*json, nullptr);
  const std::string xml = xml_of(text, producer_name);
  std::unique_lock guard(lock);

  converting++;
  changed.wait(guard, [] { return !held; });
  converting--;
  converted.push_back(xml);
  return g_str_equal(text, "bad") ? nullptr : g_strdup(xml.c_str());
}

guint
__wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer user_data)
{
  EXPECT_EQ(interval, SAMPLE_FRAME_QUEUE_MAX_SECONDS);
  return g_timeout_add(deadline_ms, function, user_data);
}

GThread *
__wrap_g_thread_try_new(const gchar *name, GThreadFunc func, gpointer data, GError **error)
{
  {
    std::lock_guard guard(lock);
    if (no_threads) {
      g_set_error_literal(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "No more threads");
      return nullptr;
    }
    begun.push_back(data);
  }
  return __real_g_thread_try_new(name, func, data, error);
}
}
#pragma GCC visibility pop

TEST_F(SampleFrameQueueTest, ConvertsOnAnotherThread)
{
  Caller caller;

  caller.add("{}", "Faces");
  EXPECT_EQ(caller.calls, 0);
  ASSERT_TRUE(spin_until([&caller] { return caller.calls > 0; }));
  EXPECT_EQ(caller.xml, xml_of("{}", "Faces"));
  testhost::dispatch_ready();
  EXPECT_EQ(caller.calls, 1);
}

TEST_F(SampleFrameQueueTest, ReportsAFailedConversion)
{
  Caller caller;

  caller.add("bad", "Faces");
  ASSERT_TRUE(spin_until([&caller] { return caller.calls > 0; }));
  EXPECT_EQ(caller.xml, std::nullopt);
}

TEST_F(SampleFrameQueueTest, LimitsRunningConversionsAndKeepsTheirOrder)
{
  constexpr gsize COUNT = 5 * SAMPLE_FRAME_QUEUE_MAX_RUNNING;
  std::optional<Hold> hold(std::in_place);
  const Callers callers = add(COUNT);
  std::vector<gpointer> conversions;
  for (const auto &caller : callers) {
    conversions.push_back(caller->conversion);
  }

  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  testhost::dispatch_ready();
  EXPECT_EQ(count_converting(), SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  hold.reset();
  ASSERT_TRUE(spin_until([&callers] { return have_ended(callers); }));
  for (gsize i = 0; i < COUNT; i++) {
    EXPECT_EQ(callers[i]->xml, xml_of(std::to_string(i), "Faces"));
  }
  EXPECT_EQ(begun, conversions);
}

TEST_F(SampleFrameQueueTest, DropsAQueuedConversionThatIsCancelled)
{
  std::optional<Hold> hold(std::in_place);
  const Callers callers = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  Caller cancelled;
  Caller next;
  cancelled.add("cancelled", "Faces");
  next.add("next", "Faces");
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));

  sample_frame_queue_cancel(cancelled.conversion);
  hold.reset();
  ASSERT_TRUE(spin_until([&] { return next.calls == 1 && have_ended(callers); }));
  EXPECT_EQ(cancelled.calls, 0);
  std::lock_guard guard(lock);
  EXPECT_EQ(std::count(converted.begin(), converted.end(), xml_of("cancelled", "Faces")), 0);
}

TEST_F(SampleFrameQueueTest, DropsAConversionThatIsCancelledBeforeItStarts)
{
  Caller cancelled;

  cancelled.add("cancelled", "Faces");
  sample_frame_queue_cancel(cancelled.conversion);
  testhost::dispatch_ready();
  EXPECT_EQ(cancelled.calls, 0);
}

/* It keeps its place until it ends. */
TEST_F(SampleFrameQueueTest, IgnoresTheResultOfACancelledConversion)
{
  std::optional<Hold> hold(std::in_place);
  const Callers cancelled = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  for (const auto &caller : cancelled) {
    sample_frame_queue_cancel(caller->conversion);
  }
  Caller next;
  next.add("next", "Faces");
  testhost::dispatch_ready();
  EXPECT_EQ(count_converting(), SAMPLE_FRAME_QUEUE_MAX_RUNNING);

  hold.reset();
  ASSERT_TRUE(spin_until([&next] { return next.calls == 1; }));
  for (const auto &caller : cancelled) {
    EXPECT_EQ(caller->calls, 0);
  }
}

TEST_F(SampleFrameQueueTest, IgnoresACancelledConversionThatExceedsItsTime)
{
  std::optional<Hold> hold(std::in_place);
  std::optional<Deadline> deadline(std::in_place);
  const Callers cancelled = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  g_main_context_iteration(nullptr, FALSE);
  for (const auto &caller : cancelled) {
    sample_frame_queue_cancel(caller->conversion);
  }
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  deadline.reset();
  Caller next;
  next.add("next", "Faces");

  /* Starts in the place of one that exceeded its time. */
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING + 1; }));
  hold.reset();
  ASSERT_TRUE(spin_until([&next] { return next.calls == 1; }));
  for (const auto &caller : cancelled) {
    EXPECT_EQ(caller->calls, 0);
  }
}

TEST_F(SampleFrameQueueTest, FailsAConversionThatExceedsItsTime)
{
  std::optional<Hold> hold(std::in_place);
  std::optional<Deadline> deadline(std::in_place);
  const Callers stuck = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  ASSERT_TRUE(spin_until([&stuck] { return have_failed(stuck); }));
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_RUNNING; }));
  deadline.reset();

  hold.reset();
  const Callers others = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  ASSERT_TRUE(spin_until([&others] { return have_ended(others); }));
  EXPECT_FALSE(have_failed(others));
  EXPECT_TRUE(have_failed(stuck));
}

/* At the limit of stuck threads every conversion fails. When one thread returns, conversions succeed again.
 */
TEST_F(SampleFrameQueueTest, FailsAllConversionsWhileTooManyAreStuck)
{
  constexpr gsize COUNT = SAMPLE_FRAME_QUEUE_MAX_STUCK + 20;
  std::optional<Hold> hold(std::in_place);
  {
    const Deadline deadline;
    const Callers callers = add(COUNT);
    ASSERT_TRUE(spin_until([&callers] { return have_failed(callers); }));
  }
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_STUCK; }));
  const Callers late = add(3);
  testhost::dispatch_ready();
  EXPECT_TRUE(have_failed(late));
  EXPECT_EQ(begun.size(), SAMPLE_FRAME_QUEUE_MAX_STUCK);

  hold.reset();
  ASSERT_TRUE(spin_until([] { return count_converting() == 0; }));
  EXPECT_TRUE(spin_until([] {
    const Callers others = add(1);
    EXPECT_TRUE(spin_until([&others] { return have_ended(others); }));
    return !have_failed(others);
  }));
  std::lock_guard guard(lock);
  EXPECT_LE(converted.size(), SAMPLE_FRAME_QUEUE_MAX_STUCK + 1);
}

/* The last stuck conversion reduces the number that can run. */
TEST_F(SampleFrameQueueTest, LimitsItsThreadsToThoseThatCanBeStuck)
{
  std::optional<Hold> hold(std::in_place);
  {
    const Deadline deadline;
    const Callers callers = add(SAMPLE_FRAME_QUEUE_MAX_STUCK - 1);
    ASSERT_TRUE(spin_until([&callers] { return have_failed(callers); }));
  }
  ASSERT_TRUE(spin_until([] { return count_converting() == SAMPLE_FRAME_QUEUE_MAX_STUCK - 1; }));

  const Callers last = add(SAMPLE_FRAME_QUEUE_MAX_RUNNING);
  testhost::dispatch_ready();
  EXPECT_EQ(begun.size(), SAMPLE_FRAME_QUEUE_MAX_STUCK);
  hold.reset();
  ASSERT_TRUE(spin_until([&last] { return have_ended(last); }));
  EXPECT_FALSE(have_failed(last));
}

TEST_F(SampleFrameQueueTest, WaitsForDescriptors)
{
  Callers callers;
  {
    const testhost::FreeDescriptors few(DESCRIPTOR_RESERVE_SIZE + SAMPLE_FRAME_QUEUE_DESCRIPTORS - 1);
    callers = add(3);
    ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
    testhost::dispatch_ready();
    EXPECT_EQ(count_converting(), 0);
  }
  ASSERT_TRUE(spin_until([&callers] { return have_ended(callers); }));
  EXPECT_FALSE(have_failed(callers));
  EXPECT_EQ(
      testhost::take_syslog(),
      SyslogLines({{LOG_WARNING, "sample frames wait for their conversion: Too few free file descriptors"}}));
}

/* A conversion holds its reservation until its end. */
TEST_F(SampleFrameQueueTest, ReservesDescriptorsForEachConversion)
{
  std::optional<Hold> hold(std::in_place);
  const testhost::FreeDescriptors few(DESCRIPTOR_RESERVE_SIZE + SAMPLE_FRAME_QUEUE_DESCRIPTORS);
  const Callers callers = add(2);

  ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
  EXPECT_TRUE(spin_until([] { return count_converting() == 1; }));
  hold.reset();
  ASSERT_TRUE(spin_until([&callers] { return have_ended(callers); }));
  EXPECT_FALSE(have_failed(callers));
  testhost::take_syslog();
}

TEST_F(SampleFrameQueueTest, WaitsForThreads)
{
  set_no_threads(true);
  const Callers callers = add(3);
  ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
  Caller cancelled;
  cancelled.add("cancelled", "Faces");
  sample_frame_queue_cancel(cancelled.conversion);
  testhost::dispatch_ready();
  EXPECT_EQ(callers.front()->calls, 0);

  set_no_threads(false);
  ASSERT_TRUE(spin_until([&callers] { return have_ended(callers); }));
  EXPECT_FALSE(have_failed(callers));
  EXPECT_EQ(testhost::take_syslog(),
            SyslogLines({{LOG_WARNING, "sample frames wait for their conversion: No more threads"}}));
}

/* Each shortage is logged once. */
TEST_F(SampleFrameQueueTest, LogsEachShortage)
{
  for (unsigned i = 0; i < 2; i++) {
    set_no_threads(true);
    const Callers callers = add(1);
    ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
    set_no_threads(false);
    ASSERT_TRUE(spin_until([&callers] { return have_ended(callers); }));
    EXPECT_EQ(testhost::take_syslog().size(), 1);
  }
}

TEST_F(SampleFrameQueueTest, CanBeCancelledWhileItWaitsForThreads)
{
  set_no_threads(true);
  const Callers callers = add(2);
  ASSERT_TRUE(spin_until([] { return testhost::syslog_size() > 0; }));
  for (const auto &caller : callers) {
    sample_frame_queue_cancel(caller->conversion);
  }
  set_no_threads(false);
  Caller next;
  next.add("next", "Faces");
  ASSERT_TRUE(spin_until([&next] { return next.calls == 1; }));
  EXPECT_EQ(callers.front()->calls + callers.back()->calls, 0);
  testhost::take_syslog();
}

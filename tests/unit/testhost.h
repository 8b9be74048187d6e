/* SPDX-License-Identifier: MIT */
/* The fixture of every unit test.
 *
 * It records all log lines of the code under test, of syslog and of GLib. A test takes the lines that it
 * expects; any other line fails the test.
 *
 * After a test, the main context has no new source, and the process no new descriptor, thread or GStreamer
 * object. The fixture waits, within a bound, for those that end on another thread.
 *
 * A watchdog names and kills a test that hangs.
 */
#pragma once

#include <functional>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

/* For a function that the linker puts in place of one of the daemon's: link-time optimisation, which does not
 * know of the replacement, would remove it. */
#if __has_attribute(externally_visible)
#define TESTHOST_REPLACEMENT __attribute__((used, externally_visible))
#else
#define TESTHOST_REPLACEMENT __attribute__((used))
#endif

namespace testhost
{

constexpr gint64 SPIN_LIMIT_US = 60 * G_TIME_SPAN_SECOND;

struct SyslogLine {
  int priority;
  std::string text;

  bool operator==(const SyslogLine &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const SyslogLine &line);

using SyslogLines = std::vector<SyslogLine>;
using Texts = std::vector<std::string>;

/* All lines since the last call, in order, without those of debug priority. Any thread. */
SyslogLines take_syslog();

/* The texts of debug priority since the last call, in order. A test need not take them. Any thread. */
Texts take_debug_lines();

/* The number of lines that were not taken. Any thread. */
gsize syslog_size();

/* All messages that GLib logged since the last call, each as "domain: text". Any thread. */
Texts take_glib_messages();

gsize glib_messages_size();

/* The expressions of the failed preconditions in these messages. Any other message fails the test. */
Texts take_failed_preconditions();

/* Gets a property of a GObject under an id that its type does not know, and sets it if it is writable.
 * Expects GLib's warning each time. */
void expect_unknown_property_warnings(gpointer object, const char *property);

/* Runs the default main context until @condition holds. FALSE when it does not within the bound. */
bool spin_until(const std::function<bool()> &condition, gint64 limit_us = SPIN_LIMIT_US);

/* Dispatches the ready sources of the default main context, without waiting. */
void dispatch_ready();

/* Waits until the thread @tid of this process sleeps for longer than a thread that waits for a contended
 * lock. FALSE when it does not within the bound. Any other thread. */
bool wait_until_asleep(pid_t tid);

/* Tells when all other threads of the process wait for something that only the calling thread can cause. */
class IdleThreads
{
public:
  /* Whether all other threads have slept since at least @period_us before, without a break. Called often. */
  bool for_us(gint64 period_us);

private:
  std::map<pid_t, std::string> sleeps_;
  gint64 since_us_ = g_get_monotonic_time();
};

/* Waits until the calling thread's current cancellable is cancelled. FALSE when there is none, or it is not
 * within the bound. */
bool wait_until_cancelled();

/* The numbers of the open descriptors. */
std::set<int> open_descriptors();

/* Limits the number of descriptors that can be opened, while this object lives. */
class FreeDescriptors
{
public:
  explicit FreeDescriptors(rlim_t count);
  ~FreeDescriptors();
  FreeDescriptors(const FreeDescriptors &) = delete;
  FreeDescriptors &operator=(const FreeDescriptors &) = delete;

private:
  struct rlimit before_;
};

gsize count_threads();

/* Type, blank and address of every living element, pad and bus. */
std::set<std::string> live_objects();

gsize resident_bytes();

/* Of all threads of the process. */
gint64 processor_time_us();

/* Measures the longest time for which the main context dispatches nothing. */
class LatencyMeter
{
public:
  LatencyMeter();
  ~LatencyMeter();
  LatencyMeter(const LatencyMeter &) = delete;
  LatencyMeter &operator=(const LatencyMeter &) = delete;

  gint64 longest_us() const;

private:
  static gboolean on_tick(gpointer user_data);

  guint source_id_;
  gint64 last_us_;
  gint64 longest_us_ = 0;
};

/* Has a weak reference to an object. */
class Observed
{
public:
  explicit Observed(gpointer object);
  ~Observed();
  Observed(const Observed &) = delete;
  Observed &operator=(const Observed &) = delete;

  bool alive() const;

private:
  GWeakRef object_;
};

class Fixture : public testing::Test
{
protected:
  void SetUp() override;
  void TearDown() override;

  /* A folder of this test, which is removed after it. */
  const std::string &dir() const;
  std::string path(const std::string &name) const;

private:
  std::string dir_;
  guint first_source_id_ = 0;
  gsize threads_ = 0;
  std::set<int> descriptors_;
  std::set<std::string> objects_;
};

} // namespace testhost

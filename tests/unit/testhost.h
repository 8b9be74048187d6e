/* What every unit test stands on: the world around the code under test, seen and bounded.
 *
 * What the code logs is caught before it leaves the process, through syslog and through GLib. A test takes
 * the lines that it expects; a line that no test took is a failure. So every text is known to the tests.
 *
 * Nothing may be left of a test: no source in the default main context, no descriptor, no thread and no
 * GStreamer object that was not there before. What ends on another thread is waited for, within a bound.
 *
 * A test that hangs is killed by a watchdog that names it.
 */
#pragma once

#include <functional>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <ostream>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

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

/* All lines since the last call, in order. Any thread. */
SyslogLines take_syslog();

/* How many lines wait to be taken. Any thread. */
gsize syslog_size();

/* All messages that GLib logged since the last call, each as "domain: text". Any thread. */
Texts take_glib_messages();

gsize glib_messages_size();

/* The same, but for failed preconditions of the daemon's own: the failed expressions. Another message fails
 * the test. */
Texts take_failed_preconditions();

/* Runs the default main context until @condition holds. FALSE when it does not within the bound. */
bool spin_until(const std::function<bool()> &condition, gint64 limit_us = SPIN_LIMIT_US);

/* Dispatches everything in the default main context that is ready, and nothing that is not. */
void dispatch_ready();

/* Waits until the thread @tid of this process sleeps, and has done so for longer than a contended lock would
 * make it. FALSE when it does not within the bound. Any other thread. */
bool wait_until_asleep(pid_t tid);

/* Waits until the calling thread's current cancellable is cancelled. FALSE when there is none, or it is not
 * within the bound. */
bool wait_until_cancelled();

/* The numbers of the open descriptors. */
std::set<int> open_descriptors();

/* Leaves only so many descriptors to open, as long as this object lives. */
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

/* Type and address, divided by a blank, of every living element, pad and bus. */
std::set<std::string> live_objects();

gsize resident_bytes();

/* What all threads of the process have used together. */
gint64 processor_time_us();

/* The longest time for which the main context dispatched nothing while this object lived. */
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

/* Whether an object still lives. Does not keep it. */
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

  /* The test's own folder, which goes with it. */
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

/* SPDX-License-Identifier: MIT */
/* Injected faults: failures of the system and of libraries that a test cannot cause from outside. The linker
 * replaces the functions (the "--wrap" arguments in meson.build) in the daemon's components and in the tests,
 * but not in libraries.
 */
#pragma once

#include <functional>
#include <glib.h>
#include <memory>
#include <string>
#include <vector>

namespace faults
{

enum class Call {
  CONNECTION_MANAGER_NEW,
  FSYNC,
  IO_ADD_WATCH,
  IO_CHANNEL_SET_ENCODING,
  LISTEN,
  OPEN, /* with EMFILE */
  PIPELINE_NEW,
  THREAD_NEW,
  THREAD_POOL_NEW,
  THREAD_POOL_PUSH,
  TRY_MALLOC,
};

/* Makes the next call fail after @skipped calls. */
void fail_next(Call call, unsigned skipped = 0);

/* Makes the next close of @fd after @skipped ones close it and report EIO. */
void fail_close_of(int fd, unsigned skipped = 0);

/* Counts the calls of accept4(), and makes all of them fail, while this object lives. Only one may exist. */
class Accepts
{
public:
  /* 0 counts the calls only. */
  explicit Accepts(int error_number);
  ~Accepts();
  Accepts(const Accepts &) = delete;
  Accepts &operator=(const Accepts &) = delete;

  unsigned count() const;
};

/* Makes the next connection to this signal fail. */
void fail_next_connection_to(const std::string &signal);

/* Starts to record the calls of a durable save and the replies to calls on the bus, each as "NAME ARGUMENT".
 */
void keep_file_calls();

/* Stops recording and takes the records, in order. */
std::vector<std::string> take_file_calls();

gsize file_calls_size();

/* The number of calls that have read from a descriptor, without read() itself. */
unsigned read_call_count();

/* Divides the time limit of each request. */
void divide_request_time(unsigned divisor);

/* Runs @hook once, on the calling thread, after the next watch of a pipeline's bus is installed. */
void after_next_bus_watch(std::function<void()> hook);

/* Runs @hook once, on the thread that sets it, after that thread's next g_mutex_unlock(). */
void after_next_unlock(std::function<void()> hook);

/* Runs @hook once, on the calling thread, before the next fsync(). */
void before_next_fsync(std::function<void()> hook);

/* Blocks the thread that calls fsync() next, before the call, until this object releases it or is destroyed.
 */
class HeldSync
{
public:
  HeldSync();
  ~HeldSync();
  HeldSync(const HeldSync &) = delete;
  HeldSync &operator=(const HeldSync &) = delete;

  /* Whether the thread is blocked. */
  bool is_holding() const;

  /* Waits until the thread is blocked, and dispatches nothing. FALSE after SPIN_LIMIT_US. */
  bool wait() const;

  void release();

private:
  struct State;
  std::shared_ptr<State> state_;
};

/* Runs @hook once, on the calling thread, after the next flush of a channel. */
void after_next_flush(std::function<void()> hook);

/* Runs @hook on the reading thread after each read of a stream that finds no data, until it is null. */
void after_empty_reads(std::function<void()> hook);

/* Replaces the clock and each wait in g_cond_wait_until() while this object lives. For each thread the clock
 * advances only by the time that the thread has waited and spent. Only one may exist.
 */
class Rests
{
public:
  /* @rest is called on the waiting thread with the length of the wait, in its place. */
  explicit Rests(std::function<void(gint64 us)> rest);
  ~Rests();
  Rests(const Rests &) = delete;
  Rests &operator=(const Rests &) = delete;

  /* Advances the clock of the calling thread. */
  static void spend(gint64 us);
};

/* Removes the time limit of each g_cond_wait_until() while this object lives. Only one may exist. */
class EndlessRests
{
public:
  EndlessRests();
  ~EndlessRests();
  EndlessRests(const EndlessRests &) = delete;
  EndlessRests &operator=(const EndlessRests &) = delete;
};

/* Makes each second of g_timeout_add_seconds() a millisecond while this object lives. Only one may exist. */
class ShortSeconds
{
public:
  ShortSeconds();
  ~ShortSeconds();
  ShortSeconds(const ShortSeconds &) = delete;
  ShortSeconds &operator=(const ShortSeconds &) = delete;

  /* The lengths in seconds of all timeouts that were added. */
  std::vector<unsigned> begun() const;

  /* How many of them are still there. */
  unsigned count() const;
};

} // namespace faults

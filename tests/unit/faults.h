/* Failures of the system and of the libraries that cannot be brought about from outside. The linker puts the
 * functions of this file before the real ones (see the "--wrap" arguments in the build), for calls from the
 * daemon's components and from the tests, and not for those from libraries.
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
  TRY_MALLOC0,
};

/* Makes the next such call fail, behind so many that do not. */
void fail_next(Call call, unsigned skipped = 0);

/* Makes the next close of this descriptor, behind so many that do not fail, close it and report a failure
 * with EIO. */
void fail_close_of(int fd, unsigned skipped = 0);

/* Counts the calls of accept4(), and makes them all fail, as long as this object lives. There is one at a
 * time.
 */
class Accepts
{
public:
  /* With 0 the calls are only counted. */
  explicit Accepts(int error_number);
  ~Accepts();
  Accepts(const Accepts &) = delete;
  Accepts &operator=(const Accepts &) = delete;

  unsigned count() const;
};

/* Makes the next connection to this signal fail. */
void fail_next_connection_to(const std::string &signal);

/* Begins to keep the calls that make up a durable save, each as its name and what it was given, and the
 * replies to calls on the bus. */
void keep_file_calls();

/* Those that were kept, in order, and an end to it. */
std::vector<std::string> take_file_calls();

/* How many were kept until now. */
gsize file_calls_size();

/* How many calls have read from a descriptor so far, but for read() itself. */
unsigned read_call_count();

/* Gives every request only a part of its time, as long as this is not 1. */
void divide_request_time(unsigned divisor);

/* Called once, on the calling thread, right after a pipeline's bus got its next watch. */
void after_next_bus_watch(std::function<void()> hook);

/* Called once, on the thread that sets it, right after that thread's next g_mutex_unlock(). */
void after_next_unlock(std::function<void()> hook);

/* Called once, on the calling thread, before the next fsync(). */
void before_next_fsync(std::function<void()> hook);

/* Holds the thread that makes the next call of fsync(), before it does, until this object lets it go or ends.
 */
class HeldSync
{
public:
  HeldSync();
  ~HeldSync();
  HeldSync(const HeldSync &) = delete;
  HeldSync &operator=(const HeldSync &) = delete;

  /* Whether the thread is there. */
  bool is_holding() const;

  /* Waits for it, and dispatches nothing. FALSE when it does not come within the bound. */
  bool wait() const;

  void release();

private:
  struct State;
  std::shared_ptr<State> state_;
};

/* Called once, on the calling thread, right after the next flush of a channel. */
void after_next_flush(std::function<void()> hook);

/* Called on the reading thread after every read of a channel that found nothing, until it is set to nothing.
 */
void after_empty_reads(std::function<void()> hook);

/* Stands in for the clock and for every rest that a thread takes with g_cond_wait_until(), as long as this
 * object lives. The clock stands still but for the time that the thread which looks at it has rested and
 * spent. There is one at a time.
 */
class Rests
{
public:
  /* Called on the resting thread with the length in microseconds, in place of the wait. */
  explicit Rests(std::function<void(gint64 us)> rest);
  ~Rests();
  Rests(const Rests &) = delete;
  Rests &operator=(const Rests &) = delete;

  /* Lets time pass for the calling thread. */
  static void spend(gint64 us);
};

/* Takes the end off every rest that a thread takes with g_cond_wait_until(), as long as this object lives:
 * only another thread can end it. There is one at a time. */
class EndlessRests
{
public:
  EndlessRests();
  ~EndlessRests();
  EndlessRests(const EndlessRests &) = delete;
  EndlessRests &operator=(const EndlessRests &) = delete;
};

/* Makes the seconds of every time-out that begins milliseconds, as long as this object lives. There is one at
 * a time.
 */
class ShortSeconds
{
public:
  ShortSeconds();
  ~ShortSeconds();
  ShortSeconds(const ShortSeconds &) = delete;
  ShortSeconds &operator=(const ShortSeconds &) = delete;

  /* The lengths in seconds of all time-outs that began. */
  std::vector<unsigned> begun() const;

  /* How many of them have not ended. */
  unsigned count() const;
};

} // namespace faults

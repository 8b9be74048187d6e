/* SPDX-License-Identifier: MIT */
#pragma once

#include <atomic>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <ostream>

// Some work on threads, and the report that the sanitizer must make of it.
struct Case {
  const char *name;
  void (*run)();
  const char *report;
};

inline constexpr const char *NO_REPORT = "";
inline constexpr const char *RACE = "WARNING: ThreadSanitizer: data race";
inline constexpr const char *RACE_OR_USE_AFTER_FREE =
    "WARNING: ThreadSanitizer: (data race|heap-use-after-free)";
inline constexpr const char *LOCK_ORDER = "WARNING: ThreadSanitizer: lock-order-inversion";

inline void
PrintTo(const Case &c, std::ostream *stream)
{
  *stream << c.name;
}

inline std::string
case_name(const testing::TestParamInfo<Case> &info)
{
  return info.param.name;
}

class SelfTest : public testing::TestWithParam<Case>
{
};

// A thread that is joined at the end of its scope. Only its start and its end order it with other threads.
class Thread
{
public:
  explicit Thread(std::function<void()> work)
      : work_(std::move(work)), thread_(g_thread_new("other", run, this))
  {
  }
  ~Thread()
  {
    g_thread_join(thread_);
  }
  Thread(const Thread &) = delete;
  Thread &operator=(const Thread &) = delete;

private:
  static gpointer run(gpointer self)
  {
    static_cast<Thread *>(self)->work_();
    return nullptr;
  }

  std::function<void()> work_;
  GThread *thread_;
};

// Waits for another thread without an order that the sanitizer sees.
inline void
wait_unseen(const std::atomic<bool> &done)
{
  while (!done.load(std::memory_order_relaxed))
    g_thread_yield();
}

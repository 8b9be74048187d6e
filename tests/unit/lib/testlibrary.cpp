/* SPDX-License-Identifier: MIT */
#include "testlibrary.h"

#include "worker.h"

#include <future>

namespace testlibrary
{

void
start_threads()
{
  g_autoptr(GTask) task = g_task_new(nullptr, nullptr, nullptr, nullptr);

  g_task_run_in_thread_sync(
      task, [](GTask *self, gpointer, gpointer, GCancellable *) { g_task_return_boolean(self, TRUE); });
  on_worker([] {});
}

void
on_worker(const std::function<void()> &function)
{
  std::promise<void> ended;

  worker_invoke([&] {
    function();
    ended.set_value();
  });
  ended.get_future().wait();
}

std::string
describe(const GError *error)
{
  if (error == nullptr) {
    return "no error";
  }
  return std::string(g_quark_to_string(error->domain)) + " " + std::to_string(error->code) + " " +
         error->message;
}

std::string
failure(TessardError code, const std::string &text)
{
  return "tessard-error-quark " + std::to_string(code) + " " + text;
}

void
Told::add(const std::string &text)
{
  texts_.add(text);
}

void
Told::expect(const std::vector<std::string> &texts)
{
  EXPECT_TRUE(testhost::spin_until([&] { return texts_.size() >= texts.size(); }));
  on_worker([] {});
  EXPECT_EQ(texts_.take(), texts);
}

void
Fixture::SetUpTestSuite()
{
  start_threads();
}

/* What the worker has to run can be what closes a descriptor. */
void
Fixture::TearDown()
{
  on_worker([] {});
  testhost::Fixture::TearDown();
}

void
BusFixture::SetUpTestSuite()
{
  testbus::Fixture::SetUpTestSuite();
  start_threads();
}

void
BusFixture::TearDown()
{
  on_worker([] {});
  testbus::Fixture::TearDown();
}

} // namespace testlibrary

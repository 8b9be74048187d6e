/* SPDX-License-Identifier: MIT */
#include "outcome.h"

#include "testlibrary.h"
#include "worker.h"

#include <memory>
#include <thread>

namespace
{

struct Finished {
  bool called = false;
  bool succeeded = false;
  std::string error;
};

class OutcomeTest : public testlibrary::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    error_ = g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_NOT_TAKEN, "Not taken.");
  }

  void TearDown() override
  {
    g_clear_error(&error_);
    Fixture::TearDown();
  }

  static void on_finished(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *finished = static_cast<Finished *>(user_data);
    g_autoptr(GError) error = nullptr;

    finished->called = true;
    finished->succeeded = g_task_propagate_boolean(G_TASK(result), &error) != FALSE;
    finished->error = testlibrary::describe(error);
  }

  const std::string not_taken_ = testlibrary::failure(TESSARD_ERROR_NOT_TAKEN, "Not taken.");
  GError *error_ = nullptr;
};

} // namespace

TEST_F(OutcomeTest, ReturnsToATask)
{
  Finished finished;
  GTask *task = g_task_new(nullptr, nullptr, on_finished, &finished);
  const testhost::Observed observed(task);
  const OutcomeFunction function = outcome_return_to(task);

  worker_invoke([&] { function(nullptr); });
  EXPECT_TRUE(testhost::spin_until([&] { return finished.called; }));
  EXPECT_TRUE(finished.succeeded);
  EXPECT_EQ(finished.error, "no error");
  EXPECT_TRUE(testhost::spin_until([&] { return !observed.alive(); }));
}

TEST_F(OutcomeTest, ReturnsAnErrorToATask)
{
  Finished finished;
  GTask *task = g_task_new(nullptr, nullptr, on_finished, &finished);
  const testhost::Observed observed(task);
  const OutcomeFunction function = outcome_return_to(task);

  worker_invoke([&] {
    function(error_);
    g_clear_error(&error_);
  });
  EXPECT_TRUE(testhost::spin_until([&] { return finished.called; }));
  EXPECT_FALSE(finished.succeeded);
  EXPECT_EQ(finished.error, not_taken_);
  EXPECT_TRUE(testhost::spin_until([&] { return !observed.alive(); }));
}

TEST_F(OutcomeTest, CancellationOfATaskWins)
{
  Finished finished;
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  const OutcomeFunction function =
      outcome_return_to(g_task_new(nullptr, cancellable, on_finished, &finished));

  g_cancellable_cancel(cancellable);
  function(nullptr);
  EXPECT_TRUE(testhost::spin_until([&] { return finished.called; }));
  EXPECT_FALSE(finished.succeeded);
  EXPECT_EQ(finished.error, "g-io-error-quark 19 Operation was cancelled");
}

TEST_F(OutcomeTest, WaitsForSuccess)
{
  g_autoptr(GError) error = nullptr;
  bool has_worked = false;

  EXPECT_TRUE(outcome_wait(
      [&](OutcomeFunction function) {
        worker_invoke([&has_worked, function = std::move(function)] {
          has_worked = true;
          function(nullptr);
        });
      },
      &error));
  EXPECT_TRUE(has_worked);
  EXPECT_EQ(error, nullptr);
}

TEST_F(OutcomeTest, WaitsForAnError)
{
  g_autoptr(GError) error = nullptr;
  const auto fail = [&](OutcomeFunction function) {
    worker_invoke([this, function = std::move(function)] { function(error_); });
  };

  EXPECT_FALSE(outcome_wait(fail, &error));
  EXPECT_EQ(testlibrary::describe(error), not_taken_);
  EXPECT_NE(error, error_);
  EXPECT_FALSE(outcome_wait(fail, nullptr));
}

TEST_F(OutcomeTest, OperationCanEndAtOnce)
{
  EXPECT_TRUE(outcome_wait([](OutcomeFunction function) { function(nullptr); }, nullptr));
}

/* The worker still has the function when the wait is over. */
TEST_F(OutcomeTest, FunctionOutlivesTheWait)
{
  for (guint round = 0; round < 1000; round++) {
    OutcomeFunction kept;
    EXPECT_TRUE(outcome_wait(
        [&](OutcomeFunction function) {
          kept = function;
          worker_invoke([function = std::move(function)] { function(nullptr); });
        },
        nullptr));
  }
}

/* SPDX-License-Identifier: MIT */
/* What the tests of the library share. */
#pragma once

#include "tessarderror.h"
#include "testbus.h"
#include "testhost.h"
#include "testlist.h"

#include <functional>
#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

namespace testlibrary
{

/* The worker stays for the process, and so does the thread that starts those of GIO's tasks: starts both, so
 * that they do not count as left behind by the first test. */
void start_threads();

/* Calls a function on the worker, and waits for its end. */
void on_worker(const std::function<void()> &function);

/* Domain, code and text of an error as one text. */
std::string describe(const GError *error);
std::string failure(TessardError code, const std::string &text);

/* What the code under test has told, as texts. Any thread. */
class Told
{
public:
  void add(const std::string &text);

  /* Waits for as many texts, runs what the worker has to run, and compares. */
  void expect(const std::vector<std::string> &texts);

private:
  testhost::List<std::string> texts_;
};

/* A part of the library, which lives on the worker. */
template <typename T> class OnWorker
{
public:
  OnWorker() = default;
  OnWorker(const OnWorker &) = delete;
  OnWorker &operator=(const OnWorker &) = delete;
  ~OnWorker()
  {
    reset();
  }

  template <typename... Arguments> void emplace(Arguments... arguments)
  {
    on_worker([&] { part_.emplace(arguments...); });
  }

  void reset()
  {
    on_worker([this] { part_.reset(); });
  }

  /* Calls a function with the part, on the worker. */
  void with(const std::function<void(T &part)> &function)
  {
    on_worker([&] { function(*part_); });
  }

private:
  std::optional<T> part_;
};

/* A test of what runs on the worker. */
class Fixture : public testhost::Fixture
{
protected:
  static void SetUpTestSuite();
  void TearDown() override;
};

/* The same with a bus. */
class BusFixture : public testbus::Fixture
{
protected:
  static void SetUpTestSuite();
  void TearDown() override;
};

} // namespace testlibrary

/* SPDX-License-Identifier: MIT */
#include "scenesourcefactory.h"

#include "faults.h"
#include "optionvalidation.h"
#include "ptzvalidation.h"
#include "testscenes.h"

#include <barrier>
#include <future>
#include <mutex>
#include <optional>
#include <syslog.h>
#include <unistd.h>

using testelements::ReplacedFactory;
using testelements::Unusable;
using testelements::WithoutPtz;
using testfactory::Params;
using testfactory::Result;
using testhost::SyslogLines;
using testhost::Texts;
using testscenes::MOVE_CAPABILITIES;

namespace
{

constexpr guint MAX_WAIT_SECONDS = 300;
constexpr gint64 MAX_WAIT_US = MAX_WAIT_SECONDS * G_TIME_SPAN_SECOND;
constexpr const char *NO_PROVIDER = "No scene provider available, skipping analytics.";

std::string
out_of_bounds(const std::string &start, const std::string &value)
{
  return "Value out of bounds for " + start + " parameter: '" + value + "'.";
}

/* The scene provider, and what happens while a factory waits for it. Any thread. */
class Waiting
{
public:
  /* One call of the factory. */
  struct Probe {
    gsize number; /* from 1 */
    gint timeout_ms;
    GCancellable *cancellable; /* borrowed */
    GError **error;
  };

  gboolean probe(gint timeout_ms, GCancellable *cancellable, GError **error)
  {
    std::function<bool(const Probe &)> is_running;
    gsize number = 0;
    {
      std::lock_guard guard(lock_);
      number = ++probes_;
      is_running = is_running_;
    }
    return is_running({number, timeout_ms, cancellable, error});
  }

  void rest(gint64 us)
  {
    std::function<void()> while_resting;
    {
      std::lock_guard guard(lock_);
      rests_.push_back(us);
      while_resting = while_resting_;
    }
    while_resting();
  }

  void set_running(std::function<bool(const Probe &)> is_running)
  {
    std::lock_guard guard(lock_);
    is_running_ = std::move(is_running);
  }

  void set_while_resting(std::function<void()> while_resting)
  {
    std::lock_guard guard(lock_);
    while_resting_ = std::move(while_resting);
  }

  gsize probes()
  {
    std::lock_guard guard(lock_);
    return probes_;
  }

  std::vector<gint64> rests()
  {
    std::lock_guard guard(lock_);
    return rests_;
  }

private:
  std::mutex lock_;
  gsize probes_ = 0;
  std::vector<gint64> rests_;
  std::function<bool(const Probe &)> is_running_ = [](const Probe &) { return true; };
  std::function<void()> while_resting_ = [] {};
};

using Probe = Waiting::Probe;

/* For the factory, whose probe has no user data. */
Waiting *waiting;

gboolean
probe(gint timeout_ms, GCancellable *cancellable, GError **error)
{
  return waiting->probe(timeout_ms, cancellable, error);
}

bool
never(const Probe &)
{
  return false;
}

/* Makes a cancellable the current one of this thread. */
class Current
{
public:
  explicit Current(GCancellable *cancellable) : cancellable_(cancellable)
  {
    g_cancellable_push_current(cancellable_);
  }

  ~Current()
  {
    g_cancellable_pop_current(cancellable_);
  }

  Current(const Current &) = delete;
  Current &operator=(const Current &) = delete;

private:
  GCancellable *cancellable_; /* borrowed */
};

class SceneSourceFactoryTest : public testscenes::Fixture
{
protected:
  void SetUp() override
  {
    set_up(testscenes::VIDEO);
    waiting = &waiting_;
    set_factory(scene_source_factory_new(producers(), MOVE_CAPABILITIES, probe));
  }

  void TearDown() override
  {
    rests_.reset();
    waiting = nullptr;
    testscenes::Fixture::TearDown();
  }

  /* No request waited, and none made a call on the bus. */
  void expect_no_calls()
  {
    EXPECT_EQ(waiting_.probes(), 0U);
    EXPECT_EQ(waiting_.rests().size(), 0U);
    EXPECT_EQ(capture().take_calls(), Texts());
  }

  /* The request fails as cancelled after this number of probes. */
  void expect_cancelled(gsize probes)
  {
    const Result result = request({{"analytics", "1"}});

    EXPECT_EQ(result.source, nullptr);
    EXPECT_TRUE(g_error_matches(result.error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    EXPECT_EQ(waiting_.probes(), probes);
    EXPECT_EQ(capture().take_calls(), Texts());
  }

  Waiting waiting_;
  std::optional<faults::Rests> rests_{[this](gint64 us) { waiting_.rest(us); }};
};

} // namespace

TEST_F(SceneSourceFactoryTest, NeedsAProbe)
{
  EXPECT_EQ(scene_source_factory_new(producers(), 0, nullptr), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"scene_running_func"}));
}

TEST_F(SceneSourceFactoryTest, HasTheDocumentedTimesOfTheWait)
{
  EXPECT_EQ(SCENE_SOURCE_FACTORY_MAX_WAIT_SECONDS, MAX_WAIT_SECONDS);
  EXPECT_EQ(SCENE_SOURCE_FACTORY_PROBE_INTERVAL_MS, 1000);
  EXPECT_EQ(SCENE_SOURCE_FACTORY_PROBE_TIMEOUT_MS, 1000);
}

/* Parameters. */

TEST_F(SceneSourceFactoryTest, DeclinesARequestWithoutAnalytics)
{
  expect_declined({});
  expect_declined({{"analytics", "0"}});
  expect_declined({{"event", "1"}, {"ptz", "1"}});
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, IgnoresOtherParametersOfARequestWithoutAnalytics)
{
  expect_declined({{"video_channel", "abc"}});
  expect_declined({{"analytics", "0"}, {"video_channel", "abc"}, {"ptz", "9"}});
  expect_declined({{"ptz", "9"}, {"ptz_pantilt_coordinate_space", "9"}, {"ptz_zoom_coordinate_space", "9"}});
}

TEST_F(SceneSourceFactoryTest, RefusesOtherAnalytics)
{
  for (const std::string value : {"3", "", "01", " 1", "yes", "%s"}) {
    expect_refused({{"analytics", value}}, option_validation_error_quark(),
                   "Invalid value of 'analytics' parameter: '" + value + "'.");
  }
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, RefusesABadChannel)
{
  expect_refused({{"analytics", "1"}, {"video_channel", "1a"}}, option_validation_error_quark(),
                 "Invalid value of 'channel'           parameter: '1a'.");
  expect_refused({{"analytics", "1"}, {"video_channel", "99999999999"}}, option_validation_error_quark(),
                 "Value out of bounds for 'channel'         parameter: '99999999999'.");
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, RefusesABadPtz)
{
  expect_refused({{"analytics", "1"}, {"ptz", "4"}}, ptz_validation_error_quark(),
                 out_of_bounds("'ptz'        ", "4"));
  expect_refused({{"analytics", "1"}, {"ptz", ""}}, ptz_validation_error_quark(),
                 "Invalid value of 'ptz'         parameter: ''.");
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, RefusesABadCoordinateSpaceAlsoWithoutPtz)
{
  for (const Params &ptz : {Params{{"ptz", "0"}}, Params{{"ptz", "1"}}, Params{}}) {
    Params pan_tilt = ptz;
    pan_tilt.insert(pan_tilt.end(), {{"analytics", "1"}, {"ptz_pantilt_coordinate_space", "7"}});
    expect_refused(pan_tilt, ptz_validation_error_quark(),
                   out_of_bounds("        'ptz pantilt coordinate space'", "7"));

    Params zoom = ptz;
    zoom.insert(zoom.end(), {{"analytics", "1"}, {"ptz_zoom_coordinate_space", "x"}});
    expect_refused(zoom, ptz_validation_error_quark(),
                   "Invalid value of 'ptz zoom coordinate space'         parameter: 'x'.");
  }
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, ReportsTheFirstBadParameterOfAnalyticsChannelPtzPantiltZoom)
{
  Params params = {{"ptz_zoom_coordinate_space", "6"},
                   {"ptz_pantilt_coordinate_space", "7"},
                   {"ptz", "8"},
                   {"video_channel", "x"},
                   {"analytics", "9"}};

  expect_refused(params, option_validation_error_quark(), "Invalid value of 'analytics' parameter: '9'.");
  params[4].second = "1";
  expect_refused(params, option_validation_error_quark(),
                 "Invalid value of 'channel'           parameter: 'x'.");
  params[3].second = "1";
  expect_refused(params, ptz_validation_error_quark(), out_of_bounds("'ptz'        ", "8"));
  params[2].second = "1";
  expect_refused(params, ptz_validation_error_quark(),
                 out_of_bounds("        'ptz pantilt coordinate space'", "7"));
  params[1].second = "1";
  expect_refused(params, ptz_validation_error_quark(),
                 out_of_bounds("        'ptz zoom coordinate space'", "6"));
}

/* Enabled channels. */

TEST_F(SceneSourceFactoryTest, DeclinesADisabledChannelAtOnce)
{
  waiting_.set_running(never);

  expect_declined({{"analytics", "1"}, {"video_channel", "2"}});
  expect_no_calls();
}

TEST_F(SceneSourceFactoryTest, DeclinesAnUnsupportedChannelAtOnce)
{
  for (const char *channel : {"0", "", "3", "2147483646"}) {
    expect_declined({{"analytics", "2"}, {"video_channel", channel}});
  }
  expect_no_calls();
}

/* Waiting for a scene provider. */

TEST_F(SceneSourceFactoryTest, ProbesARunningProviderOnce)
{
  const Result result = request({{"analytics", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(waiting_.probes(), 1U);
  EXPECT_EQ(waiting_.rests().size(), 0U);
}

TEST_F(SceneSourceFactoryTest, WaitsForAProviderThatComesAfterThreeProbes)
{
  waiting_.set_running([](const Probe &probe) { return probe.number == 4; });
  waiting_.set_while_resting([this] { EXPECT_EQ(capture().calls_size(), 0U); });
  const Result result = request({{"analytics", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(waiting_.probes(), 4U);
  EXPECT_EQ(waiting_.rests(), std::vector<gint64>(3, 1000000));
}

TEST_F(SceneSourceFactoryTest, AcceptsAProviderAtTheLastProbeBeforeTheWarning)
{
  waiting_.set_running([](const Probe &probe) { return probe.number == MAX_WAIT_SECONDS; });
  const Result result = request({{"analytics", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(waiting_.probes(), MAX_WAIT_SECONDS);
  EXPECT_EQ(waiting_.rests(), std::vector<gint64>(MAX_WAIT_SECONDS - 1, 1000000));
}

TEST_F(SceneSourceFactoryTest, GivesUpAfterFiveMinutesWithOneWarning)
{
  waiting_.set_running(never);

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(waiting_.probes(), MAX_WAIT_SECONDS + 1);
  EXPECT_EQ(waiting_.rests(), std::vector<gint64>(MAX_WAIT_SECONDS, 1000000));
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_PROVIDER}}));
  EXPECT_EQ(capture().take_calls(), Texts());
}

TEST_F(SceneSourceFactoryTest, WarnsBeforeTheFinalProbeAndIgnoresItsResult)
{
  gsize lines_at_last_rest = 1;
  gsize lines_at_last_probe = 0;
  waiting_.set_while_resting([&] { lines_at_last_rest = testhost::syslog_size(); });
  waiting_.set_running([&](const Probe &probe) {
    lines_at_last_probe = testhost::syslog_size();
    return probe.number > MAX_WAIT_SECONDS;
  });

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(waiting_.probes(), MAX_WAIT_SECONDS + 1);
  EXPECT_EQ(lines_at_last_rest, 0U);
  EXPECT_EQ(lines_at_last_probe, 1U);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_PROVIDER}}));
}

/* Each rest waits for a rest of the other request, so the two share no time. */
TEST_F(SceneSourceFactoryTest, LetsTwoRequestsWaitIndependently)
{
  std::barrier both(2);
  waiting_.set_running(never);
  waiting_.set_while_resting([&] { both.arrive_and_wait(); });

  auto other = std::async(std::launch::async, [this] {
    expect_declined({{"analytics", "1"}, {"video_channel", "5"}});
  });
  expect_declined({{"analytics", "2"}});
  other.get();
  EXPECT_EQ(waiting_.probes(), 2 * (MAX_WAIT_SECONDS + 1));
  EXPECT_EQ(waiting_.rests().size(), 2 * MAX_WAIT_SECONDS);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_PROVIDER}, {LOG_WARNING, NO_PROVIDER}}));
}

TEST_F(SceneSourceFactoryTest, BuildsForOneRequestWhileAnotherWaits)
{
  std::promise<void> resting;
  std::promise<void> built;
  const auto first = std::this_thread::get_id();
  waiting_.set_running(
      [=](const Probe &probe) { return probe.number > 1 || std::this_thread::get_id() == first; });
  waiting_.set_while_resting([&] {
    resting.set_value();
    built.get_future().wait();
  });

  auto other = std::async(std::launch::async, [this] {
    const Result result = request({{"analytics", "1"}, {"video_channel", "5"}});
    return result.source != nullptr;
  });
  resting.get_future().wait();
  {
    const Result result = request({{"analytics", "1"}});
    EXPECT_NE(result.source, nullptr);
  }
  EXPECT_EQ(capture().take_calls().size(), 1U);
  built.set_value();
  EXPECT_TRUE(other.get());
  EXPECT_EQ(waiting_.rests().size(), 1U);
}

/* Each turn is 1 s without a reply and 1 s of rest. */
TEST_F(SceneSourceFactoryTest, GivesUpAfterFiveMinutesOfAProviderThatHangs)
{
  std::vector<gint> time_outs;
  waiting_.set_running([&](const Probe &probe) {
    time_outs.push_back(probe.timeout_ms);
    faults::Rests::spend(probe.timeout_ms * G_TIME_SPAN_MILLISECOND);
    return false;
  });
  std::vector<gint> expected(MAX_WAIT_SECONDS / 2, 1000);
  expected.push_back(0);
  const gint64 begin_us = g_get_monotonic_time();

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(g_get_monotonic_time() - begin_us, MAX_WAIT_US);
  EXPECT_EQ(time_outs, expected);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_PROVIDER}}));
}

/* The first probe takes all but the last moments of the time. */
TEST_F(SceneSourceFactoryTest, NeitherProbesNorRestsBeyondTheDeadline)
{
  for (const gint64 left_us : {G_TIME_SPAN_SECOND / 2, G_TIME_SPAN_SECOND * 3 / 2}) {
    std::vector<gint> time_outs;
    waiting_.set_running([&](const Probe &probe) {
      const gint64 taken_us = time_outs.empty() ? MAX_WAIT_US - left_us : 0;
      time_outs.push_back(probe.timeout_ms);
      faults::Rests::spend(taken_us);
      return false;
    });
    const gint64 begin_us = g_get_monotonic_time();

    expect_declined({{"analytics", "1"}});
    EXPECT_EQ(g_get_monotonic_time() - begin_us, MAX_WAIT_US);
    EXPECT_EQ(time_outs, left_us < G_TIME_SPAN_SECOND ? (std::vector<gint>{1000, 0})
                                                      : (std::vector<gint>{1000, 500, 0}));
    EXPECT_EQ(waiting_.rests().back(), G_TIME_SPAN_SECOND / 2);
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, NO_PROVIDER}}));
  }
}

TEST_F(SceneSourceFactoryTest, FailsWhenTooFewDescriptorsAreFreeForAProbe)
{
  constexpr gsize LAST = 3;
  waiting_.set_running([](const Probe &probe) {
    if (probe.number == LAST) {
      g_set_error_literal(probe.error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "None left");
    }
    return false;
  });
  const Result result = request({{"analytics", "1"}});

  EXPECT_EQ(result.source, nullptr);
  ASSERT_TRUE(g_error_matches(result.error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES));
  EXPECT_STREQ(result.error->message, "None left");
  EXPECT_EQ(waiting_.probes(), LAST);
  EXPECT_EQ(waiting_.rests().size(), LAST - 1);
  EXPECT_EQ(capture().take_calls(), Texts());
}

/* The end of the wait. */

TEST_F(SceneSourceFactoryTest, PassesTheCurrentCancellableToTheProbe)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  std::vector<GCancellable *> given;
  waiting_.set_running([&](const Probe &probe) {
    given.push_back(probe.cancellable);
    return probe.number != 1;
  });
  {
    const Current current(cancellable);
    const Result result = request({{"analytics", "1"}});
    EXPECT_NE(result.source, nullptr);
  }
  const Result result = request({{"analytics", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(given, (std::vector<GCancellable *>{cancellable, cancellable, nullptr}));
  EXPECT_FALSE(
      g_signal_has_handler_pending(cancellable, g_signal_lookup("cancelled", G_TYPE_CANCELLABLE), 0, TRUE));
}

TEST_F(SceneSourceFactoryTest, FailsWhenItIsCancelledDuringAProbe)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  const Current current(cancellable);
  waiting_.set_running([=](const Probe &probe) {
    if (probe.number == 2) {
      g_cancellable_cancel(cancellable);
    }
    return false;
  });

  expect_cancelled(2);
  EXPECT_EQ(waiting_.rests().size(), 1U);
}

TEST_F(SceneSourceFactoryTest, FailsWhenItIsCancelledAlready)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  const Current current(cancellable);
  waiting_.set_running(never);
  g_cancellable_cancel(cancellable);

  expect_cancelled(1);
  EXPECT_EQ(waiting_.rests().size(), 0U);
}

/* Only the cancellation can end this rest. */
TEST_F(SceneSourceFactoryTest, EndsARestWhenTheRequestIsCancelled)
{
  rests_.reset();
  const faults::EndlessRests rests;
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  std::promise<pid_t> tid;
  std::future<pid_t> started = tid.get_future();
  waiting_.set_running(never);

  auto request = std::async(std::launch::async, [&] {
    const Current current(cancellable);
    tid.set_value(gettid());
    expect_cancelled(1);
  });
  EXPECT_TRUE(testhost::wait_until_asleep(started.get()));
  g_cancellable_cancel(cancellable);
  request.get();
}

TEST_F(SceneSourceFactoryTest, NeedsNoDescriptorToRest)
{
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  const Current current(cancellable);
  const std::set<int> before = testhost::open_descriptors();
  waiting_.set_running([](const Probe &probe) { return probe.number == 2; });
  waiting_.set_while_resting([&] { EXPECT_EQ(testhost::open_descriptors(), before); });
  const Result result = request({{"analytics", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(waiting_.rests().size(), 1U);
}

/* Rotation. */

TEST_F(SceneSourceFactoryTest, DeclinesSilentlyWithoutTheCaptureService)
{
  stop_capture();

  expect_declined({{"analytics", "1"}});
  EXPECT_EQ(waiting_.probes(), 1U);
}

TEST_F(SceneSourceFactoryTest, DeclinesSilentlyWithoutABus)
{
  stop_capture();
  bus_.reset();

  expect_declined({{"analytics", "1"}});
}

TEST_F(SceneSourceFactoryTest, DeclinesSilentlyAfterAWrongReplyOfTheCaptureService)
{
  capture().set_answer(testbus::refuse());
  expect_declined({{"analytics", "1"}});

  for (const char *body : {"()", "(uint32 90,)", "(<uint32 90>,)"}) {
    capture().set_answer(testbus::reply(body));
    expect_declined({{"analytics", "1"}});
  }
}

/* The bin. */

TEST_F(SceneSourceFactoryTest, ActivatesPtzWithoutCoordinateSpaces)
{
  for (const char *ptz : {"1", "2", "3"}) {
    const Result result = request({{"analytics", "1"}, {"video_channel", "5"}, {"ptz", ptz}});

    EXPECT_NE(result.source, nullptr);
    EXPECT_EQ(testelements::take_settings(),
              (Texts{"scenesrc video-channel=5",
                     "scene2xml polygon=FALSE ptz-move-capabilities=-9 rotation=90 source-name=yard",
                     "scene2xml pan-tilt-space=-1 zoom-space=-1 channel=5 ptz=TRUE"}));
  }
}

TEST_F(SceneSourceFactoryTest, ActivatesPtzWithCoordinateSpaces)
{
  const Result result = request({{"analytics", "1"},
                                 {"ptz", "1"},
                                 {"ptz_pantilt_coordinate_space", "0"},
                                 {"ptz_zoom_coordinate_space", "2"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(testelements::take_settings().back(),
            "scene2xml pan-tilt-space=0 zoom-space=2 channel=1 ptz=TRUE");
}

TEST_F(SceneSourceFactoryTest, SetsNoPtzForARequestWithoutIt)
{
  const Result result = request({{"analytics", "1"},
                                 {"ptz", "0"},
                                 {"ptz_pantilt_coordinate_space", "1"},
                                 {"ptz_zoom_coordinate_space", "1"}});

  EXPECT_NE(result.source, nullptr);
  EXPECT_EQ(testelements::take_settings().size(), 2U);
}

/* Failures of the bin. */

TEST_F(SceneSourceFactoryTest, FailsWhenPtzCannotBeActivated)
{
  constexpr const char *TEXT = "Could not activate PTZ in the scene2xml element.";
  const WithoutPtz without;

  expect_refused({{"analytics", "1"}, {"ptz", "1"}}, source_factory_error_quark(), TEXT);
  const ReplacedFactory converter(kind().names.converter, Unusable::HAS_PARENT);
  expect_refused({{"analytics", "1"}, {"ptz", "1"}}, source_factory_error_quark(), TEXT);
}

TEST_F(SceneSourceFactoryTest, NeedsNoPtzForARequestWithoutIt)
{
  const WithoutPtz without;
  const Result result = request({{"analytics", "1"}, {"ptz", "0"}});

  EXPECT_NE(result.source, nullptr);
}

TEST_F(SceneSourceFactoryTest, MakesNoElementForARequestThatItDeclines)
{
  expect_declined({{"analytics", "1"}, {"video_channel", "2"}});
  stop_capture();
  expect_declined({{"analytics", "1"}});

  EXPECT_EQ(testelements::take_settings(), Texts());
}

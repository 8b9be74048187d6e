/* SPDX-License-Identifier: MIT */
#include "sampleframe.h"

#include "externalsourcesocket.h"
#include "faults.h"
#include "testconverter.h"
#include "testelements.h"
#include "testhost.h"

#include <optional>
#include <string>
#include <thread>

using testconverter::Behaviour;
using testconverter::converted;
using testconverter::Input;
using testelements::ReplacedFactory;
using testelements::Unusable;
using testelements::WithoutFactory;
using testhost::Texts;

namespace
{

constexpr const char *JSON = R"({"UtcTime":"2026-01-01T00:00:00Z"})";
constexpr const char *FRAME = R"({"Source":"Faces","Data":{"Item":[{"UtcTime":"2026-01-01T00:00:00Z"}]}})";

constexpr gint64 TIMEOUT_US = SAMPLE_FRAME_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
constexpr gint64 SOON_US = TIMEOUT_US / 2;

/* The owner of the JSON after a conversion. */
enum class Owner { CALLER, CONVERSION };

class SampleFrameTest : public testhost::Fixture
{
protected:
  static void SetUpTestSuite()
  {
    testelements::install();
    /* Replaces the converter. */
    testconverter::install();
  }

  void TearDown() override
  {
    testconverter::set_behaviour(Behaviour::CONVERT);
    testconverter::take_inputs();
    Fixture::TearDown();
  }
};

std::optional<std::string>
convert(const std::string &json = JSON, const std::string &producer = "Faces",
        Owner owner = Owner::CONVERSION)
{
  gchar *text = g_strdup(json.c_str());
  const gchar *before = text;
  g_autofree gchar *xml = sample_frame_convert(&text, producer.c_str());

  EXPECT_EQ(text, owner == Owner::CALLER ? before : nullptr);
  if (owner == Owner::CALLER) {
    EXPECT_STREQ(text, json.c_str());
    g_free(text);
  }
  return xml != nullptr ? std::optional<std::string>(xml) : std::nullopt;
}

/* The objects of a pipeline that was released without a stop. */
void
expect_left_pipeline()
{
  EXPECT_TRUE(testconverter::stop_left_pipeline());
  EXPECT_TRUE(testhost::spin_until([] { return !testconverter::stop_left_pipeline(); }));
}

} // namespace

TEST_F(SampleFrameTest, ConvertsTheFrameWithTheJson)
{
  EXPECT_EQ(convert(), converted(FRAME));
  EXPECT_EQ(testconverter::take_inputs(), std::vector<Input>({{FRAME, 3, true}}));
}

TEST_F(SampleFrameTest, InsertsTheNameWithoutEscapes)
{
  EXPECT_EQ(convert("1", R"(a"b\c%s</x>)"), converted(R"({"Source":"a"b\c%s</x>","Data":{"Item":[1]}})"));
  EXPECT_EQ(convert("1", ""), converted(R"({"Source":"","Data":{"Item":[1]}})"));
}

TEST_F(SampleFrameTest, InsertsTheJsonUnchanged)
{
  EXPECT_EQ(convert("no % JSON \x80"),
            converted("{\"Source\":\"Faces\",\"Data\":{\"Item\":[no % JSON \x80]}}"));
  EXPECT_EQ(convert(""), converted(R"({"Source":"Faces","Data":{"Item":[]}})"));

  const std::string big(1024 * 1024, 'x');
  EXPECT_EQ(convert(big), converted(R"({"Source":"Faces","Data":{"Item":[)" + big + "]}}"));
}

TEST_F(SampleFrameTest, UsesTheFormatOfStreamFrames)
{
  g_autofree gchar *start = g_strdup_printf(EXTERNAL_SOURCE_FRAME_START, "Faces");

  EXPECT_EQ(std::string(start) + JSON + EXTERNAL_SOURCE_FRAME_END, FRAME);
}

TEST_F(SampleFrameTest, ReturnsABufferOfSeveralMemoriesAsOneText)
{
  testconverter::set_behaviour(Behaviour::IN_PIECES);
  EXPECT_EQ(convert(), converted(FRAME));
}

TEST_F(SampleFrameTest, ReturnsTheFirstOfSeveralBuffers)
{
  testconverter::set_behaviour(Behaviour::CONVERT_TWICE);
  EXPECT_EQ(convert(), converted(FRAME));
}

TEST_F(SampleFrameTest, ReturnsAnEmptyBufferAsAnEmptyText)
{
  testconverter::set_behaviour(Behaviour::EMPTY);
  EXPECT_EQ(convert(), "");
}

TEST_F(SampleFrameTest, KeepsAllBytesAndAppendsANul)
{
  testconverter::set_behaviour(Behaviour::BYTES);
  gchar *json = g_strdup(JSON);
  g_autofree gchar *xml = sample_frame_convert(&json, "Faces");
  ASSERT_NE(xml, nullptr);

  EXPECT_EQ(std::string(xml, testconverter::BYTES.size() + 1), testconverter::BYTES + '\0');
}

TEST_F(SampleFrameTest, ChecksItsArguments)
{
  gchar *json = nullptr;

  EXPECT_EQ(sample_frame_convert(nullptr, "Faces"), nullptr);
  EXPECT_EQ(sample_frame_convert(&json, "Faces"), nullptr);
  EXPECT_EQ(sample_frame_convert(&json, nullptr), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"json != NULL", "json != NULL", "json != NULL"}));

  g_autofree gchar *text = g_strdup(JSON);
  EXPECT_EQ(sample_frame_convert(&text, nullptr), nullptr);
  EXPECT_EQ(testhost::take_failed_preconditions(), Texts({"producer_name != NULL"}));
  EXPECT_STREQ(text, JSON);
}

TEST_F(SampleFrameTest, LeavesTheJsonToTheCallerWithoutAPipeline)
{
  faults::fail_next(faults::Call::PIPELINE_NEW);
  EXPECT_EQ(convert(JSON, "Faces", Owner::CALLER), std::nullopt);
}

class MissingElementTest : public SampleFrameTest, public testing::WithParamInterface<const char *>
{
};

TEST_P(MissingElementTest, LeavesTheJsonToTheCallerImmediately)
{
  const WithoutFactory without(GetParam());
  const gint64 begin_us = g_get_monotonic_time();

  EXPECT_EQ(convert(JSON, "Faces", Owner::CALLER), std::nullopt);
  EXPECT_LT(g_get_monotonic_time() - begin_us, SOON_US);
}

INSTANTIATE_TEST_SUITE_P(Elements, MissingElementTest, testing::Values("appsrc", "json2xml", "appsink"),
                         [](const auto &element) { return std::string(element.param); });

TEST_P(MissingElementTest, LeavesTheJsonToTheCallerWhenItRefusesTheLink)
{
  const ReplacedFactory unlinkable(GetParam(), Unusable::CANNOT_BE_LINKED);

  EXPECT_EQ(convert(JSON, "Faces", Owner::CALLER), std::nullopt);
}

TEST_F(SampleFrameTest, TakesTheJsonOverAlsoWhenTheFrameIsRefused)
{
  const ReplacedFactory ended("appsrc", Unusable::HAS_ENDED);

  EXPECT_EQ(convert(), std::nullopt);
  EXPECT_EQ(testconverter::take_inputs(), std::vector<Input>());
}

TEST_F(SampleFrameTest, FailsImmediatelyWhenTheConverterFails)
{
  testconverter::set_behaviour(Behaviour::FAIL);
  const gint64 begin_us = g_get_monotonic_time();

  EXPECT_EQ(convert(), std::nullopt);
  EXPECT_LT(g_get_monotonic_time() - begin_us, SOON_US);
}

TEST_F(SampleFrameTest, FailsAfterItsTimeWithoutOutput)
{
  testconverter::set_behaviour(Behaviour::SWALLOW);
  const gint64 begin_us = g_get_monotonic_time();

  EXPECT_EQ(convert(), std::nullopt);
  const gint64 taken_us = g_get_monotonic_time() - begin_us;
  EXPECT_GE(taken_us, TIMEOUT_US);
  EXPECT_LT(taken_us, TIMEOUT_US + SOON_US);
  /* The fixture checks that the pipeline is stopped and released. */
  EXPECT_FALSE(testconverter::stop_left_pipeline());
}

/* Only an asynchronous change of state is accepted. After any other result, even success, the pipeline is not
 * stopped, and GStreamer keeps one that has started, with its thread and descriptors. */
class StrictAnswerTest : public SampleFrameTest, public testing::WithParamInterface<Behaviour>
{
};

TEST_P(StrictAnswerTest, FailsAndLeavesThePipelineInItsState)
{
  testconverter::set_behaviour(GetParam());

  EXPECT_EQ(convert(), std::nullopt);
  expect_left_pipeline();
}

INSTANTIATE_TEST_SUITE_P(Answers, StrictAnswerTest,
                         testing::Values(Behaviour::REFUSE_TO_START, Behaviour::LIVE),
                         testing::PrintToStringParamName());

TEST_F(SampleFrameTest, TreatsSuccessAsAFailure)
{
  const ReplacedFactory never_waiting("appsink", Unusable::NEVER_WAITS);

  EXPECT_EQ(convert(), std::nullopt);
  expect_left_pipeline();
}

TEST_F(SampleFrameTest, ReleasesAPipelineThatCannotStart)
{
  testconverter::set_behaviour(Behaviour::REFUSE_TO_WAKE);

  EXPECT_EQ(convert(), std::nullopt);
  EXPECT_FALSE(testconverter::stop_left_pipeline());
}

TEST_F(SampleFrameTest, ConvertsOnSeveralThreadsAtOnce)
{
  constexpr unsigned TIMES = 20;
  auto work = [](const char *producer) {
    for (unsigned i = 0; i < TIMES; i++) {
      EXPECT_EQ(convert("1", producer),
                converted(std::string(R"({"Source":")") + producer + R"(","Data":{"Item":[1]}})"));
    }
  };

  std::thread other(work, "Others");
  work("Faces");
  other.join();
}

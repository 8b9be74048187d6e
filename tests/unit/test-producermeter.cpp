/* SPDX-License-Identifier: MIT */
#include "producermeter.h"

#include "testhost.h"

#include <memory>
#include <optional>
#include <thread>

namespace
{

struct MeterFree {
  void operator()(ProducerMeter *meter) const
  {
    producer_meter_free(meter);
  }
};

using Meter = std::unique_ptr<ProducerMeter, MeterFree>;

/* The counts of one source. */
struct Counts {
  std::string source;
  guint streams;
  guint64 messages;
  guint64 bytes;
  guint64 dropped;

  bool operator==(const Counts &) const = default;
};

std::ostream &
operator<<(std::ostream &stream, const Counts &counts)
{
  return stream << counts.source << ": " << counts.streams << " streams, " << counts.messages << " messages, "
                << counts.bytes << " bytes, " << counts.dropped << " dropped";
}

Counts
copy(const ProducerCounts &counts)
{
  return {counts.source != nullptr ? counts.source : "", counts.streams, counts.messages, counts.bytes,
          counts.dropped};
}

std::vector<Counts>
list()
{
  ProducerCounts totals = {};
  g_autoptr(GPtrArray) producers = producer_meter_list(&totals);
  std::vector<Counts> all;

  for (guint i = 0; i < producers->len; i++) {
    all.push_back(copy(*static_cast<ProducerCounts *>(g_ptr_array_index(producers, i))));
  }
  return all;
}

Counts
sum()
{
  ProducerCounts totals = {};
  g_autoptr(GPtrArray) producers = producer_meter_list(&totals);

  EXPECT_EQ(totals.source, nullptr);
  return copy(totals);
}

std::optional<Counts>
find(const std::string &source)
{
  for (const Counts &counts : list()) {
    if (counts.source == source) {
      return counts;
    }
  }
  return std::nullopt;
}

/* Sources stay in the table of the process, so each test has names of its own. */
class ProducerMeterTest : public testhost::Fixture
{
};

} // namespace

TEST_F(ProducerMeterTest, CountsMessagesAndDrops)
{
  const Counts before = sum();
  const Meter meter(producer_meter_new("counted"));

  producer_meter_add_message(meter.get(), 100);
  producer_meter_add_message(meter.get(), 20);
  producer_meter_add_dropped(meter.get());
  EXPECT_EQ(find("counted"), (Counts{"counted", 1, 2, 120, 1}));
  EXPECT_EQ(sum(),
            (Counts{"", before.streams + 1, before.messages + 2, before.bytes + 120, before.dropped + 1}));
}

TEST_F(ProducerMeterTest, AddsTheStreamsOfASourceUp)
{
  Meter first(producer_meter_new("shared"));
  const Meter second(producer_meter_new("shared"));

  EXPECT_EQ(first.get(), second.get());
  producer_meter_add_message(first.get(), 1);
  producer_meter_add_message(second.get(), 1);
  EXPECT_EQ(find("shared"), (Counts{"shared", 2, 2, 2, 0}));
  first.reset();
  EXPECT_EQ(find("shared"), (Counts{"shared", 1, 2, 2, 0}));
}

TEST_F(ProducerMeterTest, KeepsTheCountsOfASourceWithoutStreams)
{
  Meter meter(producer_meter_new("gone"));

  producer_meter_add_message(meter.get(), 7);
  meter.reset();
  EXPECT_EQ(find("gone"), (Counts{"gone", 0, 1, 7, 0}));
  meter.reset(producer_meter_new("gone"));
  producer_meter_add_message(meter.get(), 7);
  EXPECT_EQ(find("gone"), (Counts{"gone", 1, 2, 14, 0}));
}

TEST_F(ProducerMeterTest, LimitsTheLengthOfAName)
{
  const std::string longest(PRODUCER_METER_MAX_NAME_BYTES + 1, 'n');
  const Meter first(producer_meter_new((longest + "1").c_str()));
  const Meter second(producer_meter_new((longest + "2").c_str()));

  EXPECT_EQ(find(longest), (Counts{longest, 2, 0, 0, 0}));
}

TEST_F(ProducerMeterTest, LimitsTheNumberOfSources)
{
  std::vector<Meter> meters;
  for (guint i = 0; i < PRODUCER_METER_MAX_SOURCES; i++) {
    meters.emplace_back(producer_meter_new(("one of many " + std::to_string(i)).c_str()));
  }
  EXPECT_EQ(list().size(), PRODUCER_METER_MAX_SOURCES);

  const Counts before = sum();
  const Meter other(producer_meter_new("one too many"));
  producer_meter_add_message(other.get(), 10);
  EXPECT_EQ(find("one too many"), std::nullopt);
  EXPECT_EQ(sum(), (Counts{"", before.streams + 1, before.messages + 1, before.bytes + 10, before.dropped}));

  /* The source without a stream for longest goes. */
  meters[5].reset();
  meters[3].reset();
  const Meter next(producer_meter_new("the next"));
  EXPECT_EQ(find("the next"), (Counts{"the next", 1, 0, 0, 0}));
  EXPECT_EQ(find("one of many 5"), std::nullopt);
  EXPECT_TRUE(find("one of many 3").has_value());
  EXPECT_EQ(list().size(), PRODUCER_METER_MAX_SOURCES);
}

TEST_F(ProducerMeterTest, LosesNoCountOfAnyThread)
{
  constexpr guint THREADS = 4;
  constexpr guint ROUNDS = 2000;
  const Counts before = sum();
  std::vector<std::thread> threads;

  for (guint i = 0; i < THREADS; i++) {
    threads.emplace_back([] {
      for (guint round = 0; round < ROUNDS; round++) {
        const Meter meter(producer_meter_new("threads"));
        producer_meter_add_message(meter.get(), 3);
        producer_meter_add_dropped(meter.get());
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  constexpr guint64 COUNT = THREADS * ROUNDS;
  EXPECT_EQ(find("threads"), (Counts{"threads", 0, COUNT, 3 * COUNT, COUNT}));
  EXPECT_EQ(sum().messages, before.messages + COUNT);
}

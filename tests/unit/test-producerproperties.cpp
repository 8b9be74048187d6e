/* SPDX-License-Identifier: MIT */
#include "producerproperties.h"

#include "testhost.h"

#include <array>
#include <string>
#include <vector>

namespace
{

constexpr const char *GOOD = "{'Name': <'Faces'>, 'NiceName': <'Face finder'>, "
                             "'SupportedChannels': <[uint32 3, 1, 2]>}";

constexpr const char *NO_NAME = "it has no property Name of type s";
constexpr const char *NO_NICE_NAME = "it has no property NiceName of type s";
constexpr const char *NO_CHANNELS = "it has no property SupportedChannels of type au";
constexpr const char *NAME_TOO_LONG = "its name is too long";
constexpr const char *NO_ELEMENT = "its name cannot end an object's path";
constexpr const char *NICE_NAME_TOO_LONG = "its nice name is too long";
constexpr const char *TOO_MANY_CHANNELS = "it supports too many channels";

using Channels = std::vector<guint32>;

class ProducerPropertiesTest : public testhost::Fixture
{
};

/* An a{sv} in GVariant's text format. */
GVariant *
parse(const std::string &text)
{
  return g_variant_ref_sink(g_variant_new_parsed(("@a{sv} " + text).c_str()));
}

ProducerProperties *
make(const std::string &text)
{
  g_autoptr(GVariant) values = parse(text);

  return producer_properties_new(values);
}

void
change(ProducerProperties *properties, const std::string &text, const std::vector<const gchar *> &invalidated)
{
  g_autoptr(GVariant) values = parse(text);
  std::vector<const gchar *> names = invalidated;

  names.push_back(nullptr);
  producer_properties_change(properties, values, names.data());
}

Channels
channels_of(const ProducerProperties *properties)
{
  const GArray *channels = producer_properties_get_channels(properties);
  Channels numbers;

  for (guint i = 0; i < channels->len; i++) {
    numbers.push_back(g_array_index(channels, guint32, i));
  }
  return numbers;
}

std::string
quoted(gsize length)
{
  return "'" + std::string(length, 'x') + "'";
}

/* A value with this number of channels. */
std::string
channels(gsize count)
{
  std::string text = "@au [";

  for (gsize i = 0; i < count; i++) {
    text += (i > 0 ? ", " : "") + std::to_string(i);
  }
  return text + "]";
}

std::string
values(const std::string &name, const std::string &nice_name, const std::string &channels)
{
  return "{'Name': <" + name + ">, 'NiceName': <" + nice_name + ">, 'SupportedChannels': <" + channels + ">}";
}

} // namespace

TEST_F(ProducerPropertiesTest, KeepsTheProperties)
{
  g_autoptr(ProducerProperties) properties = make(GOOD);

  EXPECT_EQ(producer_properties_get_problem(properties), nullptr);
  EXPECT_STREQ(producer_properties_get_name(properties), "Faces");
  EXPECT_STREQ(producer_properties_get_nice_name(properties), "Face finder");
  EXPECT_EQ(channels_of(properties), Channels({3, 1, 2}));
}

TEST_F(ProducerPropertiesTest, AcceptsValuesAtTheLimits)
{
  g_autoptr(ProducerProperties) longest =
      make(values(quoted(PRODUCER_PROPERTIES_MAX_NAME_BYTES), quoted(PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES),
                  channels(PRODUCER_PROPERTIES_MAX_CHANNELS)));
  g_autoptr(ProducerProperties) shortest = make(values("'_'", "''", channels(0)));

  EXPECT_EQ(producer_properties_get_problem(longest), nullptr);
  EXPECT_EQ(channels_of(longest).size(), PRODUCER_PROPERTIES_MAX_CHANNELS);
  EXPECT_EQ(producer_properties_get_problem(shortest), nullptr);
  EXPECT_STREQ(producer_properties_get_nice_name(shortest), "");
  EXPECT_EQ(channels_of(shortest), Channels());
}

TEST_F(ProducerPropertiesTest, IgnoresOtherProperties)
{
  g_autoptr(ProducerProperties) properties =
      make("{'': <1>, 'name': <2>, 'Name': <'Faces'>, 'NiceName': <'N'>, 'SupportedChannels': <@au []>, "
           "'no name': <[1]>}");

  EXPECT_EQ(producer_properties_get_problem(properties), nullptr);
}

namespace
{

struct Odd {
  std::string text;
  const char *problem;
};

void
PrintTo(const Odd &odd, std::ostream *stream)
{
  *stream << odd.problem << ": " << odd.text.substr(0, 100);
}

class OddPropertiesTest : public ProducerPropertiesTest, public testing::WithParamInterface<Odd>
{
};

const std::array ODD = {
    Odd{"{}", NO_NAME},
    Odd{values("4711", "'N'", channels(1)), NO_NAME},
    Odd{values("b'Faces'", "'N'", channels(1)), NO_NAME},
    Odd{values("<'Faces'>", "'N'", channels(1)), NO_NAME},
    Odd{values("objectpath '/Faces'", "'N'", channels(1)), NO_NAME},
    Odd{values(quoted(PRODUCER_PROPERTIES_MAX_NAME_BYTES + 1), "'N'", channels(1)), NAME_TOO_LONG},
    Odd{values("''", "'N'", channels(1)), NO_ELEMENT},
    Odd{values("'a/b'", "'N'", channels(1)), NO_ELEMENT},
    Odd{values("'a.b'", "'N'", channels(1)), NO_ELEMENT},
    Odd{values("'a b'", "'N'", channels(1)), NO_ELEMENT},
    Odd{values("'\u00e4'", "'N'", channels(1)), NO_ELEMENT},
    Odd{"{'Name': <'Faces'>, 'SupportedChannels': <@au []>}", NO_NICE_NAME},
    Odd{values("'Faces'", "['N']", channels(1)), NO_NICE_NAME},
    Odd{values("'Faces'", quoted(PRODUCER_PROPERTIES_MAX_NICE_NAME_BYTES + 1), channels(1)),
        NICE_NAME_TOO_LONG},
    Odd{"{'Name': <'Faces'>, 'NiceName': <'N'>}", NO_CHANNELS},
    Odd{values("'Faces'", "'N'", "uint32 1"), NO_CHANNELS},
    Odd{values("'Faces'", "'N'", "@ai [1]"), NO_CHANNELS},
    Odd{values("'Faces'", "'N'", "@at [1]"), NO_CHANNELS},
    Odd{values("'Faces'", "'N'", channels(PRODUCER_PROPERTIES_MAX_CHANNELS + 1)), TOO_MANY_CHANNELS},
};

} // namespace

TEST_P(OddPropertiesTest, AreRefusedUntilTheyAreCorrected)
{
  g_autoptr(ProducerProperties) properties = make(GetParam().text);
  EXPECT_STREQ(producer_properties_get_problem(properties), GetParam().problem);

  change(properties, GOOD, {});
  EXPECT_EQ(producer_properties_get_problem(properties), nullptr);
  EXPECT_EQ(channels_of(properties), Channels({3, 1, 2}));
}

TEST_P(OddPropertiesTest, AreRefusedAfterAChange)
{
  g_autoptr(ProducerProperties) properties = make(GOOD);

  change(properties, GetParam().text, {"Name", "NiceName", "SupportedChannels"});
  EXPECT_STREQ(producer_properties_get_problem(properties), GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(Values, OddPropertiesTest, testing::ValuesIn(ODD));

TEST_F(ProducerPropertiesTest, ReportsTheFirstOfSeveralProblems)
{
  g_autoptr(ProducerProperties) properties = make("{}");

  EXPECT_STREQ(producer_properties_get_problem(properties), NO_NAME);
  change(properties, "{'Name': <'Faces'>}", {});
  EXPECT_STREQ(producer_properties_get_problem(properties), NO_NICE_NAME);
  change(properties, "{'NiceName': <'N'>}", {});
  EXPECT_STREQ(producer_properties_get_problem(properties), NO_CHANNELS);
  change(properties, "{'Name': <1>, 'SupportedChannels': <@au []>}", {});
  EXPECT_STREQ(producer_properties_get_problem(properties), NO_NAME);
}

TEST_F(ProducerPropertiesTest, ChangesOnlyTheNamedProperties)
{
  g_autoptr(ProducerProperties) properties = make(GOOD);

  change(properties, "{'NiceName': <'Other'>, 'Other': <1>}", {"Other", ""});
  EXPECT_EQ(producer_properties_get_problem(properties), nullptr);
  EXPECT_STREQ(producer_properties_get_name(properties), "Faces");
  EXPECT_STREQ(producer_properties_get_nice_name(properties), "Other");
  EXPECT_EQ(channels_of(properties), Channels({3, 1, 2}));
}

TEST_F(ProducerPropertiesTest, DropsInvalidatedProperties)
{
  g_autoptr(ProducerProperties) properties = make(GOOD);

  change(properties, "{}", {"NiceName"});
  EXPECT_STREQ(producer_properties_get_problem(properties), NO_NICE_NAME);
}

TEST_F(ProducerPropertiesTest, KeepsPropertiesThatAreBothChangedAndInvalidated)
{
  g_autoptr(ProducerProperties) properties = make(GOOD);

  change(properties, "{'NiceName': <'Other'>}", {"NiceName"});
  EXPECT_EQ(producer_properties_get_problem(properties), nullptr);
  EXPECT_STREQ(producer_properties_get_nice_name(properties), "Other");
}

/* SPDX-License-Identifier: MIT */
#include "ptzvalidation.h"

#include "testfactory.h"
#include "testhost.h"

#include <syslog.h>

using testfactory::make_params;
using testhost::SyslogLines;

namespace
{

using Parse = gint32 (*)(const gchar *value, GError **error);

const std::string NINE_BLANKS(9, ' ');

/* One of the three validators and its texts, up to the value. */
struct Validator {
  const char *name;
  Parse parse;
  gint32 highest;
  std::string invalid;
  std::string out_of_bounds;
};

const Validator PTZ = {
    "ptz",
    ptz_validation_parse_ptz,
    3,
    "Invalid value of 'ptz'" + NINE_BLANKS + "parameter: ",
    "Value out of bounds for 'ptz'" + NINE_BLANKS + "parameter: ",
};

const Validator PANTILT = {
    "pantilt",
    ptz_validation_parse_ptz_pantilt,
    2,
    "Invalid value of" + NINE_BLANKS + "'ptz pantilt coordinate space' parameter: ",
    "Value out of bounds for" + NINE_BLANKS + "'ptz pantilt coordinate space' parameter: ",
};

const Validator ZOOM = {
    "zoom",
    ptz_validation_parse_ptz_zoom,
    2,
    "Invalid value of 'ptz zoom coordinate space'" + NINE_BLANKS + "parameter: ",
    "Value out of bounds for" + NINE_BLANKS + "'ptz zoom coordinate space' parameter: ",
};

class PtzValidationTest : public testhost::Fixture, public testing::WithParamInterface<Validator>
{
protected:
  static void expect_refused(const std::string &value, const std::string &start)
  {
    const std::string text = start + "'" + value + "'.";
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(GetParam().parse(value.c_str(), &error), -1);
    ASSERT_TRUE(g_error_matches(error, ptz_validation_error_quark(), 0));
    EXPECT_EQ(error->message, text);
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, text}}));
  }
};

class PtzValidationDomainTest : public testhost::Fixture
{
};

class PtzRequestTest : public testhost::Fixture
{
protected:
  static void expect_line(const GError *error, const std::string &text)
  {
    ASSERT_TRUE(g_error_matches(error, ptz_validation_error_quark(), 0));
    EXPECT_EQ(error->message, text);
    EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, text}}));
  }
};

INSTANTIATE_TEST_SUITE_P(All, PtzValidationTest, testing::Values(PTZ, PANTILT, ZOOM),
                         [](const auto &validator) { return std::string(validator.param.name); });

} // namespace

TEST_F(PtzValidationDomainTest, HasItsOwnName)
{
  EXPECT_STREQ(g_quark_to_string(ptz_validation_error_quark()), "ptz_validation_error");
}

TEST_F(PtzValidationDomainTest, ParsesAnAbsentPtzAsOff)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(ptz_validation_parse_ptz(nullptr, &error), 0);
  EXPECT_EQ(error, nullptr);
}

TEST_P(PtzValidationTest, AcceptsEachDigitUpToTheHighest)
{
  for (gint32 digit = 0; digit <= GetParam().highest; digit++) {
    g_autoptr(GError) error = nullptr;

    EXPECT_EQ(GetParam().parse(std::to_string(digit).c_str(), &error), digit);
    EXPECT_EQ(error, nullptr);
  }
}

TEST_P(PtzValidationTest, RefusesEachHigherDigitAsOutOfBounds)
{
  for (gint32 digit = GetParam().highest + 1; digit <= 9; digit++) {
    expect_refused(std::to_string(digit), GetParam().out_of_bounds);
  }
}

TEST_P(PtzValidationTest, RefusesAnythingButOneDigitAsInvalid)
{
  for (const char *text : {"", "10", "01", "a", "-", "-1", " 1", "1 ", "\u0661", "1.0", "%n"}) {
    expect_refused(text, GetParam().invalid);
  }
}

/* The error has the unchanged value. */
TEST_P(PtzValidationTest, EscapesAndClipsAHostileValueInTheLog)
{
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(GetParam().parse("1\n", &error), -1);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->message, GetParam().invalid + "'1\n'.");
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, GetParam().invalid + R"('1\x0a'.)"}}));
}

TEST_P(PtzValidationTest, RefusesAValueForACallerWithoutAnError)
{
  EXPECT_EQ(GetParam().parse("x", nullptr), -1);
  EXPECT_EQ(testhost::take_syslog(), (SyslogLines{{LOG_WARNING, GetParam().invalid + "'x'."}}));
}

TEST_F(PtzRequestTest, ParsesThePtzOfARequest)
{
  g_autoptr(GHashTable) without = make_params({{"analytics", "1"}});
  g_autoptr(GHashTable) with = make_params({{"ptz", "3"}});
  g_autoptr(GHashTable) bad = make_params({{"ptz", "4"}});
  g_autoptr(GError) error = nullptr;

  EXPECT_EQ(ptz_validation_lookup_ptz(without, &error), PTZ_VALIDATION_PTZ_OFF);
  EXPECT_EQ(ptz_validation_lookup_ptz(with, &error), PTZ_VALIDATION_PTZ_STATUS);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(ptz_validation_lookup_ptz(bad, &error), PTZ_VALIDATION_PTZ_INVALID);
  expect_line(error, PTZ.out_of_bounds + "'4'.");
}

TEST_F(PtzRequestTest, ParsesBothSpacesOfARequest)
{
  g_autoptr(GHashTable) both =
      make_params({{"ptz_pantilt_coordinate_space", "1"}, {"ptz_zoom_coordinate_space", "2"}});
  g_autoptr(GHashTable) one = make_params({{"ptz_zoom_coordinate_space", "0"}});
  g_autoptr(GError) error = nullptr;
  PtzValidationSpaces spaces = {};

  EXPECT_TRUE(ptz_validation_lookup_spaces(both, &spaces, &error));
  EXPECT_EQ(spaces.pan_tilt, 1);
  EXPECT_EQ(spaces.zoom, 2);
  EXPECT_TRUE(ptz_validation_lookup_spaces(one, &spaces, &error));
  EXPECT_EQ(spaces.pan_tilt, -1);
  EXPECT_EQ(spaces.zoom, 0);
  EXPECT_EQ(error, nullptr);
}

TEST_F(PtzRequestTest, RefusesTheFirstBadSpace)
{
  g_autoptr(GHashTable) both =
      make_params({{"ptz_pantilt_coordinate_space", "3"}, {"ptz_zoom_coordinate_space", "x"}});
  g_autoptr(GHashTable) one = make_params({{"ptz_zoom_coordinate_space", "x"}});
  PtzValidationSpaces spaces = {};

  g_autoptr(GError) first = nullptr;
  EXPECT_FALSE(ptz_validation_lookup_spaces(both, &spaces, &first));
  expect_line(first, PANTILT.out_of_bounds + "'3'.");
  g_autoptr(GError) second = nullptr;
  EXPECT_FALSE(ptz_validation_lookup_spaces(one, &spaces, &second));
  expect_line(second, ZOOM.invalid + "'x'.");
}

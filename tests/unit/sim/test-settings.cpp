/* SPDX-License-Identifier: MIT */
#include "settings.h"

#include "hostiletext.h"
#include "settingsfile.h"

#include <gtest/gtest.h>

using sim::Settings;

namespace
{

class SettingsTest : public testing::Test
{
protected:
  void SetUp() override
  {
    g_unsetenv(sim::SETTINGS_VARIABLE);
    handler_ = g_log_set_handler("tessard-sim", G_LOG_LEVEL_WARNING, on_warning, &warnings_);
  }

  void TearDown() override
  {
    g_log_remove_handler("tessard-sim", handler_);
  }

  int warnings_ = 0;

private:
  static void on_warning(const char *domain, GLogLevelFlags level, const char *message, gpointer user_data)
  {
    (*static_cast<int *>(user_data))++;
  }

  guint handler_ = 0;
};

void
expect_defaults(const Settings &settings)
{
  EXPECT_EQ(settings.seed, Settings().seed);
  EXPECT_EQ(settings.epoch, Settings().epoch);
  EXPECT_EQ(settings.speed, Settings().speed);
  EXPECT_EQ(settings.ptz_channels, Settings().ptz_channels);
}

TEST_F(SettingsTest, DefaultsWithoutFile)
{
  expect_defaults(sim::settings_load());
  EXPECT_EQ(warnings_, 0);
}

TEST_F(SettingsTest, ValuesComeFromTheFile)
{
  SettingsFile file("[World]\nseed=18446744073709551615\nepoch=2024-03-01T12:00:00+01:00\nspeed=20\n"
                    "[PTZ]\nchannels=2;4\n[Other]\nkey=value\n");
  Settings settings = sim::settings_load();
  EXPECT_EQ(settings.seed, G_MAXUINT64);
  EXPECT_EQ(settings.epoch, 1709290800);
  EXPECT_EQ(settings.speed, 20);
  EXPECT_EQ(settings.ptz_channels, std::vector<int>({2, 4}));
  EXPECT_EQ(warnings_, 0);
}

TEST_F(SettingsTest, MissingKeysKeepTheirDefaults)
{
  SettingsFile file("[World]\nspeed=2\n");
  Settings settings = sim::settings_load();
  EXPECT_EQ(settings.seed, Settings().seed);
  EXPECT_EQ(settings.epoch, Settings().epoch);
  EXPECT_EQ(settings.speed, 2);
  EXPECT_EQ(warnings_, 0);
}

TEST_F(SettingsTest, OnlyTheFirstChannelHasAHeadByDefault)
{
  EXPECT_FALSE(sim::settings_has_ptz({}, 0));
  EXPECT_TRUE(sim::settings_has_ptz({}, 1));
  EXPECT_FALSE(sim::settings_has_ptz({}, 2));
}

TEST_F(SettingsTest, FileSelectsTheChannelsWithAHead)
{
  SettingsFile file("[PTZ]\nchannels=0;3\n");
  Settings settings = sim::settings_load();
  EXPECT_TRUE(sim::settings_has_ptz(settings, 0));
  EXPECT_FALSE(sim::settings_has_ptz(settings, 1));
  EXPECT_TRUE(sim::settings_has_ptz(settings, 3));
  EXPECT_EQ(warnings_, 0);
}

TEST_F(SettingsTest, ListOfChannelsCanBeEmpty)
{
  SettingsFile file("[PTZ]\nchannels=\n");
  EXPECT_FALSE(sim::settings_has_ptz(sim::settings_load(), 1));
  EXPECT_EQ(warnings_, 0);
}

TEST_F(SettingsTest, EmptyFileMeansDefaults)
{
  SettingsFile file("");
  expect_defaults(sim::settings_load());
  EXPECT_EQ(warnings_, 0);
}

class MalformedSettings : public SettingsTest, public testing::WithParamInterface<HostileText>
{
};

TEST_P(MalformedSettings, WarnOnceAndUseTheDefaults)
{
  SettingsFile file(GetParam().text);
  expect_defaults(sim::settings_load());
  EXPECT_EQ(warnings_, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Files, MalformedSettings,
    testing::Values<HostileText>(
        "no key file", "[World]\nseed=many\n", "[World]\nseed=7\nspeed=0\n", "[World]\nseed=7\nspeed=101\n",
        "[World]\nseed=7\nspeed=fast\n", "[World]\nseed=7\nepoch=yesterday\n",
        "[World]\nseed=7\nepoch=1969-12-31T23:59:59Z\n", "[World]\nseed=7\nepoch=2100-01-01T00:00:00Z\n",
        "[World]\nseed=7\n[PTZ]\nchannels=1;-1\n", "[World]\nseed=7\n[PTZ]\nchannels=all\n",
        "[World]\nseed=7\n[PTZ]\nchannels=99999999999\n", "[World]\nseed=7\nepoch=\\q\n",
        "[World]\nseed=7\nepoch=\xff\n"));

TEST_F(SettingsTest, MissingFileWarnsOnceAndUsesTheDefaults)
{
  g_setenv(sim::SETTINGS_VARIABLE, "/nonexistent/settings", TRUE);
  expect_defaults(sim::settings_load());
  EXPECT_EQ(warnings_, 1);
  g_unsetenv(sim::SETTINGS_VARIABLE);
}

TEST(SettingsTime, WorldStartsAtItsEpochAndRunsAtItsSpeed)
{
  Settings settings{.seed = 1, .epoch = 1000, .speed = 3};
  gint64 epoch = 1000 * G_USEC_PER_SEC;
  EXPECT_EQ(sim::settings_world_time(settings, epoch), 0);
  EXPECT_EQ(sim::settings_world_time(settings, epoch + 5), 15);
  EXPECT_EQ(sim::settings_world_time(settings, epoch - 5), -15);
}

TEST(SettingsTime, ConvertsWorldTimeToTheFirstWallClockTime)
{
  Settings settings{.seed = 1, .epoch = 1000, .speed = 3};
  for (sim::WorldTime time = -10; time <= 10; time++) {
    gint64 utc = sim::settings_utc(settings, time);
    EXPECT_GE(sim::settings_world_time(settings, utc), time);
    EXPECT_LT(sim::settings_world_time(settings, utc - 1), time);
  }
}

} // namespace

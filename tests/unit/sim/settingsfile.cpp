/* SPDX-License-Identifier: MIT */
#include "settingsfile.h"

#include "settings.h"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

SettingsFile::SettingsFile(const std::string &content)
{
  g_autofree char *path = nullptr;
  int fd = g_file_open_tmp(nullptr, &path, nullptr);
  EXPECT_NE(fd, -1);
  g_close(fd, nullptr);
  EXPECT_TRUE(g_file_set_contents(path, content.data(), static_cast<gssize>(content.size()), nullptr));
  path_ = path;
  g_setenv(sim::SETTINGS_VARIABLE, path, TRUE);
}

SettingsFile::~SettingsFile()
{
  g_unsetenv(sim::SETTINGS_VARIABLE);
  g_unlink(path_.c_str());
}

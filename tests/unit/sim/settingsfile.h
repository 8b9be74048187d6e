/* SPDX-License-Identifier: MIT */
#pragma once

#include <string>

/* A settings file that the simulated camera reads while this object lives. */
class SettingsFile
{
public:
  explicit SettingsFile(const std::string &content);
  ~SettingsFile();
  SettingsFile(const SettingsFile &) = delete;
  SettingsFile &operator=(const SettingsFile &) = delete;

private:
  std::string path_;
};

/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <ostream>
#include <string>

/* A text of an untrusted client as a parameter of a test. It can have any bytes and any length, so reports
 * show only its escaped beginning. */
struct HostileText {
  std::string text;

  HostileText(const char *bytes) : text(bytes)
  {
  }
  HostileText(std::string bytes) : text(std::move(bytes))
  {
  }
};

inline void
PrintTo(const HostileText &hostile, std::ostream *stream)
{
  constexpr gsize SHOWN = 40;
  g_autofree char *escaped = g_strescape(hostile.text.substr(0, SHOWN).c_str(), nullptr);
  *stream << escaped << " (" << hostile.text.size() << " bytes)";
}

inline std::string
repeat(const char *text, gsize count)
{
  std::string result;
  for (gsize i = 0; i < count; i++) {
    result += text;
  }
  return result;
}

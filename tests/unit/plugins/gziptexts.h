/* SPDX-License-Identifier: MIT */
/* Texts and their compressed form in tests. */
#pragma once

#include "gzip.h"

#include <string>

inline std::string
text_of(GBytes *bytes)
{
  gsize size = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  return {data, size};
}

inline std::string
compress(const std::string &text)
{
  g_autoptr(GBytes) bytes = plugins::gzip_compress(text.data(), text.size());
  return text_of(bytes);
}

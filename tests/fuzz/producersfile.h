/* SPDX-License-Identifier: MIT */
// A producers' file in memory. No file can be created in its folder, so every save fails.
#pragma once

#include "fuzz.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz
{

class ProducersFile
{
public:
  ProducersFile()
      : fd_(memfd_create("producers.conf", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_))
  {
    require(fd_ >= 0, "memfd_create");
  }

  void write(std::string_view content) const
  {
    require(ftruncate(fd_, 0) == 0, "ftruncate");
    require(pwrite(fd_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()), "pwrite");
  }

  const char *path() const
  {
    return path_.c_str();
  }

private:
  int fd_;
  std::string path_;
};

} // namespace fuzz

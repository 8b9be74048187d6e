/* SPDX-License-Identifier: MIT */
/* Listening sockets of the tests, and what systemd passes to a service. */
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace testsockets
{

/* The number that the next descriptor gets. */
int lowest_free_descriptor();

bool is_open(int fd);

/* A new socket that listens at the path. */
int listen_at(const std::string &path);

/* The descriptor under a number that is out of the way of those that are passed. */
int move_away(int fd);

/* A new socket that listens at the path, out of the way of those that are passed. */
int listen_high(const std::string &path);

/* Passes descriptors to the process as systemd does, from number 3 on, as long as this object lives. What was
 * open there comes back afterwards. There is one at a time. */
class PassedDescriptors
{
public:
  explicit PassedDescriptors(const std::vector<int> &fds);
  ~PassedDescriptors();
  PassedDescriptors(const PassedDescriptors &) = delete;
  PassedDescriptors &operator=(const PassedDescriptors &) = delete;

private:
  std::vector<int> saved_;
};

} // namespace testsockets

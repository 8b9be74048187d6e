/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <vector>

/* Errors in their order, each code once. Not for several threads at once. */
class ErrorList
{
public:
  ErrorList() = default;
  ErrorList(ErrorList &&other) noexcept;
  ErrorList &operator=(ErrorList &&other) noexcept;
  ~ErrorList();

  void add(const GError *error);
  std::vector<GError *>::const_iterator begin() const;
  std::vector<GError *>::const_iterator end() const;

private:
  std::vector<GError *> errors;
};

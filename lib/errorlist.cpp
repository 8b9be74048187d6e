/* SPDX-License-Identifier: MIT */
#include "errorlist.h"

#include <algorithm>
#include <utility>

ErrorList::ErrorList(ErrorList &&other) noexcept : errors(std::exchange(other.errors, {}))
{
}

ErrorList &
ErrorList::operator=(ErrorList &&other) noexcept
{
  errors.swap(other.errors);
  return *this;
}

ErrorList::~ErrorList()
{
  std::for_each(errors.begin(), errors.end(), g_error_free);
}

/**
 * ErrorList::add:
 * @error: (transfer none): an error, which is left out if there is one with its code
 */
void
ErrorList::add(const GError *error)
{
  const gboolean is_known = std::any_of(errors.begin(), errors.end(),
                                        [error](const GError *known) { return known->code == error->code; });

  if (!is_known) {
    errors.push_back(g_error_copy(error));
  }
}

std::vector<GError *>::const_iterator
ErrorList::begin() const
{
  return errors.begin();
}

std::vector<GError *>::const_iterator
ErrorList::end() const
{
  return errors.end();
}

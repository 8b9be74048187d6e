/* SPDX-License-Identifier: MIT */
// A content filter of arbitrary bytes, compiled and evaluated on one event of each kind.
#include "contentfilter.h"
#include "fuzz.h"

#include <string>

namespace
{

using onvif::ContentFilter;

void
check_error(const GError *error)
{
  fuzz::require(error->message[0] != '\0', "an error has a text");
  fuzz::require(g_utf8_validate(error->message, -1, nullptr), "an error is text");
}

std::optional<ContentFilter>
compile(const std::string &text)
{
  g_autoptr(GError) error = nullptr;
  std::optional<ContentFilter> filter =
      ContentFilter::compile(text.c_str(), onvif::event_message_examples(), &error);
  fuzz::require(filter.has_value() != (error != nullptr), "either a filter or an error");
  if (error != nullptr)
    check_error(error);
  return filter;
}

bool
evaluate(const ContentFilter &filter, const onvif::EventMessage &message)
{
  g_autoptr(GError) error = nullptr;
  std::optional<bool> wanted = filter.matches(message, &error);
  fuzz::require(wanted.has_value() && error == nullptr, "a compiled filter can be evaluated");
  return *wanted;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string text(fuzz::as_text(data, size));
  text.resize(std::min(text.find('\0'), text.size()));
  std::optional<ContentFilter> filter = compile(text);
  if (!filter.has_value())
    return 0;

  fuzz::require(text.size() <= ContentFilter::MAX_LENGTH, "the length is bounded");
  std::optional<ContentFilter> opposite = compile("not(" + text + ")");
  for (const onvif::EventMessage &message : onvif::event_message_examples()) {
    bool wanted = evaluate(*filter, message);
    if (opposite.has_value())
      fuzz::require(evaluate(*opposite, message) != wanted, "the negated filter has the opposite result");
  }
  return 0;
}

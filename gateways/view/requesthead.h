/* SPDX-License-Identifier: MIT */
#pragma once

#include <string>
#include <string_view>

namespace view
{

/* The head of a request on its way to the engine. In libsoup 3.2 the engine leaks the path of a request whose
 * Content-Length is no number, or whose Transfer-Encoding it does not know. Such a head must not reach it.
 * All functions can be called on any thread. */
class RequestHead
{
public:
  bool append(std::string_view bytes);
  bool end();

private:
  bool take();

  std::string text_; /* without empty lines before it; empty when the head is complete */
  bool is_complete_ = false;
};

} // namespace view

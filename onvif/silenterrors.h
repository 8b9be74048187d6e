/* SPDX-License-Identifier: MIT */
#pragma once

#include <libxml/xmlerror.h>

namespace onvif
{

/* Suppresses libxml2's generic error handler of the calling thread, which prints some errors, including the
 * text with the error, to standard error. */
class SilentErrors
{
public:
  SilentErrors() : handler_(xmlGenericError), context_(xmlGenericErrorContext)
  {
    xmlSetGenericErrorFunc(nullptr, on_error);
  }
  ~SilentErrors()
  {
    xmlSetGenericErrorFunc(context_, handler_);
  }
  SilentErrors(const SilentErrors &) = delete;
  SilentErrors &operator=(const SilentErrors &) = delete;

private:
  static void on_error(void * /*user_data*/, const char * /*format*/, ...)
  {
  }

  xmlGenericErrorFunc handler_;
  void *context_;
};

} // namespace onvif

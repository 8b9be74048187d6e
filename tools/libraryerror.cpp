/* SPDX-License-Identifier: MIT */
/* The errors of the library of applications, whose messages are for the user, and the exit statuses for them.
 */
#include "libraryerror.h"
#include "command.h"
#include "tessarderror.h"

namespace
{

ExitStatus
status_of(const GError *error)
{
  switch (error->code) {
  case TESSARD_ERROR_NO_BUS:
  case TESSARD_ERROR_NO_RECEIVER:
    return EXIT_STATUS_NO_CONNECTION;
  case TESSARD_ERROR_BUS_CLOSED:
  case TESSARD_ERROR_CHANNEL_CLOSED:
    return EXIT_STATUS_ENDED;
  case TESSARD_ERROR_MALFORMED_REPLY:
    return EXIT_STATUS_MALFORMED;
  default:
    return EXIT_STATUS_REFUSED;
  }
}

} // namespace

/**
 * library_error_convert:
 * @cause: (transfer none): an error of %TESSARD_ERROR
 *
 * Returns: (transfer full): the error of %TESSARDCTL_ERROR with the same message. Any thread.
 */
GError *
library_error_convert(const GError *cause)
{
  return g_error_new_literal(TESSARDCTL_ERROR, status_of(cause), cause->message);
}

/* SPDX-License-Identifier: MIT */
#include "clientstatus.h"
#include "clienterror.h"

/**
 * client_status_of:
 * @cause: (transfer none): an error of %METADATA_CLIENT_ERROR
 *
 * Returns: the exit status for it
 */
ExitStatus
client_status_of(const GError *cause)
{
  switch (cause->code) {
  case METADATA_CLIENT_ERROR_NO_CONNECTION:
    return EXIT_STATUS_NO_CONNECTION;
  case METADATA_CLIENT_ERROR_TIMED_OUT:
    return EXIT_STATUS_TIMED_OUT;
  case METADATA_CLIENT_ERROR_REFUSED:
    return EXIT_STATUS_REFUSED;
  case METADATA_CLIENT_ERROR_MALFORMED:
    return EXIT_STATUS_MALFORMED;
  default:
    return EXIT_STATUS_ENDED;
  }
}

/* SPDX-License-Identifier: MIT */
#include "clienterror.h"

/**
 * metadata_client_error_quark:
 *
 * Returns: the domain of all errors of this library except those of a cancelled call
 */
G_DEFINE_QUARK(metadata_client_error, metadata_client_error)

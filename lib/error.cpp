/* SPDX-License-Identifier: MIT */
#include "tessarderror.h"

/**
 * tessard_error_quark:
 *
 * Returns: the error domain of the library
 */
GQuark
tessard_error_quark(void)
{
  return g_quark_from_static_string("tessard-error-quark");
}

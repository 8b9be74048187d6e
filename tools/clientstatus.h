/* SPDX-License-Identifier: MIT */
#pragma once

#include "command.h"

/* All functions can be called on any thread. */

ExitStatus client_status_of(const GError *cause);

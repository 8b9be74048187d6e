/* SPDX-License-Identifier: MIT */
#pragma once

/**
 * TESSARD_API: (skip)
 *
 * Marks what the library exports. Everything else is hidden.
 */
#define TESSARD_API __attribute__((visibility("default"))) extern

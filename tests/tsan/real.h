/* SPDX-License-Identifier: MIT */
#pragma once

#include <dlfcn.h>

// An interposed function replaces the library's function of the same name for the program and for every
// library that it loads, except for the library's calls of its own functions.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

// The library's own function, as "real".
#define FIND_REAL(function)                                                                                  \
  static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

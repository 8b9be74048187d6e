#pragma once

#include <dlfcn.h>

// The functions below stand in front of the library's own of the same name, for the program and for every
// library that it loads; only the library's calls of its own functions are bound already and pass them by.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

// The library's own function, as "real".
#define FIND_REAL(function)                                                                                  \
  static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

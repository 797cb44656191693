// The assertion of the fuzz targets: unlike assert() it stays on in release builds, and it
// aborts, which both libFuzzer and the replay tests report as a failure with the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                \
  do {                                                                                  \
    if (!(cond)) {                                                                      \
      std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                     \
    }                                                                                   \
  } while (0)

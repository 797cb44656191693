// The fuzz targets' assertion: stays on in release builds and aborts, which libFuzzer and the
// corpus replays both report as a failure with the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                       \
  ((cond) ? static_cast<void>(0)                                                               \
          : (std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #cond), \
             std::abort()))

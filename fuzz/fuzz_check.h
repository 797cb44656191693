// The assertion of the fuzz targets: unlike assert() it stays on in release builds, and it
// aborts, which both libFuzzer and the replay tests report as a failure with the input.
#pragma once

#include <cstdio>
#include <cstdlib>

// Provided by the sanitizer runtimes. It writes to the sanitizer's report channel, which stays
// open when libFuzzer closes the target's standard error (-close_fd_mask), so the broken
// invariant is named in the report. Absent (null) in builds without a sanitizer.
extern "C" __attribute__((weak)) void __sanitizer_report_error_summary(const char* summary);

namespace skerir::fuzz {

[[noreturn]] inline void invariant_broken(const char* file, int line, const char* cond) {
  char text[512];
  std::snprintf(text, sizeof(text), "%s:%d: invariant broken: %s", file, line, cond);
  std::fprintf(stderr, "%s\n", text);
  if (__sanitizer_report_error_summary != nullptr) __sanitizer_report_error_summary(text);
  std::abort();
}

}  // namespace skerir::fuzz

#define FUZZ_CHECK(cond) \
  ((cond) ? static_cast<void>(0) : ::skerir::fuzz::invariant_broken(__FILE__, __LINE__, #cond))

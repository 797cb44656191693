// Shared set-up of the upstream client tests: both cache maps exist and start empty, the log
// capture starts empty, and a CBuffer's contents can be taken out as a string.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "buffer/cbuffer.h"
#include "cachemap/cachemap.h"
#include "support/log_capture.h"

namespace skerir::test {

class UpstreamTest : public ::testing::Test {
 public:
  // Public so that helper functions of a test file can use them too.

  void SetUp() override {
    if (cache_map == nullptr) cache_map = new CacheMap();
    if (cache_map_playlist == nullptr) cache_map_playlist = new CacheMap();
    cache_map->setCacheMapString("");
    cache_map_playlist->setCacheMapString("");
    log().clear();
  }

  static LogCapture& log() { return LogCapture::instance(); }
  static bool out_has(const std::string& line) { return log().has_line(LogStream::out, line); }
  static bool err_has(const std::string& line) { return log().has_line(LogStream::err, line); }
};

// Everything written to `buffer` and not yet read, in order; the buffer is left empty.
inline std::string drain(CBuffer& buffer) {
  std::string out;
  while (buffer.size > 0) {
    char* p = nullptr;
    const unsigned long n = buffer.read_get_available(&p);
    if (n == 0) continue;
    out.append(p, n);
    buffer.read_notify_read(n);
  }
  return out;
}

// Bytes that differ at every position, so a shifted or repeated range shows.
inline std::string pattern(size_t n, unsigned seed = 1) {
  std::string s(n, '\0');
  unsigned x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 16);
  }
  return s;
}

inline constexpr auto kWait = std::chrono::seconds(20);

}  // namespace skerir::test

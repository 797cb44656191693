// Records every log line of the test process so tests can wait for and count them. One
// instance, installed on first use and never removed: detached server threads may log after
// a test ends. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "util/log.h"

namespace skerir::test {

class LogCapture : public LogTap {
 public:
  static LogCapture& instance();
  void on_line(LogStream stream, std::string_view line) override;

  void clear();
  std::vector<std::string> lines(LogStream stream) const;
  // Lines since the last clear() that contain `text` (that equal it, with `exact`).
  size_t count(std::string_view text, bool exact = false) const;
  bool wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n = 1);

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<LogStream, std::string>> lines_;
};

}  // namespace skerir::test

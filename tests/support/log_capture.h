// Records every log line of the process so tests can wait for and inspect them.
//
// One instance per test process, installed on first use and never removed (detached server
// threads may still log after a test ends). Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "util/log.h"

namespace skerir::test {

struct LoggedLine {
  LogStream stream;
  std::string text;
};

class LogCapture : public LogTap {
 public:
  static LogCapture& instance();

  void on_line(LogStream stream, std::string_view line) override;

  void clear();
  std::vector<LoggedLine> lines() const;
  // Lines of one stream, in order.
  std::vector<std::string> lines(LogStream stream) const;
  // Number of lines (of either stream) equal to `text`.
  size_t count(std::string_view text) const;
  // Number of lines (of either stream) containing `fragment`.
  size_t count_containing(std::string_view fragment) const;
  bool has_line(LogStream stream, std::string_view text) const;

  // Waits until at least `n` lines equal to (or, with `substring`, containing) `text` have been
  // logged since the last clear(). Returns false on time-out.
  bool wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n = 1,
                bool substring = false);

 private:
  LogCapture() = default;
  size_t count_locked(std::string_view text, bool substring) const;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<LoggedLine> lines_;
};

}  // namespace skerir::test

// Plain log lines on standard output (progress) and standard error (failures).
//
// A line is composed in memory from its pieces, exactly as stream insertion would print them,
// and written with a single write() call, so lines of concurrent streams never interleave.
// Safe to call from any thread.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

namespace skerir {

enum class LogStream { out, err };

// Observer of every line; used by tests to wait for and inspect log output. The tap is called
// on the logging thread after the line has been written. It must outlive every thread that
// may log after it was installed (tests install one process-wide tap and never remove it).
class LogTap {
 public:
  virtual ~LogTap() = default;
  virtual void on_line(LogStream stream, std::string_view line) = 0;
};

void set_log_tap(LogTap* tap);

// Writes `line` and a newline as one write on the stream's descriptor.
void log_line(LogStream stream, std::string line);

template <class... Parts>
std::string compose(const Parts&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return std::move(os).str();
}

template <class... Parts>
void log_out(const Parts&... parts) {
  log_line(LogStream::out, compose(parts...));
}

template <class... Parts>
void log_err(const Parts&... parts) {
  log_line(LogStream::err, compose(parts...));
}

}  // namespace skerir

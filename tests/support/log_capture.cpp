#include "support/log_capture.h"

namespace skerir::test {

LogCapture& LogCapture::instance() {
  static LogCapture* capture = [] {
    auto* c = new LogCapture();  // never destroyed: late log lines must still find it
    set_log_tap(c);
    return c;
  }();
  return *capture;
}

void LogCapture::on_line(LogStream stream, std::string_view line) {
  {
    std::lock_guard lock(mutex_);
    lines_.push_back({stream, std::string(line)});
  }
  changed_.notify_all();
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<LoggedLine> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::lines(LogStream stream) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& l : lines_) {
    if (l.stream == stream) out.push_back(l.text);
  }
  return out;
}

size_t LogCapture::count_locked(std::string_view text, bool substring) const {
  size_t n = 0;
  for (const auto& l : lines_) {
    if (substring ? l.text.find(text) != std::string::npos : l.text == text) ++n;
  }
  return n;
}

size_t LogCapture::count(std::string_view text) const {
  std::lock_guard lock(mutex_);
  return count_locked(text, false);
}

size_t LogCapture::count_containing(std::string_view fragment) const {
  std::lock_guard lock(mutex_);
  return count_locked(fragment, true);
}

bool LogCapture::has_line(LogStream stream, std::string_view text) const {
  std::lock_guard lock(mutex_);
  for (const auto& l : lines_) {
    if (l.stream == stream && l.text == text) return true;
  }
  return false;
}

bool LogCapture::wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n,
                          bool substring) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return count_locked(text, substring) >= n; });
}

}  // namespace skerir::test

#include "support/log_capture.h"

#include <algorithm>

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
  std::lock_guard lock(mutex_);
  lines_.emplace_back(stream, line);
  changed_.notify_all();
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<std::string> LogCapture::lines(LogStream stream) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [s, text] : lines_) {
    if (s == stream) out.push_back(text);
  }
  return out;
}

size_t LogCapture::count(std::string_view text, bool exact) const {
  std::lock_guard lock(mutex_);
  return std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
    return exact ? l.second == text : l.second.find(text) != std::string::npos;
  });
}

bool LogCapture::wait_for(std::string_view text, std::chrono::milliseconds timeout, size_t n) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    lock.unlock();
    const bool enough = count(text) >= n;
    lock.lock();
    return enough;
  });
}

}  // namespace skerir::test

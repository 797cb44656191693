#include "util/log.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace skerir {
namespace {

std::atomic<LogTap*> g_tap{nullptr};

void write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return;  // a closed or broken log stream must not take the process down
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
}

}  // namespace

void set_log_tap(LogTap* tap) { g_tap.store(tap, std::memory_order_release); }

void log_line(LogStream stream, std::string line) {
  line.push_back('\n');
  write_all(stream == LogStream::out ? STDOUT_FILENO : STDERR_FILENO, line.data(), line.size());
  if (LogTap* tap = g_tap.load(std::memory_order_acquire)) {
    line.pop_back();
    tap->on_line(stream, line);
  }
}

}  // namespace skerir

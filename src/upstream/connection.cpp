#include "upstream/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "upstream/tls.h"

namespace skerir {
namespace {

using Clock = std::chrono::steady_clock;

// One read after waiting up to `timeout_ms` for data; see Connection::read. Data already
// waiting is taken without a poll() first (one system call per block on a busy transfer); a
// wake-up without data (EINTR, or EAGAIN after a spurious readiness) waits again for the time
// left.
long read_with_timeout(int fd, char* buf, unsigned long len, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const ssize_t n = ::recv(fd, buf, len, MSG_DONTWAIT);
    if (n >= 0) return static_cast<long>(n);
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (errno == EINTR) continue;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || poll_one(fd, POLLIN, static_cast<int>(left)) != 1) return -2;
  }
}

}  // namespace

int setnonblock(int fd) {
  const int flags = ::fcntl(fd, F_GETFL, 0);
  return ::fcntl(fd, F_SETFL, flags < 0 ? O_NONBLOCK : flags | O_NONBLOCK);
}

int setblock(int fd) {
  const int flags = ::fcntl(fd, F_GETFL, 0);
  return ::fcntl(fd, F_SETFL, flags < 0 ? 0 : flags & ~O_NONBLOCK);
}

namespace {

thread_local WaitLimit* t_limits = nullptr;  // the calling thread's innermost scope

}  // namespace

WaitLimit::WaitLimit(const std::atomic<bool>* stop, Clock::time_point deadline)
    : stop_(stop), deadline_(deadline), outer_(t_limits) {
  t_limits = this;
}

WaitLimit::~WaitLimit() { t_limits = outer_; }

const char* WaitLimit::reached() {
  for (const WaitLimit* l = t_limits; l != nullptr; l = l->outer_) {
    if (l->stop_ != nullptr && l->stop_->load()) return "the stream is ending";
    if (Clock::now() >= l->deadline_) return "it took too long";
  }
  return nullptr;
}

void WaitLimit::sleep(std::chrono::milliseconds duration) {
  for (const auto end = Clock::now() + duration; Clock::now() < end && reached() == nullptr;) {
    std::this_thread::sleep_for(
        std::min<Clock::duration>(end - Clock::now(), std::chrono::milliseconds(kWaitSliceMs)));
  }
}

int poll_one(int fd, short events, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    pollfd pfd{fd, events, 0};
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (t_limits != nullptr) left = std::min<long long>(left, kWaitSliceMs);
    const int r = ::poll(&pfd, 1, left > 0 ? static_cast<int>(left) : 0);
    if (r < 0 && errno == EINTR) continue;
    if (r != 0 || Clock::now() >= deadline || WaitLimit::reached() != nullptr) return r;
  }
}

Connection::Connection() = default;
Connection::~Connection() { reset(); }

void Connection::reset(int fd) {
  tls_.reset();
  fd_.reset(fd);
}

bool Connection::start_tls(const std::string& host, int port, int timeout_ms) {
  tls_ = TlsChannel::connect(fd_.get(), host, port, timeout_ms);
  return tls_ != nullptr;
}

long Connection::read(char* buf, unsigned long len, int timeout_ms) {
  if (!fd_.valid()) return -2;
  if (tls_) return tls_->read(buf, len, timeout_ms);
  return read_with_timeout(fd_.get(), buf, len, timeout_ms);
}

long Connection::send(const char* data, size_t n, int timeout_ms) {
  if (!fd_.valid()) return -2;
  if (tls_) return tls_->write(data, n, timeout_ms);
  if (poll_one(fd_.get(), POLLOUT, timeout_ms) != 1) return -2;
  return static_cast<long>(::send(fd_.get(), data, n, MSG_NOSIGNAL));
}

}  // namespace skerir

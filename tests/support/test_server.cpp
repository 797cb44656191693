#include "support/test_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <vector>

#include "support/log_capture.h"

namespace skerir::test {

TestServer::TestServer(unsigned long max_buffer_size)
    : server_(new Webserver(INADDR_LOOPBACK, 0, 5, max_buffer_size)) {
  LogCapture::instance();
  server_->do_bind();
  port_ = server_->bound_port();
  thread_ = std::thread([s = server_] { s->serve_forever(); });
  while (!server_->serving()) std::this_thread::yield();
}

TestServer::~TestServer() {
  server_->request_stop();
  thread_.join();
  // Kept reachable, not freed: detached connection threads may still use it, and a pointer
  // held here keeps LeakSanitizer from reporting what is left on purpose. Only the test's own
  // thread destroys servers.
  static auto* const retired = new std::vector<Webserver*>();
  retired->push_back(server_);
}

int connect_loopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{.sin_family = AF_INET,
                 .sin_port = htons(static_cast<uint16_t>(port)),
                 .sin_addr = {htonl(INADDR_LOOPBACK)}};
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0) return fd;
  ::close(fd);
  return -1;
}

bool wait_listening(int port) {
  for (int i = 0; i < 600; ++i) {
    const int fd = connect_loopback(port);
    if (fd >= 0) return ::close(fd) == 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int free_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
  socklen_t len = sizeof(sa);
  ::bind(fd, reinterpret_cast<sockaddr*>(&sa), len);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
  ::close(fd);
  return ntohs(sa.sin_port);
}

bool read_until_close(int fd, std::string* out, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[65536];
  for (pollfd p{fd, POLLIN, 0};;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return true;  // a reset counts as closed
    out->append(buf, static_cast<size_t>(n));
  }
}

std::string roundtrip(int port, const std::string& request, std::chrono::milliseconds timeout) {
  const int fd = connect_loopback(port);
  [[maybe_unused]] const ssize_t w = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  std::string reply;
  read_until_close(fd, &reply, timeout);
  ::close(fd);
  return reply;
}

}  // namespace skerir::test

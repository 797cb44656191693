#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "support/log_capture.h"

namespace skerir::test {
namespace {

std::mutex g_graveyard_mutex;
std::vector<std::unique_ptr<Webserver>>* g_graveyard = new std::vector<std::unique_ptr<Webserver>>;

}  // namespace

TestServer::TestServer(unsigned long max_buffer_size) {
  LogCapture::instance();
  auto owned = std::make_unique<Webserver>(0x7F000001u, 0, 5, max_buffer_size);
  server_ = owned.get();
  {
    std::lock_guard lock(g_graveyard_mutex);
    g_graveyard->push_back(std::move(owned));
  }
  server_->do_bind();
  port_ = server_->bound_port();
  // Bound here so the port is known before the accept loop starts; serve_forever keeps it.
  thread_ = std::thread([s = server_] {
    try {
      s->serve_forever();
    } catch (const std::exception&) {
    }
  });
  while (!server_->serving()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TestServer::~TestServer() {
  server_->request_stop();
  thread_.join();
}

int connect_loopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) < 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool read_until_close(int fd, std::string* out, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[65536];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd pfd{fd, POLLIN, 0};
    const int r = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return true;  // reset by the peer counts as closed
    }
    out->append(buf, static_cast<size_t>(n));
  }
}

std::string exchange(int port, const std::string& request, std::chrono::milliseconds timeout) {
  const int fd = connect_loopback(port);
  if (fd < 0) throw std::runtime_error("cannot connect to the test server");
  size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t w = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (w <= 0) break;
    sent += static_cast<size_t>(w);
  }
  ::shutdown(fd, SHUT_WR);  // the request is complete; an empty one means "connect and close"
  std::string reply;
  read_until_close(fd, &reply, timeout);
  ::close(fd);
  return reply;
}

}  // namespace skerir::test

#include "main/webserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "cachemap/cachemap.h"
#include "main/request.h"
#include "util/log.h"

namespace skerir {

Webserver::Webserver(unsigned int addr, int p, int bl, unsigned long max_buffer)
    : address(addr),
      port(p),
      backlog(bl),
      max_buffer_size(max_buffer),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Webserver::request_stop() {
  stop_.store(true);
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(wake_.get(), &one, sizeof(one));
}

Webserver::~Webserver() {
  if (listen_socket >= 0) ::close(listen_socket);
}

void Webserver::do_bind() {
  listen_socket = ::socket(AF_INET, SOCK_STREAM, 0);
  if (listen_socket < 0) throw ListenerError("Couldn't create listening socket!");
  int one = 1;
  ::setsockopt(listen_socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(address);
  sa.sin_port = htons(static_cast<uint16_t>(port));
  if (::bind(listen_socket, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) < 0) {
    throw ListenerError("Couldn't bind listening socket.");
  }
  if (::listen(listen_socket, backlog) < 0) throw ListenerError("Call to listen failed.");
}

int Webserver::bound_port() const {
  sockaddr_in sa{};
  socklen_t len = sizeof(sa);
  if (::getsockname(listen_socket, reinterpret_cast<sockaddr*>(&sa), &len) < 0) return -1;
  return ntohs(sa.sin_port);
}

namespace {

// accept() failures that a client or a passing shortage can cause; they must not end the
// server. Anything else means the listening socket itself is broken.
bool accept_error_is_transient(int err) {
  switch (err) {
    case EINTR:
    case EAGAIN:
    case ECONNABORTED:
    case EPROTO:
    case EPERM:
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return true;
    default:
      return false;
  }
}

}  // namespace

void Webserver::serve_forever() {
  if (listen_socket < 0) do_bind();  // before any shared object exists
  const timeval client_timeout{kClientTimeoutSeconds, 0};
  stats_.zero();
  watchdog_ = std::make_unique<Watchdog>();
  create_cache_maps();  // shared by every listener of the process, created once
  serving_.store(true);

  while (!stop_.load()) {
    watchdog_->check();
    pollfd pfds[2] = {{listen_socket, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (::poll(pfds, 2, kAcceptWaitMs) <= 0 || !(pfds[0].revents & POLLIN)) continue;

    const int client = ::accept(listen_socket, nullptr, nullptr);
    if (client < 0) {
      const int err = errno;
      if (!accept_error_is_transient(err)) throw ListenerError("Error calling accept()");
      log_err("Error calling accept(): ", std::strerror(err));
      // Out of descriptors: give the connection threads a moment to release some.
      if (err == EMFILE || err == ENFILE) ::usleep(100 * 1000);
      continue;
    }
    if (::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &client_timeout, sizeof(client_timeout)) <
        0) {
      throw ListenerError("setsockopt failed SO_RCVTIMEO");
    }
    if (::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &client_timeout, sizeof(client_timeout)) <
        0) {
      throw ListenerError("setsockopt failed SO_SNDTIMEO");
    }
    process_request(client, &stats_, watchdog_.get());
  }
}

int Webserver::process_request(int socket, Stats* stats, Watchdog* watchdog) {
  auto request = std::make_unique<Request>(socket, max_buffer_size, stats, watchdog);
  const int rc = request->process();
  if (rc == 0) {
    request.release();  // the connection thread owns it now
  } else {
    log_err("Could not start connection thread: ", std::strerror(rc));
    ::close(socket);
  }
  return rc;
}

}  // namespace skerir

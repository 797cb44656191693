#include "main/webserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
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
#include "upstream/own_listeners.h"
#include "util/log.h"

namespace skerir {

Webserver::Webserver(unsigned int addr, int p, int bl, unsigned long max_buffer)
    : Webserver(std::vector{ListenAddress::ipv4(addr, p)}, bl, max_buffer) {
  address = addr;
}

Webserver::Webserver(std::vector<ListenAddress> addresses, int bl, unsigned long max_buffer)
    : address(0),
      port(addresses.empty()
               ? 0
               : ntohs(reinterpret_cast<const sockaddr_in&>(addresses.front().address).sin_port)),
      backlog(bl),
      max_buffer_size(max_buffer),
      addresses_(std::move(addresses)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Webserver::request_stop() {
  stop_.store(true);
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(wake_.get(), &one, sizeof(one));
}

Webserver::~Webserver() = default;

void Webserver::do_bind() {
  for (const ListenAddress& a : addresses_) {
    UniqueFd fd(::socket(a.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) throw ListenerError("Couldn't create listening socket!");
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (a.family() == AF_INET6) {
      ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&a.address), a.length) < 0) {
      throw ListenerError("Couldn't bind listening socket.");
    }
    if (::listen(fd.get(), backlog) < 0) throw ListenerError("Call to listen failed.");
    sockaddr_storage bound{};
    socklen_t bound_length = sizeof(bound);
    if (::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&bound), &bound_length) == 0) {
      add_own_listener(reinterpret_cast<const sockaddr*>(&bound));  // upstream must not loop here
    }
    // Never block in accept(): a connection reset between poll() and accept() must not hold
    // up the other listeners.
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    listeners_.push_back(std::move(fd));
  }
  listen_socket = listeners_.empty() ? -1 : listeners_.front().get();
}

int Webserver::bound_port() const {
  sockaddr_storage sa{};
  socklen_t len = sizeof(sa);
  if (::getsockname(listen_socket, reinterpret_cast<sockaddr*>(&sa), &len) < 0) return -1;
  return ntohs(sa.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(sa).sin6_port
                                        : reinterpret_cast<const sockaddr_in&>(sa).sin_port);
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

  // The wake-up descriptors first, then one entry per listener.
  std::vector<pollfd> pfds = {{wake_.get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}};
  for (const UniqueFd& l : listeners_) pfds.push_back({l.get(), POLLIN, 0});
  constexpr size_t kFirstListener = 2;

  while (!stop_.load()) {
    watchdog_->check();
    for (pollfd& p : pfds) p.revents = 0;
    if (::poll(pfds.data(), pfds.size(), kAcceptWaitMs) <= 0) continue;
    if (pfds[1].revents != 0) break;  // a stop signal; the caller takes it from the descriptor
    for (size_t i = kFirstListener; i < pfds.size(); ++i) {
      if (pfds[i].revents & POLLIN) accept_one(pfds[i].fd, client_timeout);
    }
  }
  // Stop accepting: from here on a client is refused instead of waiting in the backlog.
  listeners_.clear();
  listen_socket = -1;
}

void Webserver::accept_one(int listener, const timeval& client_timeout) {
  const int client = ::accept(listener, nullptr, nullptr);
  if (client < 0) {
    const int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) return;  // the client left before we took it
    if (!accept_error_is_transient(err)) throw ListenerError("Error calling accept()");
    log_err("Error calling accept(): ", std::strerror(err));
    // Out of descriptors: give the connection threads a moment to release some.
    if (err == EMFILE || err == ENFILE) ::usleep(100 * 1000);
    return;
  }
  if (::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &client_timeout, sizeof(client_timeout)) < 0) {
    throw ListenerError("setsockopt failed SO_RCVTIMEO");
  }
  if (::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &client_timeout, sizeof(client_timeout)) < 0) {
    throw ListenerError("setsockopt failed SO_SNDTIMEO");
  }
  process_request(client, &stats_, watchdog_.get());
}

int Webserver::process_request(int socket, Stats* stats, Watchdog* watchdog) {
  auto request = std::make_unique<Request>(socket, max_buffer_size, stats, watchdog);
  request->map_token = &map_token;
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

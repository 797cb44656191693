// URL parsing, connection management and the three guarded socket operations of UCurl.
#include "upstream/ucurl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cachemap/cachemap.h"
#include "upstream/upstream_policy.h"
#include "util/log.h"

namespace skerir {
namespace {

constexpr size_t kHttpCut = 7;   // length of "http://"
constexpr size_t kHttpsCut = 8;  // length of "https://"

// atoi without its undefined behaviour on overflow: leading blanks and a sign are accepted,
// parsing stops at the first non-digit, and the result saturates at the int range.
int to_int(const std::string& text) {
  const long v = std::strtol(text.c_str(), nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

std::string errno_text(int err) {
  char buf[256];
  return strerror_r(err, buf, sizeof(buf));
}

using Clock = std::chrono::steady_clock;

// Waits until `fd` is ready for `events` or `timeout_ms` has passed, restarting after a
// signal with the time that is left. Returns poll()'s count: exactly 1 means ready (readiness
// includes an error or hang-up on the socket, which the following read or write reports).
int poll_one(int fd, short events, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    pollfd pfd{fd, events, 0};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int r = ::poll(&pfd, 1, left > 0 ? static_cast<int>(left) : 0);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

int seconds_to_ms(long seconds) {
  if (seconds <= 0) return 0;
  if (seconds > INT_MAX / 1000) return INT_MAX;
  return static_cast<int>(seconds * 1000);
}

// One read after waiting up to `timeout_ms` for data. Returns the byte count (0 at end of
// stream), -1 on a read error (errno kept), or -2 when nothing arrived in time. Data already
// waiting is taken without a poll() first (one system call per block on a busy transfer); a
// wake-up without data (EINTR, or EAGAIN after a spurious readiness) waits again for the time
// left.
long read_with_timeout(int fd, char* buf, unsigned long len, int timeout_ms) {
  if (fd < 0) return -2;
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

std::string build_request(const std::string& path, const std::string& host, int port,
                          bool keep_alive, unsigned long from_bytes) {
  std::ostringstream req;
  req << "GET " << path << " HTTP/1.1\r\n";
  req << "Host: " << host;
  if (port != kDefaultHttpPort) req << ":" << port;
  req << "\r\n";
  req << "Connection: " << (keep_alive ? "keep-alive\r\n" : "close\r\n");
  if (from_bytes != 0) req << "Range: bytes=" << from_bytes << "-\r\n";
  req << "\r\n";
  return std::move(req).str();
}

UCurl::UCurl() = default;

UCurl::~UCurl() { do_disconnect(); }

void UCurl::parse_url(const std::string* url) {
  if (url == nullptr) throw UCurlException("no URL");
  log_out("parse URL: ", *url);
  cache_kind = 0;
  const std::string& text = *url;
  const std::string scheme = text.substr(0, text.find("://"));
  std::string rest;
  // The cut is by the scheme's fixed length, not by where "://" is: a URL that is exactly
  // "http" throws std::out_of_range here, which get_common counts as a failed attempt.
  if (scheme == "http") {
    https = 0;
    rest = text.substr(kHttpCut);
  } else if (scheme == "https") {
    https = 1;
    rest = text.substr(kHttpsCut);
  } else {
    throw UCurlException(scheme);
  }

  const size_t colon = rest.find(':');
  const size_t slash = rest.find('/');
  std::string new_path(1, '/');  // when the URL has no path
  if (colon != std::string::npos && (slash == std::string::npos || colon < slash)) {
    // A named port is taken as it stands, even for a placeholder host.
    host = rest.substr(0, colon);
    rest = rest.substr(colon + 1);
    const size_t port_end = rest.find('/');
    if (port_end == std::string::npos) {
      port = to_int(rest);
    } else {
      port = to_int(rest.substr(0, port_end));
      new_path = rest.substr(port_end);
    }
    path = new_path;
    return;
  }

  port = kDefaultHttpPort;  // also for https: nothing here speaks TLS
  if (slash == std::string::npos) {
    host = rest;
  } else {
    host = rest.substr(0, slash);
    new_path = rest.substr(slash);
  }

  CacheMap* map = nullptr;
  const char* missing = nullptr;
  int kind = 0;
  if (host == "@") {
    map = cache_map;
    missing = "No cache server found";
    kind = 1;
  } else if (host == "~") {
    map = cache_map_playlist;
    missing = "No playlist cache server found";
    kind = 2;
  }
  if (kind != 0) {
    const std::string server = map != nullptr ? map->getServerFor(new_path) : std::string();
    if (server.empty()) throw UCurlException(missing);
    const size_t sep = server.find(':');
    host = server.substr(0, sep);
    // Without ":" the whole name is also taken as the port text (npos + 1 wraps to 0).
    port = to_int(server.substr(sep + 1));
    cache_kind = kind;
    cache_server = server;
  }
  path = new_path;
}

bool UCurl::do_connect(std::string host_name, int port_number) {
  if (sock.valid() && connected_host == host_name && connected_port == port_number) {
    // Deliberately no probe: a connection the server closed shows up as a failed send or an
    // empty status read, and get_common then reconnects.
    log_out("reusing existing connection");
    return true;
  }
  if (connected_host != host_name) log_out("old address does not match");
  if (connected_port != port_number) {
    log_out("old port does not match: ", connected_port, "->", port_number);
  }
  do_disconnect();

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_err("Could not create socket");
    return false;
  }
  sock.reset(fd);
  log_out("Socket created");

  const in_addr_t numeric = ::inet_addr(host_name.c_str());
  if (numeric != INADDR_NONE) {
    server_addr.sin_addr.s_addr = numeric;
  } else {
    // getaddrinfo rather than gethostbyname: several streams resolve at once on their own
    // threads, and gethostbyname's static result is not safe for that.
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host_name.c_str(), nullptr, &hints, &found) != 0) {
      log_err("Failed to resolve hostname: ", host_name);
      setblock(fd);
      do_disconnect();
      return false;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    if (found != nullptr && found->ai_addr != nullptr) {
      server_addr.sin_addr = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
      char dotted[INET_ADDRSTRLEN] = {};
      ::inet_ntop(AF_INET, &server_addr.sin_addr, dotted, sizeof(dotted));
      log_out(host_name, " resolved to ", dotted);
    }
  }
  server_addr.sin_family = AF_INET;
  server_addr.sin_port = htons(static_cast<uint16_t>(port_number));
  // The operator's allow list is judged on the address about to be connected to.
  if (!upstream_policy()->allowed(host_name, port_number,
                                  reinterpret_cast<const sockaddr*>(&server_addr))) {
    log_err("Excep: upstream not allowed: ", host_name, ":", port_number);
    do_disconnect();
    return false;
  }
  setnonblock(fd);

  if (::connect(fd, reinterpret_cast<const sockaddr*>(&server_addr), sizeof(server_addr)) != 0) {
    const int err = errno;
    if (err != EINPROGRESS) {
      setblock(fd);
      log_err("ERR: connect failed: ", errno_text(err));
      do_disconnect();
      return false;
    }
    log_out("EINPROGRESS in connect() - selecting");
    // Writability alone counts as connected (SO_ERROR is not read): a refused connection
    // fails at the send or the status read that follows, and is retried there.
    if (poll_one(fd, POLLOUT, kConnectTimeoutMs) != 1) {
      log_err("ERR: connect timeout");
      setblock(fd);
      do_disconnect();
      return false;
    }
    setblock(fd);
  }
  // An immediate connect leaves the socket non-blocking; every later operation waits with
  // poll() first, so either mode works.

  log_out("old: ", connected_host, " port: ", port);
  connected_host = host_name;
  connected_port = port_number;
  log_out("new: ", connected_host, " port: ", port);
  log_out("Connected: ", host_name);
  return true;
}

void UCurl::do_disconnect() {
  if (sock.valid()) {
    log_out("disconnect: ", host);
    sock.reset();
  }
}

void UCurl::invalidate_current_cache_server() {
  CacheMap* map = cache_kind == 1 ? cache_map : cache_kind == 2 ? cache_map_playlist : nullptr;
  if (map != nullptr) map->invalidateServer(cache_server);
}

bool UCurl::send_data(std::string data) {
  if (!sock.valid() || poll_one(sock.get(), POLLOUT, kSendTimeoutMs) != 1) {
    log_err("Send timeout");
    do_disconnect();
    return false;
  }
  // One write; a short write is not retried (requests are a few hundred bytes).
  if (::send(sock.get(), data.data(), data.size(), MSG_NOSIGNAL) < 0) {
    log_err("Send failed");
    invalidate_current_cache_server();
    do_disconnect();
    return false;
  }
  return true;
}

std::string UCurl::receive(unsigned long len, long timeout) {
  if (scratch_.size() < len) scratch_.resize(len);
  const long n = read_with_timeout(sock.get(), scratch_.data(), len, seconds_to_ms(timeout));
  if (n == -2) {
    do_disconnect();
    throw UCurlExceptionRecvError("recv timeout1");
  }
  if (n < 0) {
    log_err("recv error");
    do_disconnect();
    throw UCurlExceptionRecvError("recv error");
  }
  return std::string(scratch_.data(), static_cast<size_t>(n));
}

unsigned long UCurl::receive_stream(char* buf, unsigned long len) {
  const long n = read_with_timeout(sock.get(), buf, len, kStreamTimeoutMs);
  if (n == -2) {
    do_disconnect();
    throw UCurlExceptionRecvError("recv timeout2");
  }
  return static_cast<unsigned long>(n);  // -1 on error, as read() gives it
}

}  // namespace skerir

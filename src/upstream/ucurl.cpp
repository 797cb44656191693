// URL parsing, connection management and the three guarded socket operations of UCurl.
#include "upstream/ucurl.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cachemap/cachemap.h"
#include "upstream/own_listeners.h"
#include "upstream/upstream_policy.h"
#include "upstream/url.h"
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

int seconds_to_ms(long seconds) {
  if (seconds <= 0) return 0;
  if (seconds > INT_MAX / 1000) return INT_MAX;
  return static_cast<int>(seconds * 1000);
}

// The addresses of `host` to try, IPv4 first: a name that always reached an IPv4 address keeps
// doing so, and its IPv6 addresses are the fallback. Literals are not passed to the resolver.
bool resolve(const std::string& host, int port, std::vector<sockaddr_storage>* out) {
  const auto net_port = htons(static_cast<uint16_t>(port));
  sockaddr_storage ss{};
  const in_addr_t v4 = ::inet_addr(host.c_str());
  if (v4 != INADDR_NONE) {
    auto* sin = reinterpret_cast<sockaddr_in*>(&ss);
    sin->sin_family = AF_INET;
    sin->sin_port = net_port;
    sin->sin_addr.s_addr = v4;
    out->push_back(ss);
    return true;
  }
  auto* sin6 = reinterpret_cast<sockaddr_in6*>(&ss);
  if (::inet_pton(AF_INET6, host.c_str(), &sin6->sin6_addr) == 1) {
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = net_port;
    out->push_back(ss);
    return true;
  }
  // getaddrinfo rather than gethostbyname: several streams resolve at once on their own
  // threads, and gethostbyname's static result is not safe for that.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  for (const int family : {AF_INET, AF_INET6}) {
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
      if (a->ai_family != family || a->ai_addrlen > sizeof(ss)) continue;
      ss = {};
      std::memcpy(&ss, a->ai_addr, a->ai_addrlen);
      if (family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(&ss)->sin_port = net_port;
      } else {
        reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port = net_port;
      }
      out->push_back(ss);
    }
  }
  return true;
}

std::string address_text(const sockaddr_storage& ss) {
  char text[INET6_ADDRSTRLEN] = {};
  if (ss.ss_family == AF_INET6) {
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&ss)->sin6_addr, text,
                sizeof(text));
  } else {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&ss)->sin_addr, text, sizeof(text));
  }
  return text;
}

}  // namespace

std::string build_request(const std::string& path, const std::string& host, int port,
                          bool keep_alive, unsigned long from_bytes, int default_port,
                          const HeaderLines& extra, uint64_t range_end) {
  std::ostringstream req;
  req << "GET " << path << " HTTP/1.1\r\n";
  if (host.find(':') != std::string::npos) {
    req << "Host: [" << host << "]";
  } else {
    req << "Host: " << host;
  }
  if (port != default_port) req << ":" << port;
  req << "\r\n";
  req << "Connection: " << (keep_alive ? "keep-alive\r\n" : "close\r\n");
  if (from_bytes != 0 || range_end != 0) {
    req << "Range: bytes=" << from_bytes << "-";
    if (range_end != 0) req << range_end - 1;
    req << "\r\n";
  }
  for (const auto& [name, value] : extra) req << name << ": " << value << "\r\n";
  req << "\r\n";
  return std::move(req).str();
}

UCurl::UCurl() = default;

UCurl::~UCurl() { do_disconnect(); }

void UCurl::parse_url(const std::string* url) {
  if (url == nullptr) throw UCurlException("no URL");
  // Refused before it is even logged: a CR LF in it would forge log lines as well as requests.
  if (std::string why = unsafe_url_reason(*url); !why.empty()) throw UCurlException(why);
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
  const int default_port = https == 1 ? kDefaultHttpsPort : kDefaultHttpPort;

  if (rest.starts_with('[')) {
    // An IPv6 literal, kept without its brackets (they are the URL's, not the address's).
    const size_t close = rest.find(']');
    if (close == std::string::npos) throw UCurlException("IPv6 address without ']' in URL");
    host = rest.substr(1, close - 1);
    rest.erase(0, close + 1);
    const size_t slash_at = rest.find('/');
    port = rest.starts_with(':') ? to_int(rest.substr(1)) : default_port;
    path = slash_at == std::string::npos ? "/" : rest.substr(slash_at);
    return;
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

  port = default_port;
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

bool UCurl::open_socket(int family) {
  const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_err("Could not create socket");
    return false;
  }
  sock.reset(fd);
  return true;
}

bool UCurl::do_connect(std::string host_name, int port_number) {
  const bool tls = https == 1;
  if (sock.valid() && connected_host == host_name && connected_port == port_number &&
      sock.secure() == tls) {
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

  // An IPv4 socket first, as ever; an IPv6 address gets a socket of its own below.
  if (!open_socket(AF_INET)) return false;
  log_out("Socket created");

  std::vector<sockaddr_storage> addresses;
  if (!resolve(host_name, port_number, &addresses) || addresses.empty()) {
    log_err("Failed to resolve hostname: ", host_name);
    setblock(sock.get());
    do_disconnect();
    return false;
  }
  in6_addr v6{};
  if (::inet_addr(host_name.c_str()) == INADDR_NONE &&
      ::inet_pton(AF_INET6, host_name.c_str(), &v6) != 1) {
    log_out(host_name, " resolved to ", address_text(addresses[0]));
  }
  // The operator's allow list is judged on the addresses the name resolves to.
  std::erase_if(addresses, [&](const sockaddr_storage& a) {
    return !upstream_policy()->allowed(host_name, port_number,
                                       reinterpret_cast<const sockaddr*>(&a));
  });
  if (addresses.empty()) {
    log_err("Excep: upstream not allowed: ", host_name, ":", port_number);
    refused_ = true;
    do_disconnect();
    return false;
  }
  if (std::any_of(addresses.begin(), addresses.end(), [](const sockaddr_storage& a) {
        return is_own_listener(reinterpret_cast<const sockaddr*>(&a));
      })) {
    log_err("Excep: refusing a request to skerir itself: ", host_name, ":", port_number);
    refused_ = true;
    do_disconnect();
    return false;
  }

  // Every address shares the one connect budget. Only when another address is left to try is a
  // finished connect's SO_ERROR read; the last (usually the only) one counts as connected once
  // writable, and a refusal shows at the send or status read that follows, as it always has.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kConnectTimeoutMs);
  bool connected = false;
  for (size_t i = 0; i < addresses.size() && !connected; ++i) {
    const bool last = i + 1 == addresses.size();
    server_addr = addresses[i];
    server_addr_len_ =
        server_addr.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if ((i > 0 || server_addr.ss_family != AF_INET) && !open_socket(server_addr.ss_family)) {
      return false;
    }
    const int fd = sock.get();
    setnonblock(fd);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&server_addr), server_addr_len_) == 0) {
      // An immediate connect leaves the socket non-blocking; every later operation waits with
      // poll() first, so either mode works.
      connected = true;
      break;
    }
    const int err = errno;
    if (err != EINPROGRESS) {
      setblock(fd);
      log_err("ERR: connect failed: ", errno_text(err));
      continue;
    }
    log_out("EINPROGRESS in connect() - selecting");
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    // Addresses left to try share what remains of the budget.
    const long long wait = last ? left : left / static_cast<long long>(addresses.size() - i);
    if (poll_one(fd, POLLOUT, static_cast<int>(std::max(0LL, wait))) != 1) {
      log_err("ERR: connect timeout");
      setblock(fd);
      continue;
    }
    setblock(fd);
    int so_error = 0;
    socklen_t len = sizeof(so_error);
    if (!last && ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &len) == 0 && so_error != 0) {
      log_err("ERR: connect failed: ", errno_text(so_error));
      continue;
    }
    connected = true;
  }
  if (!connected) {
    do_disconnect();
    return false;
  }
  // TLS before the connection counts as made: a failed handshake leaves connected_host and
  // connected_port as they were, like any other failure here.
  if (tls && !sock.start_tls(host_name, port_number, kTlsHandshakeTimeoutMs)) {
    do_disconnect();
    return false;
  }

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
  const long sent = sock.send(data.data(), data.size(), kSendTimeoutMs);
  if (sent == -2) {
    log_err("Send timeout");
    do_disconnect();
    return false;
  }
  if (sent < 0) {
    log_err("Send failed");
    invalidate_current_cache_server();
    do_disconnect();
    return false;
  }
  return true;
}

std::string UCurl::receive(unsigned long len, long timeout) {
  if (scratch_.size() < len) scratch_.resize(len);
  const long n = sock.read(scratch_.data(), len, seconds_to_ms(timeout));
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
  const long n = sock.read(buf, len, kStreamTimeoutMs);
  if (n == -2) {
    do_disconnect();
    throw UCurlExceptionRecvError("recv timeout2");
  }
  return static_cast<unsigned long>(n);  // -1 on error, as read() gives it
}

}  // namespace skerir

#include "upstream/own_listeners.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <vector>

namespace skerir {
namespace {

// An address in IPv6 form (IPv4 as IPv4-mapped) and a port, so both families compare alike.
struct Endpoint {
  std::array<uint8_t, 16> address{};
  int port = 0;
  bool operator==(const Endpoint&) const = default;
};

Endpoint endpoint_of(const sockaddr* sa) {
  Endpoint e;
  if (sa->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
    e.address[10] = e.address[11] = 0xFF;
    std::memcpy(e.address.data() + 12, &in->sin_addr, 4);
    e.port = ntohs(in->sin_port);
  } else if (sa->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
    std::memcpy(e.address.data(), &in6->sin6_addr, 16);
    e.port = ntohs(in6->sin6_port);
  }
  return e;
}

bool v4(const Endpoint& e) {
  return std::all_of(e.address.begin(), e.address.begin() + 10, [](uint8_t b) { return b == 0; }) &&
         e.address[10] == 0xFF && e.address[11] == 0xFF;
}

// 0.0.0.0 or ::, which a listener binds for every address and a connection reaches locally.
bool unspecified(const Endpoint& e) {
  return std::all_of(e.address.begin() + (v4(e) ? 12 : 0), e.address.end(),
                     [](uint8_t b) { return b == 0; });
}

bool local(const Endpoint& e) {
  static constexpr std::array<uint8_t, 16> kV6Loopback{0, 0, 0, 0, 0, 0, 0, 0,
                                                       0, 0, 0, 0, 0, 0, 0, 1};
  return unspecified(e) || e.address == kV6Loopback || (v4(e) && e.address[12] == 127);
}

std::mutex g_listeners_mutex;
std::vector<Endpoint> g_listeners;  // guarded by g_listeners_mutex

}  // namespace

void add_own_listener(const sockaddr* address) {
  const Endpoint e = endpoint_of(address);
  std::vector<Endpoint> found{e};
  ifaddrs* interfaces = nullptr;
  if (unspecified(e) && ::getifaddrs(&interfaces) == 0) {
    for (ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
      if (i->ifa_addr == nullptr ||
          (i->ifa_addr->sa_family != AF_INET && i->ifa_addr->sa_family != AF_INET6)) {
        continue;
      }
      Endpoint mine = endpoint_of(i->ifa_addr);
      mine.port = e.port;
      found.push_back(mine);
    }
    ::freeifaddrs(interfaces);
  }
  std::lock_guard lock(g_listeners_mutex);
  g_listeners.insert(g_listeners.end(), found.begin(), found.end());
}

bool is_own_listener(const sockaddr* address) {
  const Endpoint e = endpoint_of(address);
  std::lock_guard lock(g_listeners_mutex);
  return std::any_of(g_listeners.begin(), g_listeners.end(), [&](const Endpoint& l) {
    return l.port == e.port && (l.address == e.address || (unspecified(l) && local(e)));
  });
}

}  // namespace skerir

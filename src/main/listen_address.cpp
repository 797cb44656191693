#include "main/listen_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

#include "util/log.h"

namespace skerir {
namespace {

constexpr int kMaxPort = 65535;

int parse_port(std::string_view s) {
  int port = -1;
  const auto [end, err] = std::from_chars(s.data(), s.data() + s.size(), port);
  if (s.empty() || err != std::errc() || end != s.data() + s.size() || port > kMaxPort) return -1;
  return port;
}

}  // namespace

std::optional<ListenAddress> ListenAddress::parse(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const int port = parse_port(text.substr(colon + 1));
  std::string_view host = text.substr(0, colon);
  if (port < 0 || host.empty()) return std::nullopt;

  ListenAddress a;
  a.text = std::string(text);
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']') return std::nullopt;
    auto& in6 = reinterpret_cast<sockaddr_in6&>(a.address);
    const std::string inside(host.substr(1, host.size() - 2));
    if (::inet_pton(AF_INET6, inside.c_str(), &in6.sin6_addr) != 1) return std::nullopt;
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(static_cast<uint16_t>(port));
    a.length = sizeof(sockaddr_in6);
    return a;
  }
  auto& in = reinterpret_cast<sockaddr_in&>(a.address);
  if (::inet_pton(AF_INET, std::string(host).c_str(), &in.sin_addr) != 1) return std::nullopt;
  in.sin_family = AF_INET;
  in.sin_port = htons(static_cast<uint16_t>(port));
  a.length = sizeof(sockaddr_in);
  return a;
}

ListenAddress ListenAddress::ipv4(uint32_t address, int port) {
  ListenAddress a;
  auto& in = reinterpret_cast<sockaddr_in&>(a.address);
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = htonl(address);
  in.sin_port = htons(static_cast<uint16_t>(port));
  a.length = sizeof(sockaddr_in);
  char dotted[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &in.sin_addr, dotted, sizeof(dotted));
  a.text = compose(dotted, ":", port);
  return a;
}

}  // namespace skerir

// One address the server accepts clients on, as the operator writes it: an IPv4 address and a
// port ("0.0.0.0:7744") or an IPv6 address in brackets and a port ("[::]:7744").
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skerir {

struct ListenAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
  std::string text;  // as written, for messages

  // Parses "A.B.C.D:PORT" or "[IPV6]:PORT" with PORT from 0 (any free port) to 65535;
  // nullopt for anything else, host names included.
  static std::optional<ListenAddress> parse(std::string_view text);
  // An IPv4 address in host byte order and a port.
  static ListenAddress ipv4(uint32_t address, int port);

  int family() const { return address.ss_family; }
};

}  // namespace skerir

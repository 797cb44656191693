// Which upstream servers skerir may connect to, from the operator's "--upstream-allow" list.
//
// Without a list every upstream is allowed, as always. With one, a connection is allowed only
// when one entry matches:
//   name           the URL's host name (any case), any port       origin.example.com
//   name:port      the same, that port only                       cdn.example.com:8080
//   address        the address connected to, any port            192.0.2.7   2001:db8::7
//   address:port   the same, that port only                       192.0.2.7:80   [2001:db8::7]:80
//   network        an address within it, any port                10.0.0.0/8   [2001:db8::]/32
// Addresses are judged after resolving, so a name that resolves into an allowed network is
// allowed, and a name alone never opens the addresses another name resolves to. An IPv4
// address seen as IPv4-mapped IPv6 matches the IPv4 entries.
//
// Threading: a policy is immutable once parsed. The process-wide one is set by main before
// serving and read by every upstream client; `g_policy_mutex` in the .cpp guards the swap.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace skerir {

// A list entry that is not one of the forms above; what() names it.
class UpstreamPolicyError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

class UpstreamPolicy {
 public:
  // Allows everything.
  UpstreamPolicy() = default;

  // Parses a comma-separated list; blanks around entries are ignored. Throws
  // UpstreamPolicyError for an empty list, an empty entry or any malformed one.
  static UpstreamPolicy parse(std::string_view list);

  // True when the list is empty, or when `host` (as the URL names it), `port` and the address
  // about to be connected to (`resolved`, AF_INET or AF_INET6; may be null) match an entry.
  bool allowed(const std::string& host, int port, const sockaddr* resolved) const;

  bool restricts() const { return !entries_.empty(); }

 private:
  struct Entry {
    std::string name;  // lower case; empty for an address or network entry
    int family = 0;    // AF_INET or AF_INET6 for an address or network entry
    std::array<uint8_t, 16> address{};
    int prefix = 0;  // leading bits of `address` that must match
    int port = 0;    // 0: any port
  };
  static Entry parse_entry(std::string_view text);

  std::vector<Entry> entries_;
};

// The policy every upstream connection is checked against.
std::shared_ptr<const UpstreamPolicy> upstream_policy();
void set_upstream_policy(UpstreamPolicy policy);

}  // namespace skerir

#include "upstream/upstream_policy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <mutex>

namespace skerir {
namespace {

constexpr int kIpv4Bits = 32;
constexpr int kIpv6Bits = 128;
constexpr int kMaxPort = 65535;
constexpr std::array<uint8_t, 12> kV4MappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

std::string_view trim_blanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// A decimal number in [min, max] and nothing else; -1 otherwise.
int parse_number(std::string_view s, int min, int max) {
  int value = -1;
  const auto [end, err] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (s.empty() || err != std::errc() || end != s.data() + s.size() || value < min || value > max) {
    return -1;
  }
  return value;
}

// An IPv4-mapped IPv6 address (::ffff:a.b.c.d) becomes the IPv4 address it carries.
void fold_v4_mapped(int* family, std::array<uint8_t, 16>* bytes) {
  if (*family != AF_INET6 ||
      !std::equal(kV4MappedPrefix.begin(), kV4MappedPrefix.end(), bytes->begin())) {
    return;
  }
  std::memmove(bytes->data(), bytes->data() + kV4MappedPrefix.size(), 4);
  std::fill(bytes->begin() + 4, bytes->end(), 0);
  *family = AF_INET;
}

// Fills family and bytes from a numeric IPv4 or IPv6 address.
bool parse_address(std::string_view text, int* family, std::array<uint8_t, 16>* bytes) {
  const std::string s(text);
  bytes->fill(0);
  if (::inet_pton(AF_INET, s.c_str(), bytes->data()) == 1) {
    *family = AF_INET;
    return true;
  }
  if (::inet_pton(AF_INET6, s.c_str(), bytes->data()) != 1) return false;
  *family = AF_INET6;
  fold_v4_mapped(family, bytes);
  return true;
}

bool valid_host_name(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
  });
}

bool prefix_matches(const std::array<uint8_t, 16>& a, const std::array<uint8_t, 16>& b, int bits) {
  const int whole = bits / 8;
  if (!std::equal(a.begin(), a.begin() + whole, b.begin())) return false;
  const int rest = bits % 8;
  if (rest == 0) return true;
  const uint8_t mask = static_cast<uint8_t>(0xff << (8 - rest));
  return (a[whole] & mask) == (b[whole] & mask);
}

std::mutex g_policy_mutex;
// Never destroyed: detached connection threads may still connect while the process exits.
auto* g_policy = new std::shared_ptr<const UpstreamPolicy>(std::make_shared<UpstreamPolicy>());

}  // namespace

UpstreamPolicy::Entry UpstreamPolicy::parse_entry(std::string_view text) {
  const auto bad = [&](const char* why) {
    return UpstreamPolicyError("bad entry '" + std::string(text) + "': " + why);
  };
  Entry e;
  std::string_view host = text;
  if (const size_t slash = text.find('/'); slash != std::string_view::npos) {
    std::string_view addr = text.substr(0, slash);
    if (addr.size() > 2 && addr.front() == '[' && addr.back() == ']') {
      addr = addr.substr(1, addr.size() - 2);
    }
    if (!parse_address(addr, &e.family, &e.address)) throw bad("not an address before '/'");
    const int max_bits = e.family == AF_INET ? kIpv4Bits : kIpv6Bits;
    e.prefix = parse_number(text.substr(slash + 1), 0, max_bits);
    if (e.prefix < 0) throw bad("prefix length out of range");
    return e;
  }
  if (text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) throw bad("no ']'");
    host = text.substr(1, close - 1);
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') throw bad("expected ':' and a port after ']'");
      e.port = parse_number(rest.substr(1), 1, kMaxPort);
    }
    if (host.find(':') == std::string_view::npos || !parse_address(host, &e.family, &e.address)) {
      throw bad("not an IPv6 address");
    }
  } else if (std::count(text.begin(), text.end(), ':') > 1) {
    if (!parse_address(text, &e.family, &e.address)) throw bad("not an IPv6 address");
  } else {
    if (const size_t colon = text.find(':'); colon != std::string_view::npos) {
      host = text.substr(0, colon);
      e.port = parse_number(text.substr(colon + 1), 1, kMaxPort);
    }
    if (!parse_address(host, &e.family, &e.address)) {
      if (!valid_host_name(host)) throw bad("not a host name or address");
      e.name = lower(host);
    }
  }
  if (e.port < 0) throw bad("port out of range");
  if (e.name.empty()) e.prefix = e.family == AF_INET ? kIpv4Bits : kIpv6Bits;
  return e;
}

UpstreamPolicy UpstreamPolicy::parse(std::string_view list) {
  UpstreamPolicy policy;
  size_t start = 0;
  for (;;) {
    const size_t comma = list.find(',', start);
    const std::string_view entry = trim_blanks(list.substr(start, comma - start));
    if (entry.empty()) throw UpstreamPolicyError("empty entry in '" + std::string(list) + "'");
    policy.entries_.push_back(parse_entry(entry));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return policy;
}

bool UpstreamPolicy::allowed(const std::string& host, int port, const sockaddr* resolved) const {
  if (entries_.empty()) return true;
  int family = 0;
  std::array<uint8_t, 16> address{};
  if (resolved != nullptr && resolved->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(resolved);
    std::memcpy(address.data(), &in->sin_addr, 4);
    family = AF_INET;
  } else if (resolved != nullptr && resolved->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(resolved);
    std::memcpy(address.data(), &in6->sin6_addr, 16);
    family = AF_INET6;
    fold_v4_mapped(&family, &address);
  }
  const std::string name = lower(host);
  for (const Entry& e : entries_) {
    if (e.port != 0 && e.port != port) continue;
    if (!e.name.empty() ? e.name == name
                        : family == e.family && prefix_matches(e.address, address, e.prefix)) {
      return true;
    }
  }
  return false;
}

std::shared_ptr<const UpstreamPolicy> upstream_policy() {
  std::lock_guard lock(g_policy_mutex);
  return *g_policy;
}

void set_upstream_policy(UpstreamPolicy policy) {
  auto next = std::make_shared<const UpstreamPolicy>(std::move(policy));
  std::lock_guard lock(g_policy_mutex);
  *g_policy = std::move(next);
}

}  // namespace skerir

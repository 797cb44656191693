// The operator's list of allowed upstreams, judged on names, ports and resolved addresses.
#include "upstream/upstream_policy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace skerir {
namespace {

// The address a connection would go to, as do_connect holds it.
sockaddr_storage resolved(const std::string& address) {
  sockaddr_storage sa{};
  if (::inet_pton(AF_INET, address.c_str(), &reinterpret_cast<sockaddr_in&>(sa).sin_addr) == 1) {
    sa.ss_family = AF_INET;
  } else if (::inet_pton(AF_INET6, address.c_str(),
                         &reinterpret_cast<sockaddr_in6&>(sa).sin6_addr) == 1) {
    sa.ss_family = AF_INET6;
  }
  return sa;
}

TEST(UpstreamPolicy, AllowsOnlyWhatAnEntryMatches) {
  const std::string list =
      " origin.example.com , cdn.example.com:8080,192.0.2.7:80,10.0.0.0/8,172.16.0.0/12,"
      "[2001:db8::]/32,[2001:db8:1::5]:443,fe80::1";
  const UpstreamPolicy policy = UpstreamPolicy::parse(list);
  EXPECT_TRUE(policy.restricts());
  const struct {
    std::string host;
    int port;
    std::string address;
    bool allowed;
  } cases[] = {
      {"origin.example.com", 80, "203.0.113.1", true},  // by name, any port
      {"ORIGIN.Example.COM", 1234, "203.0.113.1", true},
      {"evil.example.com", 80, "203.0.113.1", false},
      {"cdn.example.com", 8080, "203.0.113.2", true},
      {"cdn.example.com", 80, "203.0.113.2", false},  // the wrong port
      {"192.0.2.7", 80, "192.0.2.7", true},
      {"192.0.2.7", 81, "192.0.2.7", false},
      {"intranet", 80, "10.200.3.4", true},  // a name resolving into an allowed network
      {"x", 80, "11.0.0.1", false},
      {"x", 80, "172.31.255.255", true},
      {"x", 80, "172.32.0.0", false},      // just outside the /12
      {"x", 80, "::ffff:10.1.1.1", true},  // IPv4-mapped matches the IPv4 network
      {"x", 80, "2001:db8:ffff::1", true},
      {"x", 80, "2001:db9::1", false},
      {"x", 443, "2001:db8:1::5", true},
      {"x", 80, "fe80::1", true},
      {"x", 80, "fe80::2", false},
      {"origin.example.com.evil", 80, "198.51.100.1", false},
  };
  for (const auto& c : cases) {
    const sockaddr_storage sa = resolved(c.address);
    EXPECT_EQ(policy.allowed(c.host, c.port, reinterpret_cast<const sockaddr*>(&sa)), c.allowed)
        << c.host << ":" << c.port << " at " << c.address;
  }
  EXPECT_FALSE(policy.allowed("x", 80, nullptr));
  EXPECT_TRUE(UpstreamPolicy().allowed("anything", 1, nullptr));
}

TEST(UpstreamPolicy, RejectsMalformedListsNamingTheEntry) {
  for (const char* bad : {"", "a,", ",a", "a,,b", "host:0", "host:65536", "host:x", "ho st",
                          "10.0.0.0/33", "10.0.0.0/", "x/8", "[2001:db8::]/129", "[::1", "[::1]x",
                          "[::1]:0", "[10.0.0.1]:80", "a:b:c:d"}) {
    try {
      UpstreamPolicy::parse(bad);
      ADD_FAILURE() << "accepted: '" << bad << "'";
    } catch (const UpstreamPolicyError& e) {
      EXPECT_NE(std::string(e.what()).find("entry"), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace skerir

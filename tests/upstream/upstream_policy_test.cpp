// The operator's list of allowed upstreams, judged on names, ports and resolved addresses.
#include "upstream/upstream_policy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace skerir {
namespace {

TEST(UpstreamPolicy, AllowsOnlyWhatAnEntryMatches) {
  const UpstreamPolicy policy = UpstreamPolicy::parse(
      " origin.example.com , cdn.example.com:8080,192.0.2.7:80,172.16.0.0/12,[2001:db8::]/32,"
      "[2001:db8:1::5]:443");
  const struct {
    std::string host;
    int port;
    std::string address;  // where the connection would go
    bool allowed;
  } cases[] = {
      {"ORIGIN.Example.com", 1234, "203.0.113.1", true},  // by name, any port
      {"origin.example.com.evil", 80, "203.0.113.1", false},
      {"cdn.example.com", 8080, "203.0.113.2", true},
      {"cdn.example.com", 80, "203.0.113.2", false},
      {"192.0.2.7", 80, "192.0.2.7", true},
      {"192.0.2.7", 81, "192.0.2.7", false},
      {"intranet", 80, "172.31.255.255", true},  // a name resolving into an allowed network
      {"intranet", 80, "172.32.0.0", false},
      {"x", 80, "::ffff:172.16.1.1", true},  // IPv4-mapped matches the IPv4 network
      {"x", 80, "2001:db8:ffff::1", true},
      {"x", 80, "2001:db9::1", false},
      {"x", 443, "2001:db8:1::5", true},
  };
  for (const auto& c : cases) {
    sockaddr_in6 in6{};
    sockaddr_in in{};
    const sockaddr* sa = reinterpret_cast<const sockaddr*>(&in);
    if (::inet_pton(AF_INET, c.address.c_str(), &in.sin_addr) == 1) {
      in.sin_family = AF_INET;
    } else {
      ASSERT_EQ(::inet_pton(AF_INET6, c.address.c_str(), &in6.sin6_addr), 1);
      in6.sin6_family = AF_INET6;
      sa = reinterpret_cast<const sockaddr*>(&in6);
    }
    EXPECT_EQ(policy.allowed(c.host, c.port, sa), c.allowed) << c.host << " at " << c.address;
  }
  EXPECT_TRUE(UpstreamPolicy().allowed("anything", 1, nullptr));
}

TEST(UpstreamPolicy, RejectsMalformedListsNamingTheEntry) {
  for (const char* bad : {"", "a,", "host:0", "host:65536", "ho st", "10.0.0.0/33", "x/8",
                          "[2001:db8::]/129", "[::1", "[::1]x", "[10.0.0.1]:80", "a:b:c"}) {
    EXPECT_THROW(UpstreamPolicy::parse(bad), UpstreamPolicyError) << bad;
  }
}

}  // namespace
}  // namespace skerir

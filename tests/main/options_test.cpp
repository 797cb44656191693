// The command line: the buffer size first as it always was, then the options.
#include "main/options.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace skerir {
namespace {

using Action = Options::Action;

TEST(CommandLine, SizeFirstThenOptionsAndOneLineForEachMistake) {
  const struct {
    std::vector<std::string> args;
    Action action;
    std::string message;  // kFail: exact; kHelp/kVersion: a fragment
    unsigned long size = 0;
    size_t listeners = 0;
  } cases[] = {
      {{}, Action::kFail, "Specify maximal buffer size"},
      {{"16777216"}, Action::kServe, "", 16777216},
      {{"abc"}, Action::kServe, "", 0},
      {{"-1"}, Action::kServe, "", static_cast<unsigned long>(-1)},
      {{"12kb"}, Action::kServe, "", 12},
      {{"--help"}, Action::kHelp, "--upstream-allow LIST"},
      {{"-h"}, Action::kHelp, "/metrics"},
      {{"100", "--listen", "[::]:1", "-h"}, Action::kHelp, "/streams.json"},
      {{"--version"}, Action::kVersion, "skerir "},
      {{"1", "--listen", "127.0.0.1:0", "--listen=[::1]:8080"}, Action::kServe, "", 1, 2},
      {{"1", "--map-token", "--help"}, Action::kServe, "", 1},  // a value, not an option
      {{"1", "--upstream-allow", "a", "--upstream-allow", "b:1,10.0.0.0/8"}, Action::kServe, "", 1},
      {{"1", "--lisen", "x"},
       Action::kFail,
       "skerir: unknown option '--lisen' (see skerir --help)"},
      {{"--listen", "0.0.0.0:7744"},
       Action::kFail,
       "skerir: unexpected argument '0.0.0.0:7744': options come after the buffer size (see "
       "skerir --help)"},
      {{"1", "--listen"}, Action::kFail, "skerir: --listen needs a value"},
      {{"1", "--map-token="}, Action::kFail, "skerir: --map-token needs a non-empty value"},
      {{"1", "--upstream-allow", "a,,b"},
       Action::kFail,
       "skerir: --upstream-allow: empty entry in 'a,,b'"},
  };
  for (const auto& c : cases) {
    const Options o = Options::parse(c.args);
    std::string line;
    for (const auto& a : c.args) line += a + " ";
    SCOPED_TRACE(line);
    ASSERT_EQ(o.action, c.action) << o.message;
    if (c.action == Action::kFail) {
      EXPECT_EQ(o.message, c.message);
    } else if (c.action != Action::kServe) {
      EXPECT_NE(o.message.find(c.message), std::string::npos) << o.message;
    } else {
      EXPECT_EQ(o.max_buffer_size, c.size);
      EXPECT_EQ(o.listen.size(), c.listeners);
    }
  }
}

TEST(CommandLine, ListenAddressesAreIpv4OrBracketedIpv6WithAPort) {
  const auto v4 = ListenAddress::parse("192.0.2.1:7744");
  ASSERT_TRUE(v4);
  const auto& in = reinterpret_cast<const sockaddr_in&>(v4->address);
  EXPECT_EQ(in.sin_family, AF_INET);
  EXPECT_EQ(ntohs(in.sin_port), 7744);
  EXPECT_EQ(ntohl(in.sin_addr.s_addr), 0xC0000201u);

  const auto v6 = ListenAddress::parse("[::1]:65535");
  ASSERT_TRUE(v6);
  const auto& in6 = reinterpret_cast<const sockaddr_in6&>(v6->address);
  EXPECT_EQ(in6.sin6_family, AF_INET6);
  EXPECT_EQ(ntohs(in6.sin6_port), 65535);
  EXPECT_EQ(v6->length, sizeof(sockaddr_in6));

  for (const char* bad :
       {"7744", ":7744", "localhost:7744", "::1:7744", "[::1]", "[::1]:", "1.2.3.4:65536",
        "1.2.3.4:-1", "1.2.3.4:80x", "[1.2.3.4]:80", "1.2.3:80", "[::1:80"}) {
    EXPECT_FALSE(ListenAddress::parse(bad)) << bad;
  }
}

}  // namespace
}  // namespace skerir
